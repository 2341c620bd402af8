// IOCTL_SCSI_GET_ADDRESS on a device node.
#pragma once

#include "platform/win32.hpp"

namespace linux_backend {

// Writes the SCSI_ADDRESS record (host as the port, channel as the path, target id, lun) and
// returns ERROR_SUCCESS, or the error of a node that is no SCSI device.
win32::DWORD query_scsi_address(int fd, void* out, win32::DWORD outSize,
                                win32::DWORD& bytesReturned);

} // namespace linux_backend
