// IOCTL_SCSI_PASS_THROUGH_DIRECT as one SG_IO with the request's own CDB.
#pragma once

#include "platform/win32.hpp"

namespace linux_backend {

// Reads the SCSI_PASS_THROUGH_DIRECT record from `in`; writes the record back to `out` with
// the SCSI status, the sense length and the moved byte count, and the sense data at
// SenseInfoOffset. Returns ERROR_SUCCESS whenever the device answered, CHECK CONDITION
// included.
win32::DWORD sg_scsi_pass_through(int fd, const void* in, win32::DWORD inSize, void* out,
                                  win32::DWORD outSize, win32::DWORD& bytesReturned);

} // namespace linux_backend
