#!/usr/bin/env bash
# Every C++ file of the project is as clang-format writes it.
set -euo pipefail
cd "$(dirname "$0")/.."
files=$(git ls-files '*.cpp' '*.hpp')
[ -n "$files" ] || exit 0
clang-format --dry-run -Werror $files
