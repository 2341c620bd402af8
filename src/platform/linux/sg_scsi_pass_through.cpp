#include "platform/linux/sg_scsi_pass_through.hpp"

#include <cstdint>
#include <cstring>

#include "platform/ata_sense.hpp"
#include "platform/linux/sg_io.hpp"

namespace linux_backend {
namespace {

constexpr win32::DWORD kRecordSize = sizeof(win32::SCSI_PASS_THROUGH_DIRECT);
constexpr std::uint8_t kAtaPassThrough16 = 0x85;
constexpr std::uint8_t kAtaPassThrough12 = 0xA1;
constexpr std::uint8_t kGood = 0x00;
constexpr std::uint8_t kCheckCondition = 0x02;
constexpr std::uint8_t kProtocolMask = 0x1E; // byte 1, bits 4:1
constexpr std::uint8_t kProtocolNonData = 3 << 1;
constexpr std::uint8_t kProtocolPioDataIn = 4 << 1;
constexpr std::uint8_t kProtocolPioDataOut = 5 << 1;
constexpr std::uint8_t kTransferFields = 0x0F; // byte 2: T_DIR, BYT_BLOK, T_LENGTH

bool is_ata_pass_through(const std::uint8_t* cdb) {
    return cdb[0] == kAtaPassThrough16 || cdb[0] == kAtaPassThrough12;
}

// libata fails a PIO command that comes without a data phase without issuing it, so a command
// that moves no data (the activation, DOWNLOAD MICROCODE mode 0x0F) must go as non-data.
void carry_without_data(std::uint8_t* cdb) {
    const std::uint8_t protocol = cdb[1] & kProtocolMask;
    if (protocol == kProtocolPioDataIn || protocol == kProtocolPioDataOut) {
        cdb[1] = static_cast<std::uint8_t>((cdb[1] & ~kProtocolMask) | kProtocolNonData);
        cdb[2] = static_cast<std::uint8_t>(cdb[2] & ~kTransferFields);
    }
}

} // namespace

win32::DWORD sg_scsi_pass_through(int fd, const void* in, win32::DWORD inSize, void* out,
                                  win32::DWORD outSize, win32::DWORD& bytesReturned) {
    if (in == nullptr || out == nullptr || inSize < kRecordSize || outSize < kRecordSize) {
        return ERROR_INVALID_PARAMETER;
    }
    win32::SCSI_PASS_THROUGH_DIRECT request;
    std::memcpy(&request, in, kRecordSize);
    if (request.Length != kRecordSize || request.CdbLength == 0 ||
        request.CdbLength > sizeof request.Cdb) {
        return ERROR_INVALID_PARAMETER;
    }
    // The sense area must lie in the output buffer, after the record.
    const std::uint64_t senseEnd =
        std::uint64_t{request.SenseInfoOffset} + std::uint64_t{request.SenseInfoLength};
    if (request.SenseInfoLength != 0 &&
        (request.SenseInfoOffset < kRecordSize || senseEnd > outSize)) {
        return ERROR_INVALID_PARAMETER;
    }

    DataPhase phase = DataPhase::None;
    switch (request.DataIn) {
    case SCSI_IOCTL_DATA_IN:
        phase = DataPhase::In;
        break;
    case SCSI_IOCTL_DATA_OUT:
        phase = request.DataTransferLength != 0 ? DataPhase::Out : DataPhase::None;
        break;
    case SCSI_IOCTL_DATA_UNSPECIFIED:
        // A length with no direction cannot be carried without guessing one.
        if (request.DataTransferLength != 0) {
            return ERROR_INVALID_PARAMETER;
        }
        break;
    default:
        return ERROR_INVALID_PARAMETER;
    }
    if (phase != DataPhase::None &&
        (request.DataTransferLength == 0 || request.DataBuffer == nullptr)) {
        return ERROR_INVALID_PARAMETER;
    }

    // Sent from a copy: the caller's record keeps the CDB it built.
    std::uint8_t cdb[sizeof request.Cdb];
    std::memcpy(cdb, request.Cdb, sizeof cdb);
    const bool ataPassThrough = is_ata_pass_through(cdb);
    if (ataPassThrough && phase == DataPhase::None) {
        carry_without_data(cdb);
    }

    std::uint8_t sense[255] = {};
    const SgCommand command{cdb,
                            request.CdbLength,
                            phase,
                            request.DataBuffer,
                            request.DataTransferLength,
                            request.TimeOutValue,
                            sense,
                            request.SenseInfoLength};
    SgOutcome outcome = send_sg_io(fd, command);
    if (outcome.error != ERROR_SUCCESS) {
        return outcome.error;
    }
    // A GOOD that the kernel's own sense data contradict is a failed command that moved nothing,
    // as it is on the kernels that report it with CHECK CONDITION.
    if (ataPassThrough && outcome.scsiStatus == kGood &&
        sat::sense_shows_ata_error(sense, outcome.senseLength)) {
        outcome.scsiStatus = kCheckCondition;
        outcome.moved = 0;
    }

    auto* bytes = static_cast<std::uint8_t*>(out);
    request.ScsiStatus = outcome.scsiStatus;
    request.DataTransferLength = outcome.moved;
    if (request.SenseInfoLength != 0) {
        std::memset(bytes + request.SenseInfoOffset, 0, request.SenseInfoLength);
        std::memcpy(bytes + request.SenseInfoOffset, sense, outcome.senseLength);
    }
    request.SenseInfoLength = outcome.senseLength;
    std::memcpy(bytes, &request, kRecordSize);
    bytesReturned =
        outcome.senseLength != 0 ? request.SenseInfoOffset + outcome.senseLength : kRecordSize;
    return ERROR_SUCCESS;
}

} // namespace linux_backend
