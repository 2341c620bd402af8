// The command line: the input, cut at NUL bytes, is the list of arguments after the program name.
// Each argument is decoded as UTF-8 that forgives anything (a stray byte stands for itself,
// surrogates and values above U+10FFFF come through), so that every wchar_t value can reach the
// parser while options such as /D: stay short for the fuzzer to find. The simulated machine
// quotes the arguments into one command line and splits it again by the Windows rules, as
// GetCommandLineW and CommandLineToArgvW give them to the program.
#include <cstddef>
#include <cstdint>
#include <cwchar>
#include <string>
#include <vector>

#include "app/command_line.hpp"
#include "app/report.hpp"
#include "app/run_options.hpp"
#include "fuzz_input.hpp"
#include "sim/machine.hpp"
#include "sim/process_command_line.hpp"

namespace {

// Permissive UTF-8: a lead byte with enough continuation bytes gives the value they spell,
// whatever it is; any other byte gives itself.
std::wstring decode_argument(const std::uint8_t* bytes, std::size_t count) {
    std::wstring text;
    for (std::size_t i = 0; i < count;) {
        const std::uint8_t lead = bytes[i];
        const std::size_t extra = lead >= 0xF0 && lead <= 0xF7   ? 3
                                  : lead >= 0xE0 && lead <= 0xEF ? 2
                                  : lead >= 0xC0 && lead <= 0xDF ? 1
                                                                 : 0;
        bool whole = extra != 0 && i + extra < count;
        std::uint32_t value = lead & (0x7F >> (extra + 1));
        for (std::size_t k = 1; whole && k <= extra; ++k) {
            whole = (bytes[i + k] & 0xC0) == 0x80;
            value = value << 6 | (bytes[i + k] & 0x3F);
        }
        text += static_cast<wchar_t>(whole ? value : lead);
        i += whole ? extra + 1 : 1;
    }
    return text;
}

std::vector<std::wstring> split_input(const std::uint8_t* data, std::size_t size) {
    std::vector<std::wstring> arguments;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= size; ++i) {
        if (i == size || data[i] == 0) {
            if (i != size || i != start) {
                arguments.push_back(decode_argument(data + start, i - start));
            }
            start = i + 1;
        }
    }
    return arguments;
}

bool terminated(const wchar_t (&field)[kPathUnits]) {
    return std::wmemchr(field, L'\0', kPathUnits) != nullptr;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::wstring> arguments = split_input(data, size);
    arguments.insert(arguments.begin(), L"quenmark");

    // The machine's quoting must give every argument back, or the program would be parsing
    // something other than what was typed.
    fuzz::expect(sim::split_command_line(sim::join_command_line(arguments)) == arguments,
                 "a quoted command line splits into other arguments");

    sim::reset_machine();
    fuzz::discard_console();
    sim::set_command_line(arguments);

    DeviceContext context = make_device_context();
    RunOptions options = make_run_options();
    const ParseResult parsed =
        parse_command_line(static_cast<int>(arguments.size()), "quenmark", context, options);

    if (parsed.proceed) {
        fuzz::expect(parsed.exitCode == 0, "a run that goes on carries an exit code");
        fuzz::expect(terminated(options.devicePath), "the device path has no terminating NUL");
        fuzz::expect(terminated(options.request.fileName), "the file name has no terminating NUL");
        // The selection echo reads both texts to their end.
        print_selection(options, context);
    } else {
        fuzz::expect(parsed.exitCode != 0, "a run that ends early ends with exit code 0");
    }
    console::reset_sinks();
    return 0;
}
