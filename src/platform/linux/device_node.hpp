// An open device node behind a HANDLE: the node's descriptor and, while the handle was opened
// without sharing, the descriptor that holds the drive's lock.
#pragma once

#include "platform/win32.hpp"

namespace linux_backend {

struct DeviceNode {
    int fd;
    int driveLockFd; // -1 when no drive-wide lock is held
};

// The node a handle of CreateFileW stands for, or null for any other value (null, the invalid
// handle value, a handle already closed).
DeviceNode* device_node_from_handle(win32::HANDLE handle);

} // namespace linux_backend
