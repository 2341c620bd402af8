// What the command line leaves for the run driver, which no transcript prints whole. The texts
// of help, usage and every refusal stand in the golden transcripts (tests/golden/cli).
#include <gtest/gtest.h>

#include <cwchar>
#include <string>
#include <vector>

#include "app/command_line.hpp"
#include "sim/call_log.hpp"
#include "sim/machine.hpp"
#include "unit/support/console_capture.hpp"

namespace {

std::string narrow(const wchar_t* text) {
    return std::string(text, text + std::wcslen(text));
}

// The parsed values that differ from the defaults, or "refused" and the exit code.
std::string parse(std::vector<std::wstring> arguments) {
    sim::reset_machine();
    arguments.insert(arguments.begin(), L"quenmark");
    const int count = static_cast<int>(arguments.size());
    sim::set_command_line(std::move(arguments));
    DeviceContext context = make_device_context();
    RunOptions o = make_run_options();
    ParseResult result{};
    CommandLine line{};
    {
        ConsoleCapture capture;
        line = read_command_line(count, nullptr);
        result = parse_command_line(line, count, "quenmark", context, o);
    }
    const std::string json = line.json ? " json" : "";
    for (const sim::CallRecord& call : sim::machine().log) {
        EXPECT_TRUE(call.function == "GetCommandLineW" || call.function == "CommandLineToArgvW")
            << call.function << " while the command line was read";
    }
    if (!result.proceed) {
        return "refused " + std::to_string(result.exitCode) + json;
    }
    std::string s = "kind=" + sim::hex8(static_cast<unsigned>(context.interfaceKind));
    const auto add = [&s](bool shown, const std::string& field) { s += shown ? " " + field : ""; };
    add(o.devicePath[0] != 0, "path=" + narrow(o.devicePath));
    add(o.phyNumber != -1, "phy=" + std::to_string(o.phyNumber));
    std::string address;
    for (const std::uint8_t byte : o.sasAddress) {
        address += sim::hex8(byte);
    }
    add(address != std::string(16, '0'), "addr=" + address);
    add(o.request.downloadMode != 0x07, "mode=" + sim::hex8(o.request.downloadMode));
    add(o.request.segmentBlocks != 64, "g=" + std::to_string(o.request.segmentBlocks));
    add(o.request.timeoutSeconds != kDefaultDownloadTimeoutSeconds,
        "t=" + std::to_string(o.request.timeoutSeconds));
    add(o.retryCount != 0, "r=" + std::to_string(o.retryCount));
    add(context.verbose != 0, "v=" + std::to_string(context.verbose));
    add(context.optionL != 0, "l=" + std::to_string(context.optionL));
    add(o.request.fileName[0] != 0, "file=" + narrow(o.request.fileName));
    return s + json;
}

TEST(CommandLine, LeavesTheRunDriverWhatWasTyped) {
    const std::wstring x259(259, L'x');
    const std::wstring f259(259, L'f');
    const struct {
        std::vector<std::wstring> arguments;
        std::string parsed;
    } cases[] = {
        {{L"\\\\.\\PhysicalDrive0"}, "kind=01 path=\\\\.\\PhysicalDrive0"},
        {{L"--scan", L"/v"}, "kind=80 v=1"},
        {{L"/C:\\\\.\\SCSI3:1"}, "kind=04 path=\\\\.\\SCSI3: phy=1"},
        {{L"/C:\\\\.\\SCSI3:"}, "kind=04 path=\\\\.\\SCSI3: phy=0"},
        {{L"/C:\\\\.\\SCSI3: -7x"}, "kind=04 path=\\\\.\\SCSI3: phy=-7"},
        {{L"/C:\\\\.\\SCSI3:99999999999"}, "kind=04 path=\\\\.\\SCSI3: phy=2147483647"},
        {{L"/C:2,0000000500000000"}, "kind=04 path=\\\\.\\SCSI2: addr=0000000500000000"},
        {{L"/C:7,50aBcDeF0123ff9A"}, "kind=04 path=\\\\.\\SCSI7: addr=50abcdef0123ff9a"},
        // /g keeps the low eight bits of the number, unless they are 0.
        {{L"d", L"/g", L"300"}, "kind=01 path=d g=44"},
        {{L"d", L"/g", L"256"}, "kind=01 path=d"},
        {{L"d", L"/g", L"0"}, "kind=01 path=d"},
        {{L"d", L"/g", L"-1"}, "kind=01 path=d g=255"},
        {{L"d", L"/g", L" +12"}, "kind=01 path=d g=12"},
        {{L"d", L"/g", L"128abc"}, "kind=01 path=d g=128"},
        // The later mode option wins.
        {{L"d", L"/s", L"/e"}, "kind=01 path=d mode=0e"},
        {{L"d", L"/e", L"/s"}, "kind=01 path=d mode=03"},
        {{L"d", L"/t", L"3600"}, "kind=01 path=d t=3600"},
        // Options match by prefix, in their exact case.
        {{L"/T:\\\\.\\PhysicalDrive1", L"/vvx", L"/activate", L"/ix", L"/lz", L"/D:fw.LOD", L"/r",
          L"-3"},
         "kind=72 path=\\\\.\\PhysicalDrive1 r=-3 v=2 l=1 file=fw.LOD"},
        {{L"d", L"/vx"}, "kind=01 path=d v=1"},
        {{x259, L"/D:" + f259},
         "kind=41 path=" + std::string(259, 'x') + " file=" + std::string(259, 'f')},
        // Refusals no transcript in tests/golden/cli holds.
        {{L"d", L"/r", L"x1"}, "refused 8"},
        {{L"d", L"/r", L"-2147483649"}, "refused 8"},
        {{L"d", L"--scan"}, "refused 8"},
        // --json stands anywhere, the device's place included; where /g, /r or /t wants its
        // value it is no value, and the command line is refused (with a document).
        {{L"--json", L"d", L"/i"}, "kind=21 path=d json"},
        {{L"--scan", L"--json"}, "kind=80 json"},
        {{L"d", L"--json", L"/g", L"9", L"--json"}, "kind=01 path=d g=9 json"},
        {{L"d", L"/g", L"--json", L"9"}, "refused 8 json"},
        {{L"d", L"/t", L"--json"}, "refused 8 json"},
        {{L"--json"}, "refused 8 json"},
        {{L"d", L"--jsonx"}, "refused 8"},
        {{L"d", L"--JSON"}, "refused 8"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(parse(c.arguments), c.parsed) << narrow(c.arguments.back().c_str());
    }
}

} // namespace
