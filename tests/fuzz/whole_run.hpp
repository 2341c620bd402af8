// A whole run of the program in-process on the simulated machine: the wide arguments go to the
// machine's command line, main's own count and program name to quenmark_main.
#pragma once

#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

#include "app/run_driver.hpp"
#include "fuzz_input.hpp"
#include "sim/machine.hpp"
#include "sim/text_encoding.hpp"

namespace fuzz {

// The exit codes the program documents; any other is a fault of the run driver.
inline bool documented_exit_code(int code) {
    const int documented[] = {0, 1, 2, 4, 5, 6, 8, 9, 10};
    return std::find(std::begin(documented), std::end(documented), code) != std::end(documented);
}

// Runs the program with these arguments after the program name; returns its exit code.
inline int run_program(const std::vector<std::string>& arguments) {
    std::vector<std::wstring> wide{L"quenmark"};
    std::vector<std::string> narrow{"quenmark"};
    for (const std::string& argument : arguments) {
        wide.push_back(sim::wide_from_utf8(argument));
        narrow.push_back(argument);
    }
    sim::set_command_line(wide);
    std::vector<char*> argv;
    for (std::string& argument : narrow) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    const int code = quenmark_main(static_cast<int>(narrow.size()), argv.data());
    if (std::getenv("FUZZ_SHOW_OUTPUT") != nullptr) {
        std::fprintf(stderr, "[exit code %d]\n", code);
    }
    expect(documented_exit_code(code), "an exit code the program does not document");
    return code;
}

} // namespace fuzz
