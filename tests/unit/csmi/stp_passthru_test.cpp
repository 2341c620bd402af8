// How the STP transport judges the controller's answer. The requests, byte for byte as the
// simulated controller decodes them, and the messages stand in the golden call logs.
#include <gtest/gtest.h>

#include <array>
#include <string>

#include "csmi/csmi.hpp"
#include "transport/transport.hpp"
#include "unit/csmi/csmi_machine.hpp"
#include "unit/support/console_capture.hpp"

namespace {

// The ReturnCode says only that the FIS exchange took place; the drive's ending status comes in
// the register device-to-host FIS, unless the driver leaves that FIS zero. A request that fails
// leaves the caller's buffer as it was, even where the controller wrote its data.
TEST(StpPassthru, JudgedByReturnCodeThenStatusFis) {
    const struct {
        const char* controller;
        bool aborted;
        Status status;
        win32::DWORD lastError;
    } cases[] = {
        {"", false, Status::Success, 0},
        {"", true, Status::DeviceError, 0},
        {R"(, "statusFis": false)", true, Status::Success, 0},
        {R"(, "faults": [{"code": 25, "returnCode": 3, "execute": true}])", false, Status::Failed,
         0},
        {R"(, "faults": [{"code": 25, "error": "ERROR_IO_DEVICE"}])", false, Status::Failed, 1117},
    };
    for (const auto& c : cases) {
        const std::string name = std::string(c.controller) + (c.aborted ? " aborted" : "");
        csmi_test::load(c.controller);
        if (c.aborted) {
            sim::CommandFault abort;
            abort.command = 0xEC;
            sim::machine().faults.commands.push_back(abort);
        }
        DeviceContext context = make_device_context();
        context.interfaceKind = Csmi;
        context.handle = win32::CreateFileW(L"\\\\.\\SCSI2:", GENERIC_READ | GENERIC_WRITE,
                                            FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                            OPEN_EXISTING, 0, nullptr);
        const std::uint8_t drive0[8] = {0x50, 0, 0, 0, 0, 0, 0x0b, 0x02};
        csmi_test::put_phy_entry(context, 0, 0, drive0);
        std::array<std::uint8_t, 512> identify;
        identify.fill(0xA5);
        context.registers.command = 0xEC;
        context.registers.count = 1;
        context.dataDirection = DataIn;
        context.transferLength = 512;
        context.dataBuffer = identify.data();
        ConsoleCapture console;
        EXPECT_EQ(issue_stp_passthru(context), c.status) << name;
        EXPECT_EQ(context.lastError, c.lastError) << name;
        const bool untouched = identify[0] == 0xA5 && identify[511] == 0xA5;
        EXPECT_EQ(untouched, c.status != Status::Success) << name;
    }
}

} // namespace
