// The outcome of ATA pass-through (the output task file and the moved byte count) and of SCSI
// pass-through (the SCSI status and sense data), through whole runs that identify a simulated
// drive and download a valid image to it. The machine's command faults give the drive's commands
// any Status, Error and moved count, and the SAT bridge any SCSI status and sense bytes.
//
// Input:
//   byte 0   bit 0: /T: (ATA pass-through); bit 1: /v; bit 2: /s; bit 3: /e; bit 4: /a;
//            bit 5: no /D:; bits 6-7: /r with that count
//   byte 1   /g with this value when not 0
//   then outcomes until the input ends, each:
//     byte     bits 0-1: the command (IDENTIFY DEVICE, READ LOG EXT, DOWNLOAD MICROCODE, and
//              IDENTIFY DEVICE with the vendor Features 0x0B); bit 2: onward; bit 3: the drive
//              carries the command out; bit 4: a SCSI status and sense follow; bits 5-7: nth
//     Status, Error, moved (16 bits; 0xFFFF: as the drive moved them)
//     with bit 4: the SCSI status, a sense length (at most 32) and the sense bytes
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_input.hpp"
#include "sim/machine.hpp"
#include "whole_run.hpp"

namespace {

const char kMachine[] = R"({
  "drives": [{"id": "d0", "model": "QSIM FUZZ SSD", "serial": "QF0000000001",
              "firmware": "QS010001"}],
  "disks": [{"path": "\\\\.\\PhysicalDrive0", "drive": "d0"}]
})";

sim::CommandFault read_outcome(fuzz::Input& input) {
    static const std::uint8_t commands[] = {0xEC, 0x2F, 0x92, 0xEC};
    const std::uint8_t selector = input.u8();
    sim::CommandFault fault;
    fault.command = commands[selector & 0x03];
    if ((selector & 0x03) == 3) {
        fault.features = 0x0B;
    }
    fault.onward = (selector & 0x04) != 0;
    fault.execute = (selector & 0x08) != 0;
    fault.nth = static_cast<std::uint32_t>(selector >> 5);
    fault.status = input.u8();
    fault.error = input.u8();
    const std::uint16_t moved = input.u16();
    if (moved != 0xFFFF) {
        fault.moved = moved;
    }
    if ((selector & 0x10) != 0) {
        fault.scsiStatus = input.u8();
        fault.sense = input.rest(input.u8() % 33);
    }
    return fault;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    sim::reset_machine();
    fuzz::discard_console();
    std::string error;
    if (!sim::load_machine(kMachine, "", error)) {
        fuzz::fail(error.c_str());
    }

    const std::uint8_t options = input.u8();
    const std::uint8_t segment = input.u8();
    while (!input.empty()) {
        sim::machine().faults.commands.push_back(read_outcome(input));
    }

    std::vector<std::string> arguments;
    arguments.push_back(std::string((options & 0x01) != 0 ? "/T:" : "") + "\\\\.\\PhysicalDrive0");
    if ((options & 0x20) == 0) {
        arguments.push_back("/D:" FUZZ_DATA_DIR "/image-qs020001.bin");
    }
    const char* flags[] = {"/v", "/s", "/e", "/a"};
    for (int bit = 0; bit < 4; ++bit) {
        if ((options & (0x02 << bit)) != 0) {
            arguments.push_back(flags[bit]);
        }
    }
    if ((options >> 6) != 0) {
        arguments.push_back("/r");
        arguments.push_back(std::to_string(options >> 6));
    }
    if (segment != 0) {
        arguments.push_back("/g");
        arguments.push_back(std::to_string(segment));
    }

    fuzz::run_program(arguments);
    console::reset_sinks();
    return 0;
}
