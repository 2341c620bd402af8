// The STP pass-through request as the simulated controller received it, byte for byte, and how
// the transport judges the controller's answer.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "csmi/csmi.hpp"
#include "drive/identify.hpp"
#include "transport/transport.hpp"
#include "unit/csmi/csmi_machine.hpp"
#include "unit/support/console_capture.hpp"

namespace {

using csmi_test::controller;
using sim::read_le32;

constexpr std::uint8_t kDrive0[8] = {0x50, 0, 0, 0, 0, 0, 0x0b, 0x02};

class StpPassthru : public ::testing::Test {
protected:
    void SetUp() override { csmi_test::load(); }

    DeviceContext port(const std::string& extra = "") {
        if (!extra.empty()) {
            csmi_test::load(extra);
        }
        DeviceContext context = make_device_context();
        context.interfaceKind = Csmi;
        context.handle = win32::CreateFileW(L"\\\\.\\SCSI2:", GENERIC_READ | GENERIC_WRITE,
                                            FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                            OPEN_EXISTING, 0, nullptr);
        EXPECT_NE(context.handle, INVALID_HANDLE_VALUE);
        csmi_test::put_phy_entry(context, 0x00, 0x00, kDrive0);
        return context;
    }

    const std::vector<std::uint8_t>& sent() { return controller().lastRequest; }
};

struct BufferCase {
    const char* name;
    std::uint32_t direction;
    std::uint32_t transferLength;
    std::uint32_t timeoutSeconds;
    std::size_t bufferBytes;
    std::uint32_t flags;
};

TEST_F(StpPassthru, BufferSizeHeaderAndFlagsFollowTheDataPhase) {
    const BufferCase cases[] = {
        {"identify", DataIn, 512, 15, 680, 0x11},
        {"non-data", NoData, 512, 5, 168, 0x10},
        {"data out", DataOut, 512, 5, 680, 0x12},
        {"timeout 0 is sent as 0", NoData, 0, 0, 168, 0x10},
        {"odd length", DataOut, 3, 7, 171, 0x12},
    };
    for (const BufferCase& c : cases) {
        SCOPED_TRACE(c.name);
        DeviceContext context = port();
        std::vector<std::uint8_t> data(c.transferLength, 0x5A);
        context.registers.command = 0x92;
        context.dataDirection = c.direction;
        context.transferLength = c.transferLength;
        context.timeoutSeconds = c.timeoutSeconds;
        context.dataBuffer = data.data();
        issue_stp_passthru(context); // the drive aborts these; the request is what counts here

        const std::vector<std::uint8_t>& request = sent();
        ASSERT_EQ(request.size(), c.bufferBytes);
        EXPECT_EQ(read_le32(request.data(), 0), 28u);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(&request[4]), 8),
                  std::string("CSMISAS\0", 8));
        EXPECT_EQ(read_le32(request.data(), 12), c.timeoutSeconds);
        EXPECT_EQ(read_le32(request.data(), 16), 25u);
        EXPECT_EQ(read_le32(request.data(), 20), 0u);
        EXPECT_EQ(read_le32(request.data(), 24), c.bufferBytes - 28);
        EXPECT_EQ(read_le32(request.data(), 64), c.flags);
        EXPECT_EQ(read_le32(request.data(), 68), c.direction == NoData ? 0u : c.transferLength);
        EXPECT_EQ(std::vector<std::uint8_t>(&request[32], &request[40]),
                  std::vector<std::uint8_t>(kDrive0, kDrive0 + 8));
        // Everything the request does not name is zero: reserved bytes, status, the tail.
        for (const std::size_t zero : {30u, 31u, 40u, 41u, 42u, 43u, 72u, 76u, 96u, 160u}) {
            EXPECT_EQ(request[zero], 0) << "byte " << zero;
        }
        const std::size_t dataEnd = c.direction == DataOut ? 164 + c.transferLength : 164;
        for (std::size_t i = 164; i < request.size(); ++i) {
            ASSERT_EQ(request[i], i < dataEnd ? 0x5A : 0) << "byte " << i;
        }
    }
}

