// The requests the two physical-drive transports send, as the simulated driver decodes them from
// the raw bytes, and how each transport judges the answer.
#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <string>

#include "sim/machine.hpp"
#include "transport/transport.hpp"
#include "unit/support/console_capture.hpp"
#include "unit/support/sim_drive.hpp"

namespace {

const char* const kMachine = R"({
  "drives": [{"id": "d0", "model": "QSIM TEST DRIVE", "serial": "QT1", "firmware": "QT010000"}],
  "disks": [{"path": "\\\\.\\PhysicalDrive0", "drive": "d0",
             "address": {"port": 3, "path": 1, "target": 2, "lun": 4}}]
})";

// A machine with one drive, opened as the run driver opens it; faults may be added to it.
DeviceContext open_drive(const std::string& faults = "") {
    std::string json = kMachine;
    if (!faults.empty()) {
        json.insert(json.rfind('}'), ", \"faults\": " + faults);
    }
    return open_sim_drive(json);
}

// The value the simulated driver logged for key=, in the last DeviceIoControl.
std::string logged(const std::string& key) {
    const auto& log = sim::machine().log;
    for (auto it = log.rbegin(); it != log.rend(); ++it) {
        if (it->function != "DeviceIoControl") {
            continue;
        }
        std::smatch match;
        const std::regex pattern(" " + key + "=(.*?)(?= [a-z-]+=|$)");
        if (std::regex_search(it->request, match, pattern)) {
            return match[1];
        }
        return "(no " + key + " in: " + it->request + ")";
    }
    return "(no DeviceIoControl)";
}

void identify(DeviceContext& c, std::uint8_t* buffer) {
    c.registers = AtaRegisters{};
    c.registers.command = 0xEC;
    c.registers.count = 1;
    c.commandWidth = Ata28;
    c.dataDirection = DataIn;
    c.transferLength = 512;
    c.dataBuffer = buffer;
}

void read_log_ext(DeviceContext& c, std::uint8_t* buffer) {
    identify(c, buffer);
    c.registers.command = 0x2F;
    c.registers.lbaLow = 0x30;
    c.registers.lbaMid = 0x03;
    c.commandWidth = Ata48;
}

void download(DeviceContext& c, std::uint8_t* buffer, std::uint32_t direction) {
    c.registers = AtaRegisters{};
    c.registers.command = 0x92;
    c.registers.features = direction == NoData ? 0x0F : 0x03;
    c.registers.device = 0x40;
    c.registers.count = 1;
    c.commandWidth = Ata28;
    c.dataDirection = direction;
    c.transferLength = 512;
    c.dataBuffer = buffer;
}

TEST(ScsiPassThrough, AtaPassThrough16CdbFollowsTheRegisterBlock) {
    std::uint8_t buffer[512] = {};
    DeviceContext c = open_drive();

    identify(c, buffer);
    EXPECT_EQ(scsi_pass_through(c), Status::Success);
    EXPECT_EQ(logged("cdb"), "85 08 0e 00 00 00 01 00 00 00 00 00 00 00 ec 00");
    EXPECT_EQ(logged("data"), "in:512");
    EXPECT_EQ(logged("address"), "1:2:4");
    EXPECT_EQ(logged("timeout"), "5");
    EXPECT_EQ(logged("sense"), "56+252");

    read_log_ext(c, buffer);
    EXPECT_EQ(scsi_pass_through(c), Status::Success);
    EXPECT_EQ(logged("cdb"), "85 09 0e 00 00 00 01 00 30 00 03 00 00 00 2f 00");

    download(c, buffer, DataOut);
    scsi_pass_through(c);
    EXPECT_EQ(logged("cdb"), "85 0a 06 00 03 00 01 00 00 00 00 00 00 40 92 00");
    EXPECT_EQ(logged("data"), "out:512");

    // The activation has no data phase, whatever the context still holds from the download.
    download(c, buffer, NoData);
    c.timeoutSeconds = 15;
    scsi_pass_through(c);
    EXPECT_EQ(logged("cdb"), "85 0a 06 00 0f 00 01 00 00 00 00 00 00 40 92 00");
    EXPECT_EQ(logged("data"), "unspecified:0(null)");
    EXPECT_EQ(logged("timeout"), "15");
}

TEST(ScsiPassThrough, InvalidDataDirectionIsSentWithoutDataPhase) {
    std::uint8_t buffer[512] = {};
    DeviceContext c = open_drive();
    download(c, buffer, 3);
    ConsoleCapture capture;
    scsi_pass_through(c);
    EXPECT_EQ(capture.out, "\nData Direction Unspecified.\n");
    EXPECT_EQ(logged("data"), "out:0(null)");
}

struct ScsiOutcomeCase {
    const char* name;
    std::string faults;
    bool verbose;
    Status status;
    std::string printed;
};

