#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "app/command_line.hpp"
#include "sim/machine.hpp"
#include "unit/support/console_capture.hpp"

namespace {

struct Parsed {
    ParseResult result;
    DeviceContext context;
    RunOptions options;
    std::string out;
};

Parsed parse(std::vector<std::wstring> arguments) {
    sim::reset_machine();
    arguments.insert(arguments.begin(), L"quenmark");
    const int count = static_cast<int>(arguments.size());
    sim::set_command_line(std::move(arguments));
    Parsed parsed{{}, make_device_context(), make_run_options(), {}};
    ConsoleCapture capture;
    parsed.result = parse_command_line(count, "quenmark", parsed.context, parsed.options);
    parsed.out = capture.out;
    return parsed;
}

std::vector<std::uint8_t> address_of(const RunOptions& options) {
    return {options.sasAddress, options.sasAddress + 8};
}

TEST(CommandLine, DefaultsWithADeviceAlone) {
    const Parsed p = parse({L"\\\\.\\PhysicalDrive0"});
    ASSERT_TRUE(p.result.proceed);
    EXPECT_EQ(p.context.interfaceKind, ScsiPassThrough);
    EXPECT_STREQ(p.options.devicePath, L"\\\\.\\PhysicalDrive0");
    EXPECT_EQ(p.options.request.downloadMode, 0x07);
    EXPECT_EQ(p.options.request.segmentBlocks, 64);
    EXPECT_EQ(p.options.request.fileName[0], L'\0');
    EXPECT_EQ(p.options.phyNumber, -1);
    EXPECT_EQ(p.options.retryCount, 0);
    EXPECT_EQ(address_of(p.options), std::vector<std::uint8_t>(8, 0));
    EXPECT_EQ(p.out, "");
}

TEST(CommandLine, ScanReplacesTheWholeInterfaceWord) {
    const Parsed p = parse({L"--scan", L"/v"});
    ASSERT_TRUE(p.result.proceed);
    EXPECT_EQ(p.context.interfaceKind, ScanRequested);
    EXPECT_EQ(p.context.verbose, 1);
}

TEST(CommandLine, CsmiPhyForm) {
    Parsed p = parse({L"/C:\\\\.\\SCSI3:1"});
    ASSERT_TRUE(p.result.proceed);
    EXPECT_EQ(p.context.interfaceKind, Csmi);
    EXPECT_STREQ(p.options.devicePath, L"\\\\.\\SCSI3:");
    EXPECT_EQ(p.options.phyNumber, 1);

    p = parse({L"/C:\\\\.\\SCSI3:"});
    EXPECT_EQ(p.options.phyNumber, 0);
    p = parse({L"/C:\\\\.\\SCSI3: -7x"});
    EXPECT_EQ(p.options.phyNumber, -7);
    p = parse({L"/C:\\\\.\\SCSI3:99999999999"});
    EXPECT_EQ(p.options.phyNumber, 2147483647);
}

TEST(CommandLine, CsmiPortAddressForm) {
    const Parsed p = parse({L"/C:2,0000000500000000"});
    ASSERT_TRUE(p.result.proceed);
    EXPECT_STREQ(p.options.devicePath, L"\\\\.\\SCSI2:");
    EXPECT_EQ(p.options.phyNumber, -1);
    EXPECT_EQ(address_of(p.options), (std::vector<std::uint8_t>{0, 0, 0, 5, 0, 0, 0, 0}));

    const Parsed mixed = parse({L"/C:7,50aBcDeF0123ff9A"});
    EXPECT_EQ(address_of(mixed.options),
              (std::vector<std::uint8_t>{0x50, 0xAB, 0xCD, 0xEF, 0x01, 0x23, 0xFF, 0x9A}));
}

TEST(CommandLine, SegmentSizeKeepsTheLowEightBitsUnlessZero) {
    const struct {
        const wchar_t* number;
        std::uint8_t blocks;
    } cases[] = {{L"300", 44},  {L"256", 64},     {L"0", 64}, {L"-1", 255},
                 {L" +12", 12}, {L"128abc", 128}, {L"1", 1}};
    for (const auto& c : cases) {
        const Parsed p = parse({L"\\\\.\\PhysicalDrive0", L"/g", c.number});
        ASSERT_TRUE(p.result.proceed);
        EXPECT_EQ(p.options.request.segmentBlocks, c.blocks) << std::wstring(c.number).size();
    }
}

TEST(CommandLine, LaterModeOptionWins) {
    EXPECT_EQ(parse({L"d", L"/s", L"/e"}).options.request.downloadMode, 0x0E);
    EXPECT_EQ(parse({L"d", L"/e", L"/s"}).options.request.downloadMode, 0x03);
}

TEST(CommandLine, OptionsMatchByPrefixWithExactCase) {
    Parsed p = parse({L"/T:\\\\.\\PhysicalDrive1", L"/vvx", L"/activate", L"/ix", L"/lz",
                      L"/D:fw.LOD", L"/r", L"-3"});
    ASSERT_TRUE(p.result.proceed);
    EXPECT_EQ(p.context.interfaceKind,
              AtaPassThrough | ActivateRequested | InfoRequested | DownloadRequested);
    EXPECT_STREQ(p.options.devicePath, L"\\\\.\\PhysicalDrive1");
    EXPECT_EQ(p.context.verbose, 2);
    EXPECT_EQ(p.context.optionL, 1u);
    EXPECT_STREQ(p.options.request.fileName, L"fw.LOD");
    EXPECT_EQ(p.options.retryCount, -3);
    EXPECT_EQ(parse({L"d", L"/vx"}).context.verbose, 1);
}

TEST(CommandLine, EveryRefusalEndsWithExitCode8BeforeAnyDeviceAccess) {
    const std::vector<std::vector<std::wstring>> refused = {
        {L"/h"},
        {L"/Help"},
        {L"/C:\\\\.\\SCSI3"},
        {L"/C:2,00000005"},
        {L"/C:2,000000050000000g"},
        {L"/C:12,0000000500000000"},
        {L"d", L"/d:fw.LOD"},
        {L"d", L"/g"},
        {L"d", L"/r", L"x1"},
        {L"d", L"/r", L"2147483648"},
        {L"d", L"/r", L"-2147483649"},
        {L"d", L"/r5"},
        {L"--scan", L"foo"},
        {L"d", L"--scan"},
        {L"d", L"/h"},
        {std::wstring(260, L'x')},
        {L"d", L"/D:" + std::wstring(260, L'f')},
    };
    for (const auto& arguments : refused) {
        const Parsed p = parse(arguments);
        EXPECT_FALSE(p.result.proceed) << p.out;
        EXPECT_EQ(p.result.exitCode, 8);
        for (const sim::CallRecord& call : sim::machine().log) {
            EXPECT_TRUE(call.function == "GetCommandLineW" || call.function == "CommandLineToArgvW")
                << call.function << " before the command line was accepted";
        }
    }
}

TEST(CommandLine, TextsOf259CharactersFit) {
    const Parsed p = parse({std::wstring(259, L'x'), L"/D:" + std::wstring(259, L'f')});
    ASSERT_TRUE(p.result.proceed);
    EXPECT_EQ(std::wcslen(p.options.devicePath), 259u);
    EXPECT_EQ(std::wcslen(p.options.request.fileName), 259u);
}

TEST(CommandLine, ErrorLineIsFollowedByTheUsageText) {
    const Parsed p = parse({L"d", L"/bogus"});
    EXPECT_EQ(p.out.rfind("\nError in command line at /bogus\n\nUsage: quenmark [prefix]", 0), 0u)
        << p.out;
    const Parsed missing = parse({L"d", L"/g"});
    EXPECT_EQ(missing.out.rfind("\nError in command line at /g\n", 0), 0u);
    const Parsed unreadable = parse({L"d", L"/g", L"abc"});
    EXPECT_EQ(unreadable.out.rfind("\nError in command line at abc\n", 0), 0u);
}

TEST(CommandLine, NoArgumentPrintsBannerAndUsage) {
    sim::reset_machine();
    Parsed p{{}, make_device_context(), make_run_options(), {}};
    ConsoleCapture capture;
    p.result = parse_command_line(1, "quenmark", p.context, p.options);
    EXPECT_FALSE(p.result.proceed);
    EXPECT_EQ(p.result.exitCode, 8);
    EXPECT_EQ(capture.out.rfind(
                  std::string(74, '=') + "\nTarnvel Utility. Version: 1.0.3 Build Date: ", 0),
              0u);
}

} // namespace