TEST_F(StpPassthru, CommandFisCarriesEveryRegisterInFisOrder) {
    DeviceContext context = port();
    // 48-bit width is not consulted: all twelve registers travel even for a 28-bit command.
    context.commandWidth = Ata28;
    context.registers =
        AtaRegisters{0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1A, 0x1B, 0x2F};
    const AtaRegisters before = context.registers;
    context.dataDirection = NoData;
    issue_stp_passthru(context);

    const std::uint8_t expected[20] = {0x27, 0x80, 0x2F, 0x12, 0x16, 0x18, 0x1A,
                                       0x1B, 0x15, 0x17, 0x19, 0x11, 0x14, 0x13};
    EXPECT_EQ(std::vector<std::uint8_t>(&sent()[44], &sent()[64]),
              std::vector<std::uint8_t>(expected, expected + 20));
    // The drive saw the same registers, and the context still holds what was sent.
    const sim::AtaRecord& ata = csmi_test::last_call("DeviceIoControl").ata.at(0);
    EXPECT_EQ(ata.command.lbaLow, 0x16);
    EXPECT_EQ(ata.command.lbaHighExt, 0x19);
    EXPECT_EQ(ata.command.countExt, 0x13);
    EXPECT_EQ(std::memcmp(&context.registers, &before, sizeof before), 0);
}

TEST_F(StpPassthru, PhyPortAndAddressComeFromThePhyEntry) {
    DeviceContext context = port();
    const std::uint8_t wide[8] = {0, 0, 0, 5, 0, 0, 0, 0};
    csmi_test::put_phy_entry(context, 0x05, 0x07, wide);
    context.registers.command = 0xEC;
    issue_stp_passthru(context);
    EXPECT_EQ(sent()[28], 0x05);
    EXPECT_EQ(sent()[29], 0x07);
    EXPECT_EQ(csmi_test::last_call("DeviceIoControl").ata.at(0).driveId, "d1");
}

TEST_F(StpPassthru, IdentifyDataComeBackFromOffset164) {
    DeviceContext context = port();
    std::array<std::uint8_t, 512> identify{};
    context.registers.command = 0xEC;
    context.registers.count = 1;
    context.dataDirection = DataIn;
    context.transferLength = 512;
    context.dataBuffer = identify.data();
    ASSERT_EQ(issue_stp_passthru(context), Status::Success);
    EXPECT_EQ(ata_string_to_text(&identify[54], 40), "QSIM CSMI DRIVE");
}

TEST_F(StpPassthru, ReturnCodeFailsTheCommandAndKeepsTheCallersBuffer) {
    // The controller carried the IDENTIFY out and wrote its data, but reports ReturnCode 3.
    DeviceContext context = port(R"(, "faults": [{"code": 25, "returnCode": 3, "execute": true}])");
    std::array<std::uint8_t, 512> identify;
    identify.fill(0xA5);
    context.registers.command = 0xEC;
    context.dataDirection = DataIn;
    context.transferLength = 512;
    context.dataBuffer = identify.data();
    ConsoleCapture console;
    EXPECT_EQ(issue_stp_passthru(context), Status::Failed);
    EXPECT_EQ(console.out, "issue_stp_passthru: CMD=0xec failed. ioret=1 GetLastErr=0x0, "
                           "IoctlHeader->ReturnCode=3\n");
    for (const std::uint8_t byte : identify) {
        ASSERT_EQ(byte, 0xA5);
    }
}

