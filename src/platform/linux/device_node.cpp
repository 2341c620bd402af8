// Opening a drive's device node (/dev/sda, /dev/sg2) the way CreateFileW opens a physical
// drive, and closing it again.
#include "platform/linux/device_node.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/linux/win32_error.hpp"
#include "platform/utf8.hpp"

namespace linux_backend {
namespace {

// Paths of the Windows device namespace (\\.\PhysicalDrive0, \\.\SCSI2:) name nothing here;
// they are refused before they could be taken for a file name relative to the current folder.
bool is_windows_device_path(const std::string& path) {
    return path.rfind("\\\\.\\", 0) == 0 || path.rfind("\\\\?\\", 0) == 0;
}

// udev holds a shared lock on a disk node for a moment while it probes it, as it does right
// after a previous run closed the node; such a lock goes away on its own, another run's does not.
constexpr int kLockAttempts = 20;
constexpr useconds_t kLockRetryMicroseconds = 100000;

bool lock_exclusively(int fd) {
    for (int attempt = 0; attempt < kLockAttempts; ++attempt) {
        if (attempt > 0) {
            usleep(kLockRetryMicroseconds);
        }
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
            return true;
        }
        if (errno != EWOULDBLOCK && errno != EINTR) {
            return false;
        }
    }
    return false;
}

// The drive behind a node is the SCSI device sysfs links as "device": the same directory for
// /dev/sda, its partitions and /dev/sg0, so a lock on it keeps two runs off one drive whichever
// node each was given. -1 when the node has no such directory (no sysfs, no SCSI device).
int open_drive_directory(const struct stat& node) {
    return open((sysfs_folder_of(node) + "/device").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

// Handles point into this table; a run opens one drive at a time, the slots allow a few more.
constexpr int kMaxOpenNodes = 8;
DeviceNode openNodes[kMaxOpenNodes] = {};
bool slotInUse[kMaxOpenNodes] = {};

int slot_of(const DeviceNode* node) {
    for (int slot = 0; slot < kMaxOpenNodes; ++slot) {
        if (node == &openNodes[slot]) {
            return slotInUse[slot] ? slot : -1;
        }
    }
    return -1;
}

int free_slot() {
    for (int slot = 0; slot < kMaxOpenNodes; ++slot) {
        if (!slotInUse[slot]) {
            return slot;
        }
    }
    return -1;
}

win32::HANDLE fail(win32::DWORD error) {
    win32::SetLastError(error);
    return INVALID_HANDLE_VALUE;
}

int open_flags(win32::DWORD desiredAccess) {
    const bool read = (desiredAccess & GENERIC_READ) != 0;
    const bool write = (desiredAccess & GENERIC_WRITE) != 0;
    // O_NONBLOCK lets a CD-ROM drive without a disc open; SG_IO itself always waits.
    const int common = O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
    if (write) {
        return common | (read ? O_RDWR : O_WRONLY);
    }
    return common | O_RDONLY;
}

} // namespace

std::string sysfs_folder_of(const struct stat& node) {
    const std::string numbers =
        std::to_string(major(node.st_rdev)) + ":" + std::to_string(minor(node.st_rdev));
    std::string base = (S_ISBLK(node.st_mode) ? "/sys/dev/block/" : "/sys/dev/char/") + numbers;
    if (S_ISBLK(node.st_mode) && access((base + "/partition").c_str(), F_OK) == 0) {
        base += "/..";
    }
    return base;
}

DeviceNode* device_node_from_handle(win32::HANDLE handle) {
    const int slot = slot_of(static_cast<const DeviceNode*>(handle));
    return slot >= 0 ? &openNodes[slot] : nullptr;
}

} // namespace linux_backend

namespace win32 {

using linux_backend::DeviceNode;

HANDLE CreateFileW(LPCWSTR fileName, DWORD desiredAccess, DWORD shareMode, void*,
                   DWORD creationDisposition, DWORD, HANDLE) {
    if (fileName == nullptr || creationDisposition != OPEN_EXISTING) {
        // Nothing is ever created: only existing nodes are opened.
        return linux_backend::fail(ERROR_INVALID_PARAMETER);
    }
    std::string path;
    if (!utf8::encode_utf8(fileName, path)) {
        return linux_backend::fail(linux_backend::kErrorInvalidName);
    }
    if (path.empty()) {
        return linux_backend::fail(ERROR_PATH_NOT_FOUND);
    }
    if (linux_backend::is_windows_device_path(path)) {
        return linux_backend::fail(ERROR_FILE_NOT_FOUND);
    }

    // Only device nodes are opened: a regular file, a folder or a pipe is no drive, and opening
    // it for writing could only do harm.
    struct stat named {};
    if (stat(path.c_str(), &named) != 0) {
        return linux_backend::fail(linux_backend::win32_error_from_open_errno(errno));
    }
    if (!S_ISBLK(named.st_mode) && !S_ISCHR(named.st_mode)) {
        return linux_backend::fail(ERROR_FILE_NOT_FOUND);
    }

    int fd = -1;
    do {
        fd = open(path.c_str(), linux_backend::open_flags(desiredAccess));
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        return linux_backend::fail(linux_backend::win32_error_from_open_errno(errno));
    }
    // The node may have been replaced between the two looks at it.
    struct stat opened {};
    if (fstat(fd, &opened) != 0 || (opened.st_mode & S_IFMT) != (named.st_mode & S_IFMT) ||
        opened.st_rdev != named.st_rdev) {
        close(fd);
        return linux_backend::fail(ERROR_FILE_NOT_FOUND);
    }

    int driveLockFd = -1;
    if (shareMode == 0) {
        // No sharing, as on Windows: a second run on the same drive is refused, not interleaved.
        if (!linux_backend::lock_exclusively(fd)) {
            close(fd);
            return linux_backend::fail(ERROR_SHARING_VIOLATION);
        }
        driveLockFd = linux_backend::open_drive_directory(opened);
        if (driveLockFd >= 0 && !linux_backend::lock_exclusively(driveLockFd)) {
            close(driveLockFd);
            close(fd);
            return linux_backend::fail(ERROR_SHARING_VIOLATION);
        }
    }

    const int slot = linux_backend::free_slot();
    if (slot < 0) {
        if (driveLockFd >= 0) {
            close(driveLockFd);
        }
        close(fd);
        return linux_backend::fail(linux_backend::kErrorTooManyOpenFiles);
    }
    linux_backend::slotInUse[slot] = true;
    linux_backend::openNodes[slot] = DeviceNode{fd, driveLockFd};
    return &linux_backend::openNodes[slot];
}

BOOL CloseHandle(HANDLE object) {
    DeviceNode* node = linux_backend::device_node_from_handle(object);
    if (node == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    linux_backend::slotInUse[node - linux_backend::openNodes] = false;
    // Closing the descriptors releases the locks; a failing close of a node that sent its
    // last command already changes nothing for the drive.
    if (node->driveLockFd >= 0) {
        close(node->driveLockFd);
    }
    close(node->fd);
    *node = DeviceNode{-1, -1};
    return 1;
}

} // namespace win32
