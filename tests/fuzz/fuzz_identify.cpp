// IDENTIFY DEVICE data and page 0x03 of the IDENTIFY DEVICE data log, as a simulated drive answers
// them, through identification into DriveInfo and the drive report.
//
// Input, zero-filled where it ends early (a 512-byte file of real IDENTIFY data is a whole case):
//   bytes 0-511     the drive's IDENTIFY DEVICE data
//   bytes 512-1023  page 0x03 of its IDENTIFY DEVICE data log
//   byte 1024       bit 0: ATA pass-through instead of SCSI pass-through; bit 1: verbose;
//                   bit 2: no general purpose logging (READ LOG EXT aborted);
//                   bit 3: IDENTIFY DEVICE ends as below; bit 4: READ LOG EXT ends as below
//   then, for IDENTIFY DEVICE and READ LOG EXT in turn: Status, Error, the bytes reported moved
//   (16 bits), and whether the drive carries the command out (bit 0)
//   then the segment size the report shows
#include <cstddef>
#include <cstdint>

#include "app/report.hpp"
#include "drive/drive_info.hpp"
#include "drive/identify.hpp"
#include "drive/inquire_device.hpp"
#include "fuzz_input.hpp"
#include "sim/identify_data.hpp"
#include "sim/machine.hpp"
#include "transport/transport.hpp"

namespace {

constexpr std::uint8_t kIdentifyDevice = 0xEC;
constexpr std::uint8_t kReadLogExt = 0x2F;

void add_outcome(fuzz::Input& input, std::uint8_t command, bool active) {
    sim::CommandFault fault;
    fault.command = command;
    fault.status = input.u8();
    fault.error = input.u8();
    fault.moved = input.u16();
    fault.execute = input.flag();
    if (active) {
        sim::machine().faults.commands.push_back(fault);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    sim::reset_machine();
    fuzz::discard_console();

    sim::Drive drive;
    drive.id = "d0";
    input.bytes(drive.identify.data(), drive.identify.size());
    input.bytes(drive.identifyLogPage3.data(), drive.identifyLogPage3.size());
    drive.identifyLogPage0 = sim::identify_log_page0();

    const std::uint8_t control = input.u8();
    const bool ataPassThrough = (control & 0x01) != 0;
    drive.identifyLogSupported = (control & 0x04) == 0;
    sim::machine().drives.push_back(drive);
    sim::Disk disk;
    disk.path = L"\\\\.\\PhysicalDrive0";
    disk.driveId = drive.id;
    sim::machine().disks.push_back(disk);
    add_outcome(input, kIdentifyDevice, (control & 0x08) != 0);
    add_outcome(input, kReadLogExt, (control & 0x10) != 0);
    const std::uint8_t segmentBlocks = input.u8();

    DeviceContext context = make_device_context();
    context.interfaceKind = ataPassThrough ? AtaPassThrough : ScsiPassThrough;
    context.verbose = (control & 0x02) != 0 ? 1 : 0;
    fuzz::expect(open_device(context, disk.path.c_str()) == Status::Success,
                 "the simulated drive does not open");

    DriveInfo info;
    inquire_device(context, info);
    if (identify_device(context, info) == Status::Success) {
        // Whatever the bytes, the texts are cut from their fixed fields.
        fuzz::expect(info.modelNumber.size() <= 40, "model number longer than words 27-46");
        fuzz::expect(info.serialNumber.size() <= 20, "serial number longer than words 10-19");
        fuzz::expect(info.firmwareRevision.size() <= 8, "firmware longer than words 23-26");
        fuzz::expect(info.ataVersions.size() <= 4, "more ATA versions than word 80 names");
        fuzz::expect(security_state_label(info.securityState) != nullptr,
                     "a security state without a label");
        print_drive_report(info, segmentBlocks);
    }
    win32::CloseHandle(context.handle);
    console::reset_sinks();
    return 0;
}
