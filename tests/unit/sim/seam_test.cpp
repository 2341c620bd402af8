// The seam's device calls on the simulated machine: opening, handles, the last-error value,
// the control codes each stack offers, the clock, the command line and the call log.
#include <string>
#include <vector>

#include "sim/process_command_line.hpp"
#include "sim_fixture.hpp"

namespace simtest {
namespace {

class SimSeam : public SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        load(one_drive());
    }
};

TEST_F(SimSeam, OpeningAPathThatIsNoDeviceFailsWithFileNotFound) {
    win32::SetLastError(0);
    EXPECT_EQ(open(L"\\\\.\\PhysicalDrive7"), INVALID_HANDLE_VALUE);
    EXPECT_EQ(win32::GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(open(L"\\\\.\\SCSI0:"), INVALID_HANDLE_VALUE);
}

TEST_F(SimSeam, SuccessfulCallsLeaveTheLastErrorAsItWasButOpeningClearsIt) {
    win32::SetLastError(1234);
    const win32::HANDLE handle = open(L"\\\\.\\physicaldrive0"); // paths ignore case
    ASSERT_NE(handle, INVALID_HANDLE_VALUE);
    EXPECT_EQ(win32::GetLastError(), 0u);
    win32::SetLastError(1234);
    std::array<std::uint8_t, 8> address{};
    EXPECT_TRUE(send(handle, IOCTL_SCSI_GET_ADDRESS, address));
    EXPECT_TRUE(win32::CloseHandle(handle));
    EXPECT_EQ(win32::GetLastError(), 1234u);
}

TEST_F(SimSeam, HandlesAreNeverReusedAndCloseOnlyOnce) {
    const win32::HANDLE first = open();
    ASSERT_TRUE(win32::CloseHandle(first));
    const win32::HANDLE second = open();
    EXPECT_NE(first, second);
    EXPECT_FALSE(win32::CloseHandle(first));
    EXPECT_EQ(win32::GetLastError(), ERROR_INVALID_HANDLE);
    std::array<std::uint8_t, 8> address{};
    EXPECT_FALSE(send(first, IOCTL_SCSI_GET_ADDRESS, address));
    EXPECT_EQ(win32::GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_FALSE(win32::CloseHandle(INVALID_HANDLE_VALUE));
    EXPECT_EQ(sim::open_handle_count(sim::machine()), 1u);
}

TEST_F(SimSeam, ASecondOpenWithoutSharingIsASharingViolation) {
    ASSERT_NE(open(), INVALID_HANDLE_VALUE);
    EXPECT_EQ(open(), INVALID_HANDLE_VALUE);
    EXPECT_EQ(win32::GetLastError(), ERROR_SHARING_VIOLATION);
}

TEST_F(SimSeam, GetAddressWritesEightBytesAndNothingMore) {
    const win32::HANDLE handle = open();
    std::array<std::uint8_t, 12> out;
    out.fill(0xEE);
    win32::DWORD returned = 0;
    ASSERT_TRUE(win32::DeviceIoControl(handle, IOCTL_SCSI_GET_ADDRESS, nullptr, 0, out.data(), 12,
                                       &returned, nullptr));
    EXPECT_EQ(returned, 8u);
    const std::array<std::uint8_t, 12> expected = {8, 0, 0, 0, 2, 1, 3, 0, 0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(out, expected);

    EXPECT_FALSE(win32::DeviceIoControl(handle, IOCTL_SCSI_GET_ADDRESS, nullptr, 0, out.data(), 7,
                                        &returned, nullptr));
    EXPECT_EQ(win32::GetLastError(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(returned, 0u);
}

TEST_F(SimSeam, ARefusedGetAddressFailsWithItsError) {
    load(one_drive("", R"("getAddressError": "ERROR_NOT_SUPPORTED")"));
    std::array<std::uint8_t, 8> address{};
    EXPECT_FALSE(send(open(), IOCTL_SCSI_GET_ADDRESS, address));
    EXPECT_EQ(win32::GetLastError(), ERROR_NOT_SUPPORTED);
}

TEST_F(SimSeam, ControlCodesTheStackDoesNotOfferAreInvalidFunctions) {
    struct Case {
        const char* disk;
        win32::DWORD code;
    } cases[] = {
        {R"("scsiPassThrough": false)", IOCTL_SCSI_PASS_THROUGH_DIRECT},
        {R"("ataPassThrough": false)", IOCTL_ATA_PASS_THROUGH_DIRECT},
        {"", IOCTL_SCSI_MINIPORT},
        {"", 0x00070000}, // IOCTL_DISK_GET_DRIVE_GEOMETRY
    };
    for (const Case& c : cases) {
        load(one_drive("", c.disk));
        std::array<std::uint8_t, 312> request{};
        EXPECT_FALSE(send(open(), c.code, request)) << c.code;
        EXPECT_EQ(win32::GetLastError(), ERROR_INVALID_FUNCTION) << c.code;
    }
}

TEST_F(SimSeam, PassThroughNeedsReadAndWriteAccess) {
    const win32::HANDLE handle = open(L"\\\\.\\PhysicalDrive0", GENERIC_READ);
    std::array<std::uint8_t, 8> address{};
    EXPECT_TRUE(send(handle, IOCTL_SCSI_GET_ADDRESS, address));
    std::array<std::uint8_t, 48> request{};
    EXPECT_FALSE(send(handle, IOCTL_ATA_PASS_THROUGH_DIRECT, request));
    EXPECT_EQ(win32::GetLastError(), ERROR_ACCESS_DENIED);
}

TEST_F(SimSeam, OnlyTheBytesReturnedAreCopiedBack) {
    // The driver answers on a copy of the request: the sense area of a good command comes back
    // exactly as the caller left it.
    std::uint8_t identify[512];
    Sptd request(ata16(4, false, true, {0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0xEC}), 1, 512, identify);
    std::fill(request.bytes.begin() + 56, request.bytes.end(), 0xAB);
    win32::DWORD returned = 0;
    ASSERT_TRUE(send(open(), IOCTL_SCSI_PASS_THROUGH_DIRECT, request.bytes, &returned));
    EXPECT_EQ(returned, 56u);
    EXPECT_EQ(request.sense()[0], 0xAB);
    EXPECT_EQ(request.bytes.back(), 0xAB);
}

TEST_F(SimSeam, SleepAdvancesTheVirtualClock) {
    win32::Sleep(2000);
    win32::Sleep(5);
    EXPECT_EQ(sim::machine().clockMs, 2005u);
    EXPECT_EQ(sim::machine().log.back().result, "clock=2005");
}

TEST_F(SimSeam, TheCallLogHoldsOneDecodedLinePerCall) {
    win32::SetLastError(0);
    const win32::HANDLE handle = open();
    std::array<std::uint8_t, 8> address{};
    send(handle, IOCTL_SCSI_GET_ADDRESS, address);
    win32::CloseHandle(handle);
    win32::CloseHandle(handle);
    EXPECT_EQ(sim::call_log_text(sim::machine().log),
              "#1 SetLastError 0\n"
              "#2 CreateFileW \"\\\\.\\PhysicalDrive0\" access=c0000000 share=00000000 "
              "disposition=3 flags=00000000 -> handle=4\n"
              "#3 DeviceIoControl handle=4 IOCTL_SCSI_GET_ADDRESS in=8 out=8 -> TRUE returned=8 "
              "address=2:1:3:0\n"
              "#4 CloseHandle handle=4 -> TRUE\n"
              "#5 CloseHandle handle=4 -> FALSE error=6 ERROR_INVALID_HANDLE\n");
}

TEST(SimCommandLine, WindowsSplittingGivesTheArgumentsBack) {
    const std::vector<std::vector<std::wstring>> cases = {
        {L"quenmark-sim", L"\\\\.\\PhysicalDrive0", L"/D:fw.bin", L"/s"},
        {L"C:\\Program Files\\q.exe", L"/D:my firmware.bin"},
        {L"q", L"", L"say \"hi\"", L"ends with\\", L"dir\\\\", L"a\\\"b", L"tab\there"},
        {L"q", L"\u00e9t\u00e9", L"\u65e5\u672c"},
    };
    for (const auto& arguments : cases) {
        sim::reset_machine();
        sim::set_command_line(arguments);
        int count = 0;
        win32::LPWSTR* argv = win32::CommandLineToArgvW(win32::GetCommandLineW(), &count);
        ASSERT_NE(argv, nullptr);
        ASSERT_EQ(count, static_cast<int>(arguments.size()));
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(std::wstring(argv[i]), arguments[static_cast<std::size_t>(i)]);
        }
        EXPECT_EQ(argv[count], nullptr);
    }
    sim::reset_machine();
}

TEST(SimCommandLine, SplitsHandWrittenLinesAsWindowsDoes) {
    const struct {
        std::wstring line;
        std::vector<std::wstring> arguments;
    } cases[] = {
        {L"\"C:\\a b\\q.exe\" x", {L"C:\\a b\\q.exe", L"x"}},
        {L"q.exe a\\\\\\\"b \"c d\"", {L"q.exe", L"a\\\"b", L"c d"}},
        {L"q.exe a\\\\b \"x\\\\\" y", {L"q.exe", L"a\\\\b", L"x\\", L"y"}},
        {L"q.exe \"a\"\"b\" c", {L"q.exe", L"a\"b", L"c"}},
        {L"q.exe  \t a   ", {L"q.exe", L"a"}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(sim::split_command_line(c.line), c.arguments);
    }
}

} // namespace
} // namespace simtest
