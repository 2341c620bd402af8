// The SAT bridge behind IOCTL_SCSI_PASS_THROUGH_DIRECT: a SCSI/ATA Translation layer in front
// of one drive. It answers INQUIRY (standard data, the unit serial number page) from the drive's
// IDENTIFY data, as libata does, and turns ATA PASS-THROUGH(16) into a drive command, reporting
// an aborted command as CHECK CONDITION with the ATA registers in the sense data.
#pragma once

#include <string>

#include "platform/win32.hpp"
#include "sim/machine.hpp"

namespace sim {

// request holds the SCSI_PASS_THROUGH_DIRECT record and its sense area as the I/O manager's
// system buffer: max(inBytes, outBytes) bytes. Returns ERROR_SUCCESS or the error the call fails
// with; request and result receive the decoded request and outcome for the call log.
win32::DWORD sat_pass_through(Machine& machine, const Disk& disk, std::uint8_t* buffer,
                              win32::DWORD inBytes, win32::DWORD outBytes,
                              win32::DWORD& bytesReturned, std::string& request,
                              std::string& result);

} // namespace sim
