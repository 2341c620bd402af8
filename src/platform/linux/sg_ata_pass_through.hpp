// IOCTL_ATA_PASS_THROUGH_DIRECT as one SAT ATA PASS-THROUGH(16) over SG_IO.
#pragma once

#include "platform/win32.hpp"

namespace linux_backend {

// Reads the ATA_PASS_THROUGH_DIRECT record from `in`; writes it back to `out` with the drive's
// output registers and the moved byte count. Returns ERROR_SUCCESS whenever the drive's
// registers came back, also for a command the drive failed.
win32::DWORD sg_ata_pass_through(int fd, const void* in, win32::DWORD inSize, void* out,
                                 win32::DWORD outSize, win32::DWORD& bytesReturned);

} // namespace linux_backend
