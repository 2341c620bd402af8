// CSMI replies through whole --scan and /C: runs: a simulated controller whose driver
// information (names of 81 bytes, with or without a NUL), configuration, phy table (any
// bNumberOfPhys, any entries) and request outcomes (any ReturnCode, any error) come from the
// input, with a drive on its links whose IDENTIFY data come from the input too.
//
// Input, zero-filled where it ends early:
//   byte 0   bits 0-1: --scan, /C:\\.\SCSIp:n, /C:p,<address>, or /C:\\.\SCSIp:n /l;
//            bits 2-3: verbose (0, /v, /vv, /vv); bit 4: /i; bit 5: /D: with an image;
//            bit 6: /e and /a; bit 7: /s
//   byte 1   bits 0-3: the controller's port (modulo 15); bit 4: its port also carries a SAT
//            bridge to the drive; bit 5: the controller is no CSMI driver
//   byte 2   n, the phy number of /C: as a signed byte (the address form takes the attached
//            address of phy n modulo 32)
//   81 bytes driver name, 81 bytes description, 6 revisions (16 bits each), board id,
//   controller flags (32 bits each), 81 bytes serial number, bNumberOfPhys
//   a count of phys described (modulo 33), each 36 bytes: the controller's link end (device
//   type, restricted, initiator and target protocol, SAS address, phy identifier, signal
//   class), port identifier, negotiated, minimum and maximum link rate, change count, auto
//   discover, features, the attached link end, and a byte whose bit 0 puts the drive there
//   a count of request faults (modulo 5), each: control code (one of 0, 1, 2, 20, 24, 25),
//   nth (modulo 4), onward, error (one of 0, 1, 31, 87, 1117), ReturnCode (32 bits), execute
//   512 bytes: the drive's IDENTIFY DEVICE data
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_input.hpp"
#include "sim/call_log.hpp"
#include "sim/identify_data.hpp"
#include "sim/machine.hpp"
#include "whole_run.hpp"

namespace {

constexpr std::size_t kNameBytes = 81;

std::string text_field(fuzz::Input& input) {
    std::string text(kNameBytes, '\0');
    for (char& c : text) {
        c = static_cast<char>(input.u8());
    }
    return text;
}

void read_link_end(fuzz::Input& input, sim::CsmiLinkEnd& end) {
    end.deviceType = input.u8();
    end.restricted = input.u8();
    end.initiatorProtocol = input.u8();
    end.targetProtocol = input.u8();
    input.bytes(end.sasAddress.data(), end.sasAddress.size());
    end.phyIdentifier = input.u8();
    end.signalClass = input.u8();
}

void read_phy(fuzz::Input& input, sim::CsmiPhy& phy) {
    read_link_end(input, phy.identify);
    phy.portIdentifier = input.u8();
    phy.negotiatedLinkRate = input.u8();
    phy.minimumLinkRate = input.u8();
    phy.maximumLinkRate = input.u8();
    phy.phyChangeCount = input.u8();
    phy.autoDiscover = input.u8();
    phy.phyFeatures = input.u8();
    read_link_end(input, phy.attached);
    phy.driveId = input.flag() ? "d0" : "";
}

sim::CsmiFault read_fault(fuzz::Input& input) {
    static const std::uint32_t codes[] = {0, 1, 2, 20, 24, 25};
    static const win32::DWORD errors[] = {0, ERROR_INVALID_FUNCTION, ERROR_GEN_FAILURE,
                                          ERROR_INVALID_PARAMETER, ERROR_IO_DEVICE};
    sim::CsmiFault fault;
    fault.controlCode = codes[input.u8() % 6];
    fault.nth = input.u8() % 4;
    fault.onward = input.flag();
    fault.error = errors[input.u8() % 5];
    fault.returnCode = input.u32();
    fault.execute = input.flag();
    return fault;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    sim::reset_machine();
    fuzz::discard_console();

    const std::uint8_t run = input.u8();
    const std::uint8_t wiring = input.u8();
    const std::uint8_t phyNumber = input.u8();

    sim::CsmiController controller;
    controller.port = (wiring & 0x0F) % 15;
    controller.csmi = (wiring & 0x20) == 0;
    controller.driverName = text_field(input);
    controller.driverDescription = text_field(input);
    controller.majorRevision = input.u16();
    controller.minorRevision = input.u16();
    controller.buildRevision = input.u16();
    controller.releaseRevision = input.u16();
    controller.csmiMajorRevision = input.u16();
    controller.csmiMinorRevision = input.u16();
    controller.boardId = input.u32();
    controller.controllerFlags = input.u32();
    controller.serialNumber = text_field(input);
    controller.numberOfPhys = input.u8();
    const std::size_t described = input.u8() % (controller.phys.size() + 1);
    for (std::size_t i = 0; i < described; ++i) {
        read_phy(input, controller.phys[i]);
    }
    const std::size_t faults = input.u8() % 5;
    for (std::size_t i = 0; i < faults; ++i) {
        controller.faults.push_back(read_fault(input));
    }

    sim::Drive drive;
    drive.id = "d0";
    input.bytes(drive.identify.data(), drive.identify.size());
    drive.identifyLogPage0 = sim::identify_log_page0();
    drive.identifyLogPage3 = sim::identify_log_page3({});
    sim::machine().drives.push_back(drive);

    const std::string port = std::to_string(controller.port);
    const std::string portPath = "\\\\.\\SCSI" + port + ":";
    if ((wiring & 0x10) != 0) {
        sim::Disk disk;
        disk.path = sim::wide_from_utf8(portPath);
        disk.driveId = drive.id;
        sim::machine().disks.push_back(disk);
    }
    std::string address;
    for (const std::uint8_t byte : controller.phys[phyNumber % 32].attached.sasAddress) {
        address += sim::hex8(byte);
    }
    const std::string phyText = std::to_string(static_cast<std::int8_t>(phyNumber));
    sim::machine().controllers.push_back(controller);

    const std::string selections[] = {"--scan", "/C:" + portPath + phyText,
                                      "/C:" + port + "," + address, "/C:" + portPath + phyText};
    std::vector<std::string> arguments{selections[run & 0x03]};
    if ((run & 0x03) == 3) {
        arguments.push_back("/l");
    }
    const int verbose = (run >> 2) & 0x03;
    if (verbose != 0) {
        arguments.push_back(verbose == 1 ? "/v" : "/vv");
    }
    const std::pair<int, std::vector<std::string>> options[] = {
        {0x10, {"/i"}},
        {0x20, {"/D:" FUZZ_DATA_DIR "/image-qs020001.bin"}},
        {0x40, {"/e", "/a"}},
        {0x80, {"/s"}}};
    for (const auto& [bit, words] : options) {
        if ((run & bit) != 0) {
            arguments.insert(arguments.end(), words.begin(), words.end());
        }
    }

    const int code = fuzz::run_program(arguments);
    if ((run & 0x03) == 0) {
        fuzz::expect(code == 0, "a scan ends with an exit code other than 0");
    }
    console::reset_sinks();
    return 0;
}
