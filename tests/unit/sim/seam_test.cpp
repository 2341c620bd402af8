// The seam's device calls on the simulated machine where whole runs lean on them: handles, the
// last-error value, the bytes a driver gives back, and the Windows rules for splitting a line.
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
