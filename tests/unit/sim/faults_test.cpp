// Injected faults: platform calls that fail, drive commands that end as the test says.
#include <string>
#include <vector>

#include "sim/machine_file.hpp"
#include "sim/microcode_image.hpp"
#include "sim_fixture.hpp"

namespace simtest {
namespace {

const std::array<std::uint8_t, 8> kIdentifyTaskFile = {0, 1, 0, 0, 0, 0, 0xEC, 0};

class SimFaults : public SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        load(one_drive());
    }
    // Sends n GET_ADDRESS requests and says which of them failed.
    std::string get_addresses(win32::HANDLE handle, int n) {
        std::string outcome;
        for (int i = 0; i < n; ++i) {
            std::array<std::uint8_t, 8> address{};
            outcome += send(handle, IOCTL_SCSI_GET_ADDRESS, address) ? '.' : 'F';
        }
        return outcome;
    }
    Aptd identify_over_ata(win32::HANDLE handle) {
        Aptd request(0x03, 512, buffer, kIdentifyTaskFile);
        EXPECT_TRUE(send(handle, IOCTL_ATA_PASS_THROUGH_DIRECT, request.bytes));
        return request;
    }
    std::uint8_t buffer[512] = {};
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
        sim::reset_machine();
        std::string machine = one_drive();
        machine.insert(machine.size() - 1,
                       std::string(R"(, "faults": {"calls": [)") + c.fault + "]}");
        load(machine);
        const win32::HANDLE handle = open();
        EXPECT_EQ(get_addresses(handle, 5), c.outcome) << c.fault;
        EXPECT_EQ(sim::machine().lastError,
                  std::string(c.outcome).find('F') != std::string::npos ? 1117u : 0u)
            << c.fault;
    }
}

TEST_F(SimFaults, AFailedCallReachesNoDrive) {
    sim::CallFault fault;
    fault.function = "DeviceIoControl";
    fault.error = ERROR_IO_DEVICE;
    sim::machine().faults.calls.push_back(fault);
    const win32::HANDLE handle = open();
    Aptd request(0x03, 512, buffer, kIdentifyTaskFile);
    EXPECT_FALSE(send(handle, IOCTL_ATA_PASS_THROUGH_DIRECT, request.bytes));
    EXPECT_EQ(win32::GetLastError(), ERROR_IO_DEVICE);
    const sim::CallRecord& call = sim::machine().log[sim::machine().log.size() - 2];
    EXPECT_TRUE(call.ata.empty());
    EXPECT_TRUE(call.injected);
    EXPECT_EQ(request.taskFile()[6], 0xEC); // the request came back untouched
}

TEST_F(SimFaults, AnInjectedOpenFailureLeavesNoHandle) {
    sim::CallFault fault;
    fault.function = "CreateFileW";
    fault.error = ERROR_ACCESS_DENIED;
    sim::machine().faults.calls.push_back(fault);
    EXPECT_EQ(open(), INVALID_HANDLE_VALUE);
    EXPECT_EQ(win32::GetLastError(), ERROR_ACCESS_DENIED);
    EXPECT_EQ(sim::open_handle_count(sim::machine()), 0u);
}

TEST_F(SimFaults, ACommandFaultSetsTheTaskFileOfAtaPassThrough) {
    sim::CommandFault fault;
    fault.command = 0xEC;
    fault.status = 0x51;
    fault.error = 0x84;
    sim::machine().faults.commands.push_back(fault);
    const Aptd reply = identify_over_ata(open());
    EXPECT_EQ(reply.taskFile()[0], 0x84);
    EXPECT_EQ(reply.taskFile()[6], 0x51);
    EXPECT_EQ(reply.transferred(), 0u);
    EXPECT_EQ(buffer[0], 0x00); // not carried out: no data
}

TEST_F(SimFaults, AShortTransferReportsTheBytesMoved) {
    sim::CommandFault fault;
    fault.command = 0xEC;
    fault.status = 0x58;
    fault.error = 0x00;
    fault.execute = true;
    fault.moved = 256;
    sim::machine().faults.commands.push_back(fault);
    const Aptd reply = identify_over_ata(open());
    EXPECT_EQ(reply.taskFile()[6], 0x58);
    EXPECT_EQ(reply.transferred(), 256u);
    const auto& identify = sim::machine().drives[0].identify;
    EXPECT_EQ(0, std::memcmp(buffer, identify.data(), 256));
    EXPECT_EQ(buffer[256], 0x00);
}

TEST_F(SimFaults, OnTheSatBridgeAFaultIsCheckConditionOrTheGivenScsiAnswer) {
    sim::CommandFault ata;
    ata.command = 0xEC;
    ata.nth = 1;
    sim::CommandFault scsi;
    scsi.command = 0xEC;
    scsi.nth = 2;
    scsi.scsiStatus = 0x08; // BUSY
    scsi.sense = {0x70, 0, 0x06};
    sim::machine().faults.commands = {ata, scsi};
    const win32::HANDLE handle = open();
    for (int round = 1; round <= 3; ++round) {
        Sptd request(ata16(4, false, true, {0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0xEC}), 1, 512,
                     buffer);
        ASSERT_TRUE(send(handle, IOCTL_SCSI_PASS_THROUGH_DIRECT, request.bytes));
        const std::uint8_t expected[] = {0x02, 0x08, 0x00};
        EXPECT_EQ(request.scsiStatus(), expected[round - 1]) << round;
        if (round == 1) {
            EXPECT_EQ(request.sense()[9], 0x51);
        }
        if (round == 2) {
            EXPECT_EQ(request.senseLength(), 3);
            EXPECT_EQ(request.sense()[2], 0x06);
        }
    }
}

TEST_F(SimFaults, ExecutedCommandsChangeTheDriveEvenWhenTheirStatusIsReplaced) {
    load(one_drive(R"("failDownload": 1)"));
    ASSERT_EQ(sim::machine().faults.commands.size(), 1u);
    sim::machine().faults.commands[0].execute = true;
    std::vector<std::uint8_t> image = sim::make_image("QU020001", 1024);
    sim::AtaCommand command;
    command.command = 0x92;
    command.features = 0x07;
    command.count = 2;
    const sim::AtaOutcome outcome = sim::run_ata_command(sim::machine(), "d0", command,
                                                         sim::DataPhase::Out, image.data(), 1024);
    EXPECT_EQ(outcome.status, 0x51);
    EXPECT_EQ(sim::firmware_revision(sim::machine().drives[0]), "QU020001");
}

TEST_F(SimFaults, CommandFaultsMatchFeaturesAndDrive) {
    load(R"({"drives": [{"id": "a"}, {"id": "b"}],
             "faults": {"commands": [{"command": "0xEC", "features": "0x0B", "drive": "b"}]}})");
    std::uint8_t data[512];
    sim::AtaCommand identify;
    identify.command = 0xEC;
    sim::AtaCommand vendor = identify;
    vendor.features = 0x0B;
    vendor.lbaLow = 0xDB;
    vendor.lbaMid = 0x97;
    vendor.lbaHigh = 0x20;
    const auto status = [&](const char* drive, const sim::AtaCommand& command) {
        return sim::run_ata_command(sim::machine(), drive, command, sim::DataPhase::In, data, 512)
            .status;
    };
    EXPECT_EQ(status("a", vendor), 0x50);
    EXPECT_EQ(status("b", identify), 0x50);
    EXPECT_EQ(status("b", vendor), 0x51);
}

} // namespace
} // namespace simtest