class ScsiOutcome : public testing::TestWithParam<ScsiOutcomeCase> {};

TEST_P(ScsiOutcome, JudgedByTheScsiStatusAlone) {
    const ScsiOutcomeCase& p = GetParam();
    std::uint8_t buffer[512] = {};
    DeviceContext c = open_drive(p.faults);
    c.verbose = p.verbose ? 1 : 0;
    identify(c, buffer);
    ConsoleCapture capture;
    EXPECT_EQ(scsi_pass_through(c), p.status);
    EXPECT_EQ(capture.out, p.printed);
}

INSTANTIATE_TEST_SUITE_P(
    Statuses, ScsiOutcome,
    testing::Values(ScsiOutcomeCase{"Good", "", true, Status::Success, ""},
                    ScsiOutcomeCase{"BusyCountsAsSuccess",
                                    R"({"commands": [{"command": "0xEC", "scsiStatus": 8}]})", true,
                                    Status::Success, ""},
                    ScsiOutcomeCase{"ReservationConflictCountsAsSuccess",
                                    R"({"commands": [{"command": "0xEC", "scsiStatus": 24}]})",
                                    true, Status::Success, ""},
                    ScsiOutcomeCase{"CheckConditionQuiet",
                                    R"({"commands": [{"command": "0xEC", "scsiStatus": 2,
                            "sense": [112, 0, 11, 0, 0, 0, 0, 10]}]})",
                                    false, Status::DeviceError, ""},
                    ScsiOutcomeCase{"CheckConditionVerbose",
                                    R"({"commands": [{"command": "0xEC", "scsiStatus": 2,
                            "sense": [112, 0, 11, 0, 0, 0, 0, 10]}]})",
                                    true, Status::DeviceError,
                                    "CHECK CONDITION ERROR for CMD: ecSense Buffer: 700b\n"},
                    ScsiOutcomeCase{"DriveAbortThroughTheSatLayer",
                                    R"({"commands": [{"command": "0xEC"}]})", false,
                                    Status::DeviceError, ""},
                    ScsiOutcomeCase{"NotOffered",
                                    R"({"calls": [{"function": "DeviceIoControl",
                            "ioctl": "IOCTL_SCSI_PASS_THROUGH_DIRECT", "error": 1}]})",
                                    true, Status::InterfaceNotSupported,
                                    "IO Error ERROR_INVALID_FUNCTION [1]\n"},
                    ScsiOutcomeCase{"OtherError",
                                    R"({"calls": [{"function": "DeviceIoControl",
                            "ioctl": "IOCTL_SCSI_PASS_THROUGH_DIRECT", "error": 1117}]})",
                                    true, Status::Failed, "IO Error [1117]\n"},
                    ScsiOutcomeCase{"OtherErrorQuiet",
                                    R"({"calls": [{"function": "DeviceIoControl",
                            "ioctl": "IOCTL_SCSI_PASS_THROUGH_DIRECT", "error": 121}]})",
                                    false, Status::Failed, ""}),
    [](const testing::TestParamInfo<ScsiOutcomeCase>& info) { return info.param.name; });

TEST(ScsiPassThrough, CheckConditionReportLeavesTheStreamDecimal) {
    std::uint8_t buffer[512] = {};
    DeviceContext c = open_drive(R"({"commands": [{"command": "0xEC", "scsiStatus": 2}]})");
    c.verbose = 1;
    identify(c, buffer);
    ConsoleCapture capture;
    scsi_pass_through(c);
    console::out() << 255;
    EXPECT_EQ(capture.out.substr(capture.out.size() - 3), "255");
}

TEST(AtaPassThrough, RequestCarriesTheTaskFilesAndFlags) {
    std::uint8_t buffer[512] = {};
    DeviceContext c = open_drive();

    identify(c, buffer);
    EXPECT_EQ(ata_pass_through(c), Status::Success);
    EXPECT_EQ(logged("flags"), "03");
    EXPECT_EQ(logged("data"), "512");
    EXPECT_EQ(logged("previous"), "00 00 00 00 00 00 00 00");
    EXPECT_EQ(logged("current"), "00 01 00 00 00 00 ec 00");
    EXPECT_EQ(logged("address"), "1:2:4");
    EXPECT_EQ(logged("timeout"), "5");

    read_log_ext(c, buffer);
    c.registers.featuresExt = 0x11;
    c.registers.countExt = 0x22;
    c.registers.lbaLowExt = 0x33;
    c.registers.lbaMidExt = 0x44;
    c.registers.lbaHighExt = 0x55;
    ata_pass_through(c);
    EXPECT_EQ(logged("flags"), "0b");
    EXPECT_EQ(logged("previous"), "11 22 33 44 55 00 00 00");
    EXPECT_EQ(logged("current"), "00 01 30 03 00 00 2f 00");

    download(c, buffer, DataOut);
    c.timeoutSeconds = 15;
    ata_pass_through(c);
    EXPECT_EQ(logged("flags"), "05");
    EXPECT_EQ(logged("timeout"), "15");
    EXPECT_EQ(logged("current"), "03 01 00 00 00 40 92 00");

    // Stale data-phase fields of the download must not travel with a non-data command.
    download(c, buffer, NoData);
    ata_pass_through(c);
    EXPECT_EQ(logged("flags"), "01");
    EXPECT_EQ(logged("data"), "0(null)");
}

