// How the two physical-drive transports judge answers that no whole run shows: SCSI statuses
// other than GOOD and CHECK CONDITION, and an ATA Status with DRQ left set after a data phase.
// The requests themselves, and every other answer, stand in the golden call logs.
#include <gtest/gtest.h>

#include <string>

#include "transport/transport.hpp"
#include "unit/support/console_capture.hpp"
#include "unit/support/sim_drive.hpp"

namespace {

struct OutcomeCase {
    const char* name;
    bool ataPassThrough;
    const char* outcome; // of the drive command, as the machine file's command fault gives it
    std::uint32_t direction;
    Status status;
};

class TransportOutcome : public testing::TestWithParam<OutcomeCase> {};

TEST_P(TransportOutcome, JudgedByTheTransport) {
    const OutcomeCase& c = GetParam();
    DeviceContext context = open_sim_drive(
        std::string(R"({"drives": [{"id": "d0"}], "disks": [{"path": "\\\\.\\PhysicalDrive0",
                        "drive": "d0"}], "faults": {"commands": [)") +
        c.outcome + "]}}");
    std::uint8_t buffer[512] = {};
    context.registers.command = c.direction == DataIn ? 0xEC : 0x92;
    context.registers.features = c.direction == DataIn ? 0x00 : 0x07;
    context.registers.count = 1;
    context.dataDirection = c.direction;
    context.transferLength = sizeof buffer;
    context.dataBuffer = buffer;
    context.verbose = 1;
    ConsoleCapture capture;
    EXPECT_EQ(c.ataPassThrough ? ata_pass_through(context) : scsi_pass_through(context), c.status);
    // A success prints nothing, even verbose; a failure its dump.
    EXPECT_EQ(capture.out.empty(), c.status == Status::Success) << capture.out;
}

INSTANTIATE_TEST_SUITE_P(
    Answers, TransportOutcome,
    testing::Values(
        // The SAT bridge: the SCSI status alone decides, and only CHECK CONDITION fails.
        OutcomeCase{"BusyCountsAsSuccess", false, R"({"command": "0xEC", "scsiStatus": 8})", DataIn,
                    Status::Success},
        OutcomeCase{"ReservationConflictCountsAsSuccess", false,
                    R"({"command": "0xEC", "scsiStatus": 24})", DataIn, Status::Success},
        // ATA pass-through forgives Status 0x58 to a data-in command whose whole length came.
        OutcomeCase{"Status58OnDataInWithFullLengthIsSuccess", true,
                    R"({"command": "0xEC", "status": 88, "error": 0, "execute": true})", DataIn,
                    Status::Success},
        OutcomeCase{"Status58OnDataInWithShortLengthIsDeviceError", true,
                    R"({"command": "0xEC", "status": 88, "error": 0, "execute": true,
                        "moved": 256})",
                    DataIn, Status::DeviceError},
        OutcomeCase{"Status58OnDataOutIsDeviceError", true,
                    R"({"command": "0x92", "status": 88, "error": 0, "execute": true})", DataOut,
                    Status::DeviceError}),
    [](const testing::TestParamInfo<OutcomeCase>& info) { return info.param.name; });

} // namespace
