#include "platform/linux/scsi_address.hpp"

#include <scsi/scsi.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstring>

#include "platform/linux/win32_error.hpp"

namespace linux_backend {

win32::DWORD query_scsi_address(int fd, void* out, win32::DWORD outSize,
                                win32::DWORD& bytesReturned) {
    if (out == nullptr || outSize < sizeof(win32::SCSI_ADDRESS)) {
        return kErrorInsufficientBuffer;
    }
    win32::SCSI_ADDRESS address{};
    address.Length = sizeof address;

    // sg nodes answer SG_GET_SCSI_ID; sd and sr nodes only the older SCSI_IOCTL_GET_IDLUN,
    // which packs the four numbers into one word, a byte each.
    sg_scsi_id id{};
    if (ioctl(fd, SG_GET_SCSI_ID, &id) == 0) {
        address.PortNumber = static_cast<win32::UCHAR>(id.host_no);
        address.PathId = static_cast<win32::UCHAR>(id.channel);
        address.TargetId = static_cast<win32::UCHAR>(id.scsi_id);
        address.Lun = static_cast<win32::UCHAR>(id.lun);
    } else {
        struct {
            int deviceId;
            int hostUniqueId;
        } idLun{};
        if (ioctl(fd, SCSI_IOCTL_GET_IDLUN, &idLun) != 0) {
            return win32_error_from_io_errno(errno);
        }
        const auto packed = static_cast<unsigned int>(idLun.deviceId);
        address.TargetId = static_cast<win32::UCHAR>(packed & 0xFF);
        address.Lun = static_cast<win32::UCHAR>((packed >> 8) & 0xFF);
        address.PathId = static_cast<win32::UCHAR>((packed >> 16) & 0xFF);
        address.PortNumber = static_cast<win32::UCHAR>((packed >> 24) & 0xFF);
    }
    std::memcpy(out, &address, sizeof address);
    bytesReturned = sizeof address;
    return ERROR_SUCCESS;
}

} // namespace linux_backend
