// An open device node behind a HANDLE: the node's descriptor and, while the handle was opened
// without sharing, the descriptor that holds the drive's lock.
#pragma once

#include <sys/stat.h>

#include <string>

#include "platform/win32.hpp"

namespace linux_backend {

struct DeviceNode {
    int fd;
    int driveLockFd; // -1 when no drive-wide lock is held
};

// The node a handle of CreateFileW stands for, or null for any other value (null, the invalid
// handle value, a handle already closed).
DeviceNode* device_node_from_handle(win32::HANDLE handle);

// The sysfs folder of what a device node stands for: /sys/dev/block/MAJ:MIN for a disk (its
// disk's for a partition), /sys/dev/char/MAJ:MIN for an sg node. Its "device" is the SCSI device.
std::string sysfs_folder_of(const struct stat& node);

} // namespace linux_backend
