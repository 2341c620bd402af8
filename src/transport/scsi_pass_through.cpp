#include <algorithm>
#include <cstring>
#include <ios>
#include <ostream>

#include "platform/ata_sense.hpp"
#include "platform/console.hpp"
#include "transport/scsi_pass_through_request.hpp"
#include "transport/transport.hpp"

namespace {

constexpr std::uint8_t kAtaPassThrough16 = 0x85;
constexpr std::uint8_t kProtocolPioDataIn = 4 << 1;
constexpr std::uint8_t kProtocolPioDataOut = 5 << 1;
constexpr std::uint8_t kExtend = 0x01;
constexpr std::uint8_t kTDirIn = 0x08;
constexpr std::uint8_t kBytBlok = 0x04;
constexpr std::uint8_t kTLengthInCount = 0x02;
constexpr std::uint8_t kCkCond = 0x20;
constexpr std::uint8_t kCheckCondition = 0x02;

void print_check_condition(const DeviceContext& context, const ScsiPassThroughRequest& request) {
    std::ostream& out = console::out();
    out << "CHECK CONDITION ERROR for CMD: " << std::hex << unsigned{context.registers.command}
        << "Sense Buffer: " << unsigned{request.sense[0]} << unsigned{request.sense[1]}
        << unsigned{request.sense[2]} << std::dec << std::endl;
}

std::size_t sense_written(const ScsiPassThroughRequest& request) {
    return std::min<std::size_t>(request.header.SenseInfoLength, kSenseInfoLength);
}

// The drive's registers where the SAT layer put them in the sense data, when it did.
void keep_returned_registers(const std::uint8_t* sense, std::size_t written,
                             AtaReturnedRegisters& out) {
    const sat::AtaSenseReading reading = sat::read_ata_sense(sense, written);
    if (reading.verdict == sat::AtaSenseVerdict::TaskFile) {
        const std::uint8_t* current = reading.current;
        out = AtaReturnedRegisters{true,       current[6], current[0], current[1],
                                   current[2], current[3], current[4], current[5]};
    }
}

// A command sent with CK_COND that the drive completed comes back as CHECK CONDITION too:
// RECOVERED ERROR with the registers asked for, which are kept when they can be read.
bool completed_with_registers(const ScsiPassThroughRequest& request, AtaReturnedRegisters& out) {
    const std::size_t written = sense_written(request);
    if (!sat::sense_reports_ata_information(request.sense, written)) {
        return false;
    }
    keep_returned_registers(request.sense, written, out);
    return true;
}

// What a failed command's sense data say: the key, ASC and ASCQ, and the drive's registers
// where the SAT layer put them.
void keep_failure_sense(const ScsiPassThroughRequest& request, DeviceContext& context) {
    const std::size_t written = sense_written(request);
    const sat::SenseCode code = sat::read_sense_code(request.sense, written);
    if (code.valid) {
        context.sense = ReturnedSense{true, code.key, code.asc, code.ascq};
    }
    keep_returned_registers(request.sense, written, context.returned);
}

} // namespace

Status scsi_pass_through(DeviceContext& context) {
    ScsiPassThroughRequest request;
    std::memset(&request, 0, sizeof request);
    win32::SCSI_PASS_THROUGH_DIRECT& sptd = request.header;
    sptd.Length = sizeof(win32::SCSI_PASS_THROUGH_DIRECT);
    sptd.CdbLength = 16;
    sptd.Cdb[0] = kAtaPassThrough16;
    sptd.SenseInfoLength = kSenseInfoLength;
    sptd.PathId = context.pathId;
    sptd.TargetId = context.targetId;
    sptd.Lun = context.lun;

    switch (context.dataDirection) {
    case NoData:
        sptd.DataIn = SCSI_IOCTL_DATA_UNSPECIFIED;
        break;
    case DataIn:
        sptd.DataIn = SCSI_IOCTL_DATA_IN;
        sptd.Cdb[2] |= kTDirIn;
        sptd.DataTransferLength = context.transferLength;
        sptd.DataBuffer = context.dataBuffer;
        break;
    case DataOut:
        sptd.DataIn = SCSI_IOCTL_DATA_OUT;
        sptd.DataTransferLength = context.transferLength;
        sptd.DataBuffer = context.dataBuffer;
        break;
    default: {
        // Sent anyway, with no data phase: DataIn 0 reads as data out of zero bytes.
        const console::Message message(console::Severity::Error);
        console::out() << "\nData Direction Unspecified.\n";
        break;
    }
    }

    sptd.Cdb[1] = context.dataDirection == DataIn ? kProtocolPioDataIn : kProtocolPioDataOut;
    if (context.commandWidth == Ata48) {
        sptd.Cdb[1] |= kExtend;
    }
    sptd.Cdb[2] |= kBytBlok | kTLengthInCount;
    if (context.registersRequested) {
        sptd.Cdb[2] |= kCkCond;
    }
    std::memcpy(&sptd.Cdb[3], &context.registers, sizeof(AtaRegisters));
    context.returned = AtaReturnedRegisters{};
    context.sense = ReturnedSense{};

    sptd.TimeOutValue =
        context.timeoutSeconds != 0 ? context.timeoutSeconds : kDefaultTimeoutSeconds;
    sptd.SenseInfoOffset = offsetof(ScsiPassThroughRequest, sense);

    win32::SetLastError(0);
    win32::DWORD bytesReturned = 0;
    const win32::BOOL sent =
        win32::DeviceIoControl(context.handle, IOCTL_SCSI_PASS_THROUGH_DIRECT, &request,
                               sizeof request, &request, sizeof request, &bytesReturned, nullptr);
    context.lastError = win32::GetLastError();

    if (!sent) {
        if (context.lastError == ERROR_INVALID_FUNCTION) {
            if (context.verbose != 0) {
                const console::Message message(console::Severity::Error);
                console::out() << "IO Error ERROR_INVALID_FUNCTION [" << context.lastError << "]"
                               << std::endl;
            }
            return Status::InterfaceNotSupported;
        }
        if (context.verbose != 0) {
            const console::Message message(console::Severity::Error);
            console::out() << "IO Error [" << context.lastError << "]" << std::endl;
        }
        return Status::Failed;
    }
    if (sptd.ScsiStatus == kCheckCondition && context.registersRequested &&
        completed_with_registers(request, context.returned)) {
        return Status::Success;
    }
    if (sptd.ScsiStatus == kCheckCondition) {
        keep_failure_sense(request, context);
        if (context.verbose != 0) {
            const console::Message message(console::Severity::Error);
            print_check_condition(context, request);
        }
        return Status::DeviceError;
    }
    return Status::Success;
}