// The ReturnCode says only that the FIS exchange took place; the drive's ending status comes in
// the register device-to-host FIS. A driver that leaves that FIS zero tells nothing more.
TEST_F(StpPassthru, DriveErrorInTheStatusFisFailsTheCommandAndKeepsTheCallersBuffer) {
    struct Case {
        const char* controller;
        bool aborted;
        Status status;
    };
    const Case cases[] = {
        {"", false, Status::Success},
        {"", true, Status::DeviceError},
        {R"(, "statusFis": false)", true, Status::Success},
    };
    for (const Case& c : cases) {
        csmi_test::load(c.controller);
        if (c.aborted) {
            sim::CommandFault abort;
            abort.command = 0xEC;
            abort.status = 0x51;
            abort.error = 0x04;
            sim::machine().faults.commands.push_back(abort);
        }
        DeviceContext context = port();
        std::array<std::uint8_t, 512> identify;
        identify.fill(0xA5);
        context.registers.command = 0xEC;
        context.registers.count = 1;
        context.dataDirection = DataIn;
        context.transferLength = 512;
        context.dataBuffer = identify.data();
        const std::string name = std::string(c.controller) + (c.aborted ? " aborted" : "");
        EXPECT_EQ(issue_stp_passthru(context), c.status) << name;
        const bool untouched = identify[0] == 0xA5 && identify[511] == 0xA5;
        EXPECT_EQ(untouched, c.status != Status::Success) << name;
    }
}

TEST_F(StpPassthru, RefusedRequestKeepsTheWindowsError) {
    DeviceContext context = port(R"(, "faults": [{"code": 25, "error": "ERROR_IO_DEVICE"}])");
    context.registers.command = 0x92;
    ConsoleCapture console;
    EXPECT_EQ(issue_stp_passthru(context), Status::Failed);
    EXPECT_EQ(context.lastError, 1117u);
    EXPECT_EQ(console.out, "issue_stp_passthru: CMD=0x92 failed. ioret=0 GetLastErr=0x45d, "
                           "IoctlHeader->ReturnCode=0\n");
}

TEST_F(StpPassthru, RequestsThatCannotBeBuiltSendNothing) {
    DeviceContext context = port();
    context.verbose = 2;
    const std::size_t before = csmi_test::count_calls("DeviceIoControl");
    ConsoleCapture console;

    context.dataDirection = 3;
    EXPECT_EQ(issue_stp_passthru(context), Status::NotIssued);
    context.dataDirection = DataOut;
    context.transferLength = 0xFFFFFFFFu; // no DWORD-sized buffer holds it
    context.dataBuffer = &context;
    EXPECT_EQ(issue_stp_passthru(context), Status::NotIssued);
    context.handle = INVALID_HANDLE_VALUE;
    EXPECT_EQ(issue_csmi_command(context), Status::Failed);

    EXPECT_EQ(console.out, "Error allocating memory for stp command\n");
    EXPECT_EQ(csmi_test::count_calls("DeviceIoControl"), before);
}

TEST_F(StpPassthru, VerboseTwoDumpsRequestAndStatusFis) {
    DeviceContext context = port();
    context.verbose = 2;
    context.registers.command = 0xE7; // aborted by the drive: its line precedes the FIS dump
    ConsoleCapture console;
    ASSERT_EQ(issue_stp_passthru(context), Status::DeviceError);
    const std::string& out = console.out;
    EXPECT_EQ(out.rfind("Allocated 168 bytes for cmd 0xe7\n------\n\nbPhyIdentifier=0x00\n"
                        "bPortIdentifier=0x00\nbConnectionRate=0x00\nuFlags=0x10\n"
                        "uDataLength=0x0\nFIS:\n-----\n\t[0]=0x27\n\t[1]=0x80\n\t[2]=0xe7\n",
                        0),
              0u)
        << out;
    EXPECT_NE(out.find("-----\n\t\tSAS Address: 0x50 0x00 0x00 0x00 0x00 0x00 0x0b 0x02 \n"
                       "------\n\nissue_stp_passthru: CMD=0xe7 ended by the drive. "
                       "Status=0x51 Error=0x04\nStatus FIS:\n-----\n\t[0]=0x34\n"),
              std::string::npos)
        << out;
    EXPECT_EQ(out.substr(out.size() - 17), "\t[19]=0x00\n-----\n");
}

} // namespace
