// Identification against a simulated drive: what IDENTIFY DEVICE and the IDENTIFY DEVICE data
// log put into DriveInfo, and what the INQUIRY probe leaves there.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "drive/identify.hpp"
#include "drive/inquire_device.hpp"
#include "sim/machine.hpp"
#include "transport/transport.hpp"
#include "unit/support/console_capture.hpp"
#include "unit/support/sim_drive.hpp"

namespace {

DeviceContext open_drive(const std::string& drive, const std::string& faults = "{}") {
    const std::string json =
        R"({"drives": [{"id": "d0", "model": "QSIM TEST DRIVE", "serial": "QT1",
             "firmware": "QT010000")" +
        (drive.empty() ? "" : ", " + drive) +
        R"(}], "disks": [{"path": "\\\\.\\PhysicalDrive0", "drive": "d0"}], "faults": )" + faults +
        "}";
    return open_sim_drive(json);
}

DriveInfo identify(const std::string& drive) {
    DeviceContext context = open_drive(drive);
    DriveInfo info;
    EXPECT_EQ(identify_device(context, info), Status::Success);
    return info;
}

TEST(Identify, MajorVersionLabelsFromWord80InBitOrder) {
    const struct {
        const char* word80;
        std::vector<std::string> labels;
    } cases[] = {
        {"0x0000", {}},
        {"0x01F0", {"ATA8-ACS "}},
        {"0x0E00", {"ACS-2 ", "ACS-3 ", "ACS-4 "}},
        {"0xFFFF", {"ATA8-ACS ", "ACS-2 ", "ACS-3 ", "ACS-4 "}},
        {"0xF0FF", {}},
        {"0x0500", {"ATA8-ACS ", "ACS-3 "}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(identify(std::string(R"("words": {"80": ")") + c.word80 + "\"}").ataVersions,
                  c.labels)
            << c.word80;
    }
}

TEST(Identify, DownloadMicrocodeCapabilityBits) {
    const struct {
        const char* words;
        std::uint8_t dma, mode3;
        std::uint16_t minBlocks, maxBlocks;
    } cases[] = {
        {R"("69": "0x0100", "119": "0x4010", "234": 0, "235": 0)", 1, 1, 0, 0},
        {R"("69": "0x00FF", "119": "0x400F", "234": 1, "235": 65535)", 0, 0, 1, 65535},
        {R"("69": "0xFEFF", "119": "0xFFEF", "234": 8, "235": 512)", 0, 0, 8, 512},
    };
    for (const auto& c : cases) {
        const DriveInfo info = identify(std::string(R"("words": {)") + c.words + "}");
        EXPECT_EQ(info.dmDmaSupported, c.dma) << c.words;
        EXPECT_EQ(info.dmMode3Supported, c.mode3) << c.words;
        EXPECT_EQ(info.dmMinBlocks, c.minBlocks) << c.words;
        EXPECT_EQ(info.dmMaxBlocks, c.maxBlocks) << c.words;
    }
}

TEST(Identify, SecurityWordAndStateAreBothKept) {
    const DriveInfo info = identify(R"("words": {"128": "0x0029"})");
    EXPECT_EQ(info.securityWord, 0x0029);
    EXPECT_EQ(info.securityState, SEC2);
}

TEST(Identify, LogPageFlagsNeedTheValidHeader) {
    const struct {
        const char* log;
        std::uint8_t offsetsDeferred, clearsNonactivated;
    } cases[] = {
        {R"({"header": true, "dmOffsetsDeferred": true, "dmClearsNonactivatedDeferredData": true})",
         1, 1},
        {R"({"header": true, "dmOffsetsDeferred": false, "dmClearsNonactivatedDeferredData": true})",
         0, 1},
        {R"({"header": true, "dmOffsetsDeferred": true, "dmClearsNonactivatedDeferredData": false})",
         1, 0},
        {R"({"header": false, "dmOffsetsDeferred": true, "dmClearsNonactivatedDeferredData": true})",
         0, 0},
        {"false", 0, 0}, // the drive aborts READ LOG EXT
    };
    for (const auto& c : cases) {
        const DriveInfo info = identify(std::string(R"("identifyLog": )") + c.log);
        EXPECT_EQ(info.dmOffsetsDeferredSupported, c.offsetsDeferred) << c.log;
        EXPECT_EQ(info.dmClearsNonactivatedDeferredData, c.clearsNonactivated) << c.log;
    }
}

TEST(Identify, FailedIdentifyKeepsTheInquiryTextsAndSendsNoLogRead) {
    DeviceContext context = open_drive("", R"({"commands": [{"command": "0xEC"}]})");
    context.verbose = 1;
    DriveInfo info;
    inquire_device(context, info);
    const DriveInfo probed = info;
    ConsoleCapture capture;
    EXPECT_EQ(identify_device(context, info), Status::DeviceError);
    EXPECT_EQ(info.modelNumber, probed.modelNumber);
    EXPECT_EQ(info.serialNumber, probed.serialNumber);
    EXPECT_EQ(info.firmwareRevision, probed.firmwareRevision);
    const std::string line = "ATA IDENTIFY (0xEC) command failed [0x0]\n";
    ASSERT_GE(capture.out.size(), line.size());
    EXPECT_EQ(capture.out.substr(capture.out.size() - line.size()), line);
    for (const sim::CallRecord& call : sim::machine().log) {
        for (const sim::AtaRecord& ata : call.ata) {
            EXPECT_NE(ata.command.command, 0x2F) << "READ LOG EXT after a failed IDENTIFY";
        }
    }
}

TEST(Identify, LaterCommandsKeepRegistersTheyDoNotWrite) {
    // IDENTIFY after a download carries the download's Features, LBA and Device.
    DeviceContext context = open_drive("");
    context.registers.features = 0x0E;
    context.registers.lbaMid = 0xC0;
    context.registers.device = 0x40;
    DriveInfo info;
    identify_device(context, info);
    const auto& log = sim::machine().log;
    const sim::AtaCommand* identify = nullptr;
    for (const sim::CallRecord& call : log) {
        for (const sim::AtaRecord& ata : call.ata) {
            if (ata.command.command == 0xEC && identify == nullptr) {
                identify = &ata.command;
            }
        }
    }
    ASSERT_NE(identify, nullptr);
    EXPECT_EQ(identify->features, 0x0E);
    EXPECT_EQ(identify->lbaMid, 0xC0);
    EXPECT_EQ(identify->device, 0x40);
    EXPECT_EQ(identify->count, 1);
}

TEST(InquireDevice, StoresTheTextsUntrimmedAndTheSerialPageUpTo20Bytes) {
    DeviceContext context = open_drive(R"("model": "SHORT", "serial": "ABCDEFGHIJKLMNOPQRST")");
    DriveInfo info;
    inquire_device(context, info);
    EXPECT_EQ(info.vendorName, "ATA     ");
    EXPECT_EQ(info.modelNumber, std::string("SHORT") + std::string(11, ' '));
    EXPECT_EQ(info.firmwareRevision.size(), 4u);
    EXPECT_EQ(info.serialNumber, "ABCDEFGHIJKLMNOPQRST");

    // Both requests went out with their own CDB, 252 bytes each time.
    std::vector<std::string> requests;
    for (const sim::CallRecord& call : sim::machine().log) {
        if (call.function == "DeviceIoControl" &&
            call.ioControlCode == IOCTL_SCSI_PASS_THROUGH_DIRECT) {
            requests.push_back(call.request);
        }
    }
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_NE(requests[0].find("cdb=12 00 00 00 fc 00 data=in:252"), std::string::npos);
    EXPECT_NE(requests[1].find("cdb=12 01 80 00 fc 00"), std::string::npos);
}

TEST(InquireDevice, FailedProbeLeavesDriveInfoAsItWas) {
    DeviceContext context = open_drive(
        "", R"({"calls": [{"function": "DeviceIoControl", "ioctl": "IOCTL_SCSI_PASS_THROUGH_DIRECT",
                "error": 1}]})");
    DriveInfo info;
    info.modelNumber = "before";
    inquire_device(context, info);
    EXPECT_EQ(info.modelNumber, "before");
    EXPECT_TRUE(info.vendorName.empty());
    EXPECT_EQ(context.lastError, 1u);
}

} // namespace
