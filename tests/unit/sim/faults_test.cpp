// Injected faults: platform calls that fail, drive commands that end as the machine file says.
// The fault sweep places one fault at every call and every command of a run; it can tell a fault
// that ended a run from one that never fired only if each fires exactly where it was put.
#include <string>

#include "sim_fixture.hpp"

namespace simtest {
namespace {

const std::array<std::uint8_t, 8> kIdentifyTaskFile = {0, 1, 0, 0, 0, 0, 0xEC, 0};

class SimFaults : public SimTest {
protected:
    // The drive "d0" with these faults in the machine file.
    void load_faults(const std::string& faults) {
        std::string machine = one_drive();
        machine.insert(machine.size() - 1, R"(, "faults": )" + faults);
        load(machine);
    }
};

TEST_F(SimFaults, CallFaultsFireOnTheCallsTheySelect) {
    const struct {
        const char* fault;
        const char* outcome; // of five GET_ADDRESS requests after the open (call 1)
    } cases[] = {
        {R"({"function": "DeviceIoControl", "error": 1117})", "FFFFF"},
        {R"({"function": "DeviceIoControl", "nth": 2, "error": 1117})", ".F..."},
        {R"({"function": "DeviceIoControl", "nth": 2, "onward": true, "error": 1117})", ".FFFF"},
        {R"({"call": 4, "error": 1117})", "..F.."},
        {R"({"call": 4, "onward": true, "error": 1117})", "..FFF"},
        {R"({"ioctl": "IOCTL_SCSI_GET_ADDRESS", "nth": 5, "error": 1117})", "....F"},
        {R"({"ioctl": "IOCTL_ATA_PASS_THROUGH_DIRECT", "error": 1117})", "....."},
        {R"({"function": "CloseHandle", "error": 1117})", "....."},
    };
    for (const auto& c : cases) {
        load_faults(std::string(R"({"calls": [)") + c.fault + "]}");
        const win32::HANDLE handle = open();
        std::string outcome;
        for (int i = 0; i < 5; ++i) {
            std::array<std::uint8_t, 8> address{};
            outcome += send(handle, IOCTL_SCSI_GET_ADDRESS, address) ? '.' : 'F';
        }
        EXPECT_EQ(outcome, c.outcome) << c.fault;
        EXPECT_EQ(sim::machine().lastError, outcome.find('F') != std::string::npos ? 1117u : 0u)
            << c.fault;
    }
}

TEST_F(SimFaults, AFailedCallReachesNoDrive) {
    load_faults(R"({"calls": [{"function": "DeviceIoControl", "error": "ERROR_IO_DEVICE"}]})");
    std::uint8_t buffer[512] = {};
    Aptd request(0x03, 512, buffer, kIdentifyTaskFile);
    EXPECT_FALSE(send(open(), IOCTL_ATA_PASS_THROUGH_DIRECT, request.bytes));
    EXPECT_EQ(win32::GetLastError(), ERROR_IO_DEVICE);
    const sim::CallRecord& call = sim::machine().log[sim::machine().log.size() - 2];
    EXPECT_TRUE(call.ata.empty());
    EXPECT_TRUE(call.injected);
    EXPECT_EQ(request.taskFile()[6], 0xEC); // the request came back untouched
}

// Through ATA pass-through: the fault's Status and Error in the output task file, and the bytes
// moved only where the drive carried the command out.
TEST_F(SimFaults, ACommandFaultEndsTheCommandAsItSays) {
    const struct {
        const char* fault;
        std::uint8_t features; // of the IDENTIFY sent
        std::uint8_t status, error;
        std::uint32_t moved;
    } cases[] = {
        {R"({"command": "0xEC", "status": 81, "error": 132})", 0, 0x51, 0x84, 0},
        {R"({"command": "0xEC", "status": 88, "error": 0, "execute": true, "moved": 256})", 0, 0x58,
         0x00, 256},
        {R"({"command": "0xEC", "features": "0x0B", "drive": "d0"})", 0x0B, 0x51, 0x04, 0},
        {R"({"command": "0xEC", "features": "0x0B"})", 0x00, 0x50, 0x00, 512},
        {R"({"command": "0xEC", "drive": "other"})", 0x00, 0x50, 0x00, 512},
        {R"({"command": "0xEC", "nth": 2})", 0x00, 0x50, 0x00, 512},
    };
    for (const auto& c : cases) {
        load(R"({"drives": [{"id": "d0"}, {"id": "other"}],
                 "disks": [{"path": "\\\\.\\PhysicalDrive0", "drive": "d0"}],
                 "faults": {"commands": [)" +
             std::string(c.fault) + "]}}");
        std::uint8_t buffer[512] = {};
        Aptd reply(0x03, 512, buffer, {c.features, 1, 0, 0, 0, 0, 0xEC, 0});
        ASSERT_TRUE(send(open(), IOCTL_ATA_PASS_THROUGH_DIRECT, reply.bytes));
        EXPECT_EQ(reply.taskFile()[6], c.status) << c.fault;
        EXPECT_EQ(reply.taskFile()[0], c.error) << c.fault;
        EXPECT_EQ(reply.transferred(), c.moved) << c.fault;
        const auto& identify = sim::machine().drives[0].identify;
        EXPECT_EQ(0, std::memcmp(buffer, identify.data(), c.moved)) << c.fault;
        EXPECT_EQ(c.moved < 512 ? buffer[c.moved] : 0, 0) << c.fault;
    }
}

TEST_F(SimFaults, OnTheSatBridgeAFaultIsCheckConditionOrTheGivenScsiAnswer) {
    load_faults(R"({"commands": [{"command": "0xEC", "nth": 1},
        {"command": "0xEC", "nth": 2, "scsiStatus": 8, "sense": [112, 0, 6]}]})");
    const win32::HANDLE handle = open();
    std::uint8_t buffer[512];
    std::string statuses;
    for (int round = 1; round <= 3; ++round) {
        Sptd request(ata16(4, false, true, {0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0xEC}), 1, 512,
                     buffer);
        ASSERT_TRUE(send(handle, IOCTL_SCSI_PASS_THROUGH_DIRECT, request.bytes));
        statuses += std::to_string(request.scsiStatus());
        if (round == 1) {
            EXPECT_EQ(request.sense()[9], 0x51);
        }
        if (round == 2) {
            EXPECT_EQ(request.senseLength(), 3);
            EXPECT_EQ(request.sense()[2], 0x06);
        }
    }
    EXPECT_EQ(statuses, "280");
}

} // namespace
} // namespace simtest
