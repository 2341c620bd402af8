#include "platform/linux/adapter_descriptor.hpp"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>

#include "platform/linux/device_node.hpp"

namespace linux_backend {
namespace {

constexpr win32::DWORD kDescriptorHeaderBytes = 8; // Version and Size
constexpr std::uint64_t kMaxDword = 0xFFFFFFFF;

bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

// A decimal number of a sysfs attribute, or false.
bool read_number(const std::string& path, std::uint64_t& value) {
    std::ifstream file(path);
    unsigned long long number = 0;
    if (!(file >> number)) {
        return false;
    }
    value = number;
    return true;
}

// The sysfs queue folder of the disk a device node reaches: its own for /dev/sda, its parent
// disk's for a partition, the disk's or CD-ROM's of an sg node. Empty when none exists.
std::string queue_folder_of(int fd) {
    struct stat node {};
    if (fstat(fd, &node) != 0) {
        return "";
    }
    const std::string base = sysfs_folder_of(node);
    if (S_ISBLK(node.st_mode)) {
        return exists(base + "/queue") ? base + "/queue" : "";
    }
    if (S_ISCHR(node.st_mode)) {
        // An sg node of a disk or a CD-ROM: its SCSI device lists the block device it carries.
        const std::string blocks = base + "/device/block";
        DIR* folder = opendir(blocks.c_str());
        if (folder == nullptr) {
            return "";
        }
        std::string found;
        while (const dirent* entry = readdir(folder)) {
            if (entry->d_name[0] != '.' && exists(blocks + "/" + entry->d_name + "/queue")) {
                found = blocks + "/" + entry->d_name + "/queue";
                break;
            }
        }
        closedir(folder);
        return found;
    }
    return "";
}

} // namespace

win32::DWORD query_adapter_descriptor(int fd, const void* in, win32::DWORD inSize, void* out,
                                      win32::DWORD outSize, win32::DWORD& bytesReturned) {
    win32::STORAGE_PROPERTY_QUERY query;
    if (in == nullptr || inSize < sizeof query) {
        return ERROR_INVALID_PARAMETER;
    }
    std::memcpy(&query, in, sizeof query);
    if (query.PropertyId != win32::StorageAdapterProperty ||
        query.QueryType != win32::PropertyStandardQuery) {
        return ERROR_NOT_SUPPORTED;
    }
    if (out == nullptr || outSize < kDescriptorHeaderBytes) {
        return ERROR_INVALID_PARAMETER;
    }
    const std::string queue = queue_folder_of(fd);
    std::uint64_t maxKilobytes = 0;
    std::uint64_t maxSegments = 0;
    if (queue.empty() || !read_number(queue + "/max_hw_sectors_kb", maxKilobytes) ||
        !read_number(queue + "/max_segments", maxSegments) || maxKilobytes == 0) {
        return ERROR_INVALID_FUNCTION;
    }

    win32::STORAGE_ADAPTER_DESCRIPTOR descriptor;
    std::memset(&descriptor, 0, sizeof descriptor);
    descriptor.Version = sizeof descriptor;
    descriptor.Size = sizeof descriptor;
    descriptor.MaximumTransferLength =
        static_cast<win32::DWORD>(std::min(maxKilobytes * 1024, kMaxDword));
    descriptor.MaximumPhysicalPages = static_cast<win32::DWORD>(std::min(maxSegments, kMaxDword));
    bytesReturned = std::min<win32::DWORD>(outSize, sizeof descriptor);
    std::memcpy(out, &descriptor, bytesReturned);
    return ERROR_SUCCESS;
}

} // namespace linux_backend
