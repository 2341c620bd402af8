// Windows command-line quoting and splitting, as the simulated machine does them off Windows.
#pragma once

#include <string>
#include <vector>

namespace sim {

// One argument as Windows quotes it, so that splitting gives it back unchanged. The program
// name (the first argument) follows its own rule: quoted when it holds a blank, never escaped.
std::wstring quote_argument(const std::wstring& argument, bool programName);
std::wstring join_command_line(const std::vector<std::wstring>& arguments);
// Splits as CommandLineToArgvW does.
std::vector<std::wstring> split_command_line(const std::wstring& line);

} // namespace sim
