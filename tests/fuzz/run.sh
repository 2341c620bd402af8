#!/usr/bin/env bash
# The fuzz targets: builds them with clang (libFuzzer, AddressSanitizer, UndefinedBehaviorSanitizer)
# into build/fuzz, replays every regression input and the seed corpus, then fuzzes each target for
# FUZZ_SECONDS seconds (default 20). Prints "N passed, N failed"; exits 1 on any failure.
#
#   bash tests/fuzz/run.sh                                    # as CI runs it
#   FUZZ_SECONDS=600 bash tests/fuzz/run.sh                   # ten minutes per target
#   FUZZ_SECONDS=3600 FUZZ_TARGETS=fuzz_csmi bash tests/fuzz/run.sh
#
# New inputs are kept in build/fuzz/corpus/<target> (longer runs go on from there); a crash is
# written to build/fuzz/artifacts/<target>/ and its reproduction command printed.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build=${FUZZ_BUILD_DIR:-$root/build/fuzz}
seconds=${FUZZ_SECONDS:-20}
jobs=${JOBS:-2}
read -r -a targets <<<"${FUZZ_TARGETS:-fuzz_command_line fuzz_identify fuzz_inquiry fuzz_pass_through fuzz_csmi}"

passed=0
failed=0
pass() {
  echo "PASS: $*"
  passed=$((passed + 1))
}
fail() {
  echo "FAIL: $*"
  failed=$((failed + 1))
}
finish() {
  echo "$passed passed, $failed failed"
  ((failed == 0))
  exit $?
}

# Largest input per target: room for every field its layout describes.
max_len() {
  case $1 in
  fuzz_command_line) echo 1024 ;;
  fuzz_identify) echo 1100 ;;
  fuzz_inquiry) echo 2600 ;;
  fuzz_pass_through) echo 512 ;;
  fuzz_csmi) echo 2600 ;;
  *) echo 4096 ;;
  esac
}

# The known open findings of a target: "input environment" lines.
known_open() {
  grep -v '^[[:space:]]*\(#\|$\)' "$here/known-open" 2>/dev/null | awk -v t="$1" '$1 == t {print $2, $3}'
}

export ASAN_OPTIONS=${FUZZ_ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:symbolize=1}
export UBSAN_OPTIONS=${FUZZ_UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

echo "== building the fuzz targets into $build"
if ! command -v clang++ >/dev/null ||
  ! compgen -G "/usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a" >/dev/null; then
  fail "build: clang and libFuzzer are missing (bash scripts/install-deps.sh installs them)"
  finish
fi
mkdir -p "$build"
generator=()
command -v ninja >/dev/null && generator=(-G Ninja)
if [ -f "$build/CMakeCache.txt" ]; then generator=(); fi
if cmake -S "$here" -B "$build" "${generator[@]}" -DCMAKE_CXX_COMPILER=clang++ >"$build/configure.log" 2>&1 &&
  cmake --build "$build" -j"$jobs" --target "${targets[@]}"; then
  pass "build"
else
  cat "$build/configure.log" 2>/dev/null
  fail "build"
  finish
fi

for target in "${targets[@]}"; do
  binary=$build/$target
  common=(-max_len="$(max_len "$target")" -rss_limit_mb=4096 -timeout=30)

  # Every crash ever found, one input at a time; known open ones may still crash.
  declare -A open_inputs=()
  environment=()
  while read -r input env; do
    [ -n "$input" ] || continue
    open_inputs[$input]=1
    [ -n "$env" ] && environment+=("$env")
  done < <(known_open "$target")
  for input in "$here/regressions/$target"/*; do
    [ -f "$input" ] || continue
    name=$(basename "$input")
    if "$binary" "${common[@]}" "$input" >"$build/$target.replay.log" 2>&1; then
      if [ -n "${open_inputs[$name]:-}" ]; then
        pass "$target regression $name (no longer crashes: delete its line from known-open)"
      else
        pass "$target regression $name"
      fi
    elif [ -n "${open_inputs[$name]:-}" ]; then
      echo "KNOWN OPEN: $target regression $name still crashes (tests/fuzz/known-open)"
    else
      tail -n 40 "$build/$target.replay.log"
      fail "$target regression $name"
    fi
  done
  unset open_inputs

  # The seed corpus, each input once.
  seeds=$here/corpus/$target
  if env "${environment[@]}" "$binary" "${common[@]}" -runs=0 "$seeds" >"$build/$target.seeds.log" 2>&1; then
    pass "$target seed corpus ($(find "$seeds" -type f | wc -l) inputs)"
  else
    tail -n 40 "$build/$target.seeds.log"
    fail "$target seed corpus"
  fi

  # Bounded fuzzing from the seeds and what earlier runs kept.
  work=$build/corpus/$target
  artifacts=$build/artifacts/$target
  mkdir -p "$work" "$artifacts"
  dictionary=()
  [ -f "$here/$target.dict" ] && dictionary=(-dict="$here/$target.dict")
  log=$build/$target.fuzz.log
  if env "${environment[@]}" "$binary" "${common[@]}" "${dictionary[@]}" \
    -max_total_time="$seconds" -print_final_stats=1 -artifact_prefix="$artifacts/" \
    "$work" "$seeds" >"$log" 2>&1; then
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    coverage=$(grep -o 'cov: [0-9]*' "$log" | tail -n 1)
    pass "$target fuzzed ${seconds}s: ${runs:-?} runs, ${coverage:-cov: ?}"
  else
    grep -a -B2 -A30 'ERROR\|invariant broken\|runtime error' "$log" | head -n 60
    crash=$(ls -t "$artifacts" 2>/dev/null | head -n 1)
    [ -n "$crash" ] && echo "reproduce: $binary $artifacts/$crash"
    fail "$target fuzzed ${seconds}s"
  fi
done

finish
