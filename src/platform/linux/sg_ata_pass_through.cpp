#include "platform/linux/sg_ata_pass_through.hpp"

#include <cstdint>
#include <cstring>

#include "platform/ata_sense.hpp"
#include "platform/linux/ata_pass_through_cdb.hpp"
#include "platform/linux/sg_io.hpp"
#include "platform/linux/win32_error.hpp"

namespace linux_backend {
namespace {

using sat::AtaSenseReading;
using sat::AtaSenseVerdict;
using sat::read_ata_sense;

constexpr win32::DWORD kRecordSize = sizeof(win32::ATA_PASS_THROUGH_DIRECT);
constexpr std::uint8_t kGood = 0x00;
constexpr std::uint8_t kCheckCondition = 0x02;
constexpr std::uint8_t kBusy = 0x08;
constexpr std::uint8_t kTaskSetFull = 0x28;
constexpr int kStatusIndex = 6;
constexpr std::uint8_t kStatusBusy = 0x80;
constexpr std::uint8_t kStatusReady = 0x40;
constexpr std::uint8_t kStatusDeviceFault = 0x20;
constexpr std::uint8_t kStatusError = 0x01;
constexpr std::uint8_t kStatusReadyComplete = 0x50;

// Whether the data phase can have run to its end by the drive's own account. libata sets no
// residual count for a command the drive failed, so the kernel's count alone would report a
// whole transfer for a command the drive aborted before moving a byte.
bool data_phase_completed(std::uint8_t status) {
    return (status & kStatusReady) != 0 &&
           (status & (kStatusBusy | kStatusDeviceFault | kStatusError)) == 0;
}

} // namespace

win32::DWORD sg_ata_pass_through(int fd, const void* in, win32::DWORD inSize, void* out,
                                 win32::DWORD outSize, win32::DWORD& bytesReturned) {
    if (in == nullptr || out == nullptr || inSize < kRecordSize || outSize < kRecordSize) {
        return ERROR_INVALID_PARAMETER;
    }
    win32::ATA_PASS_THROUGH_DIRECT request;
    std::memcpy(&request, in, kRecordSize);
    AtaPassThroughCdb cdb;
    if (!build_ata_pass_through_cdb(request, cdb)) {
        return ERROR_INVALID_PARAMETER;
    }

    std::uint8_t sense[255] = {};
    const SgCommand command{cdb.bytes,
                            sizeof cdb.bytes,
                            cdb.phase,
                            request.DataBuffer,
                            request.DataTransferLength,
                            request.TimeOutValue,
                            sense,
                            sizeof sense};
    const SgOutcome outcome = send_sg_io(fd, command);
    if (outcome.error != ERROR_SUCCESS) {
        return outcome.error;
    }

    AtaSenseReading reading{AtaSenseVerdict::NoTaskFile, {}, {}};
    switch (outcome.scsiStatus) {
    case kGood:
        // A translator that ignores CK_COND answers GOOD only for a command the drive completed
        // without error; its registers are not known.
        reading.verdict = AtaSenseVerdict::TaskFile;
        reading.current[kStatusIndex] = kStatusReadyComplete;
        break;
    case kCheckCondition:
        reading = read_ata_sense(sense, outcome.senseLength);
        break;
    case kBusy:
    case kTaskSetFull:
        return ERROR_BUSY;
    default:
        return ERROR_IO_DEVICE;
    }
    switch (reading.verdict) {
    case AtaSenseVerdict::TaskFile:
        break;
    case AtaSenseVerdict::CommandRefused:
        return ERROR_INVALID_FUNCTION;
    case AtaSenseVerdict::FieldRefused:
        return ERROR_INVALID_PARAMETER;
    case AtaSenseVerdict::NoTaskFile:
        return ERROR_IO_DEVICE;
    }

    std::memcpy(request.CurrentTaskFile, reading.current, sizeof request.CurrentTaskFile);
    std::memcpy(request.PreviousTaskFile, reading.previous, sizeof request.PreviousTaskFile);
    request.DataTransferLength =
        data_phase_completed(reading.current[kStatusIndex]) ? outcome.moved : 0;
    std::memcpy(out, &request, kRecordSize);
    bytesReturned = kRecordSize;
    return ERROR_SUCCESS;
}

} // namespace linux_backend