TEST(AtaPassThrough, RegistersOfTheContextAreNotOverwritten) {
    std::uint8_t buffer[512] = {};
    DeviceContext c =
        open_drive(R"({"commands": [{"command": "0x92", "status": 81, "error": 4}]})");
    download(c, buffer, DataOut);
    const AtaRegisters before = c.registers;
    EXPECT_EQ(ata_pass_through(c), Status::DeviceError);
    EXPECT_EQ(std::memcmp(&before, &c.registers, sizeof before), 0);
}

struct AtaOutcomeCase {
    const char* name;
    std::string faults;
    std::uint32_t direction;
    bool verbose;
    Status status;
    std::string printed;
};

class AtaOutcome : public testing::TestWithParam<AtaOutcomeCase> {};

TEST_P(AtaOutcome, JudgedInOrder) {
    const AtaOutcomeCase& p = GetParam();
    std::uint8_t buffer[512] = {};
    DeviceContext c = open_drive(p.faults);
    c.verbose = p.verbose ? 1 : 0;
    if (p.direction == DataIn) {
        identify(c, buffer);
    } else {
        download(c, buffer, p.direction);
    }
    ConsoleCapture capture;
    EXPECT_EQ(ata_pass_through(c), p.status);
    EXPECT_EQ(capture.out, p.printed);
    EXPECT_EQ(c.lastError, p.faults.find("\"error\": 1}") != std::string::npos ? 1u
                           : p.faults.find("1117") != std::string::npos        ? 1117u
                                                                               : 0u);
}

const char* const kDump =
    " Status = 0x51 Error = 0x4 SC = 0x1 LBA Low = 0x0 LBA Mid = 0x0 LBA Hi = "
    "0x0\n Data Transfered = 0 [io=48, req=512]\n";

INSTANTIATE_TEST_SUITE_P(
    Outcomes, AtaOutcome,
    testing::Values(
        AtaOutcomeCase{"Status50", "", DataIn, true, Status::Success, ""},
        AtaOutcomeCase{"CrcAbortIsSilentEvenVerbose",
                       R"({"commands": [{"command": "0x92", "status": 81, "error": 132}]})",
                       DataOut, true, Status::CrcAbort, ""},
        AtaOutcomeCase{"Status58OnDataInWithFullLengthIsSuccess",
                       R"({"commands": [{"command": "0xEC", "status": 88, "error": 0,
                           "execute": true}]})",
                       DataIn, true, Status::Success, ""},
        AtaOutcomeCase{"Status58OnDataInWithShortLengthIsDeviceError",
                       R"({"commands": [{"command": "0xEC", "status": 88, "error": 0,
                           "execute": true, "moved": 256}]})",
                       DataIn, false, Status::DeviceError, ""},
        AtaOutcomeCase{"Status58OnDataOutIsDeviceError",
                       R"({"commands": [{"command": "0x92", "status": 88, "error": 0,
                           "execute": true}]})",
                       DataOut, false, Status::DeviceError, ""},
        AtaOutcomeCase{"AbortQuiet", R"({"commands": [{"command": "0x92"}]})", DataOut, false,
                       Status::DeviceError, ""},
        AtaOutcomeCase{"AbortVerbosePrintsTheRegisterDump",
                       R"({"commands": [{"command": "0x92", "status": 81, "error": 4}]})", DataOut,
                       true, Status::DeviceError, kDump},
        AtaOutcomeCase{"NotOffered",
                       R"({"calls": [{"function": "DeviceIoControl",
                           "ioctl": "IOCTL_ATA_PASS_THROUGH_DIRECT", "error": 1}]})",
                       DataOut, true, Status::InterfaceNotSupported, " WinIoStatus = 0x1"},
        AtaOutcomeCase{"OtherError",
                       R"({"calls": [{"function": "DeviceIoControl",
                           "ioctl": "IOCTL_ATA_PASS_THROUGH_DIRECT", "error": 1117}]})",
                       DataOut, true, Status::Failed, " WinIoStatus = 0x45d"},
        AtaOutcomeCase{"InvalidDirectionStillSentAndFailed",
                       R"({"commands": [{"command": "0x92", "status": 80, "error": 0}]})", 3, false,
                       Status::Failed, "No valid data direction set 3\n"}),
    [](const testing::TestParamInfo<AtaOutcomeCase>& info) { return info.param.name; });

} // namespace
