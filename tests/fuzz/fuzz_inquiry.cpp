// INQUIRY standard data and the unit serial number page, then IDENTIFY DEVICE and the IDENTIFY
// DEVICE data log, from a driver stack that answers with anything: any status, sense data, data
// bytes, reported transfer length and returned byte count (hostile_driver.hpp gives the layout).
//
// Input: one byte (bit 0: the ATA commands go through ATA pass-through instead of SCSI
// pass-through; bit 1: verbose), then the driver's answers in call order: the SCSI address, the
// standard INQUIRY, the unit serial number page, IDENTIFY DEVICE, READ LOG EXT.
//
// FUZZ_DRIVER_LENGTHS=honest in the environment makes the driver report no transfer length above
// the request's own, for runs that must not stop at a finding of that kind still open.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "app/report.hpp"
#include "drive/identify.hpp"
#include "drive/inquire_device.hpp"
#include "fuzz_input.hpp"
#include "hostile_driver.hpp"
#include "transport/transport.hpp"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const char* lengths = std::getenv("FUZZ_DRIVER_LENGTHS");
    hostile::set_over_report(lengths == nullptr || std::strcmp(lengths, "honest") != 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    fuzz::discard_console();
    const std::uint8_t control = input.u8();
    hostile::begin(input);

    DeviceContext context = make_device_context();
    context.interfaceKind = (control & 0x01) != 0 ? AtaPassThrough : ScsiPassThrough;
    context.verbose = (control & 0x02) != 0 ? 1 : 0;
    if (open_device(context, L"\\\\.\\PhysicalDrive0") == Status::Success) {
        DriveInfo info;
        inquire_device(context, info);
        // The INQUIRY texts are taken at their fixed sizes, or not at all.
        fuzz::expect(info.vendorName.empty() || info.vendorName.size() == 8, "vendor size");
        fuzz::expect(info.modelNumber.empty() || info.modelNumber.size() == 16, "product size");
        fuzz::expect(info.firmwareRevision.empty() || info.firmwareRevision.size() == 4,
                     "revision size");
        fuzz::expect(info.serialNumber.size() <= 20, "serial number above 20 bytes");
        if (identify_device(context, info) == Status::Success) {
            fuzz::expect(info.modelNumber.size() <= 40, "model number longer than its words");
            fuzz::expect(security_state_label(info.securityState) != nullptr,
                         "a security state without a label");
        }
        print_drive_report(info, 0x40);
        win32::CloseHandle(context.handle);
    }
    console::reset_sinks();
    return 0;
}
