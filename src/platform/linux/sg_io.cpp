#include "platform/linux/sg_io.hpp"

#include <scsi/sg.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "platform/ata_sense.hpp"
#include "platform/linux/win32_error.hpp"

namespace linux_backend {

namespace {

constexpr std::uint8_t kCheckCondition = 0x02;
constexpr std::uint8_t kAbortedCommand = 0x0B;

// libata gives up on a command that outlives its time-out, resets the link and ends the command
// as ABORTED COMMAND with no status of the drive's in it (6.1: Status 40h, Error 0; 6.12: a task
// file of zeros), where a drive's own refusal carries ERR. host_status stays DID_OK, so the sense
// and the time the command took are all that tell a time-out apart.
bool host_gave_up(const sg_io_hdr_t& header, std::uint8_t senseLength, const SgCommand& command) {
    return header.status == kCheckCondition &&
           sat::sense_key(command.sense, senseLength) == kAbortedCommand &&
           !sat::sense_shows_ata_error(command.sense, senseLength) &&
           std::uint64_t{header.duration} >= std::uint64_t{command.timeoutSeconds} * 1000u;
}

} // namespace

SgOutcome send_sg_io(int fd, const SgCommand& command) {
    sg_io_hdr_t header;
    std::memset(&header, 0, sizeof header);
    header.interface_id = 'S';
    header.cmdp = const_cast<unsigned char*>(command.cdb);
    header.cmd_len = command.cdbLength;
    switch (command.phase) {
    case DataPhase::In:
        header.dxfer_direction = SG_DXFER_FROM_DEV;
        break;
    case DataPhase::Out:
        header.dxfer_direction = SG_DXFER_TO_DEV;
        break;
    case DataPhase::None:
        header.dxfer_direction = SG_DXFER_NONE;
        break;
    }
    if (command.phase != DataPhase::None) {
        header.dxferp = command.data;
        header.dxfer_len = command.length;
    }
    header.sbp = command.sense;
    header.mx_sb_len = command.senseCapacity;
    const std::uint64_t milliseconds = std::uint64_t{command.timeoutSeconds} * 1000u;
    header.timeout = static_cast<unsigned int>(
        std::min<std::uint64_t>(milliseconds, std::numeric_limits<unsigned int>::max()));

    SgOutcome outcome{ERROR_SUCCESS, 0, 0, 0};
    // Never repeated on EINTR: the command may have reached the drive already.
    if (ioctl(fd, SG_IO, &header) != 0) {
        outcome.error = win32_error_from_io_errno(errno);
        return outcome;
    }
    outcome.error = win32_error_from_sg_status(header.host_status, header.driver_status);
    outcome.scsiStatus = header.status;
    outcome.senseLength = std::min(header.sb_len_wr, command.senseCapacity);
    if (outcome.error == ERROR_SUCCESS && host_gave_up(header, outcome.senseLength, command)) {
        outcome.error = ERROR_SEM_TIMEOUT;
        return outcome;
    }
    if (command.phase != DataPhase::None) {
        const int residual = std::clamp(
            header.resid, 0, static_cast<int>(std::min<std::uint32_t>(command.length, 0x7FFFFFFF)));
        outcome.moved = command.length - static_cast<std::uint32_t>(residual);
    }
    return outcome;
}

} // namespace linux_backend
