// The seam on the simulated machine: the address query's reply at its published offsets, and the
// Windows rules for splitting a command line.
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
