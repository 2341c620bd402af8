#include "platform/linux/win32_error.hpp"

#include <cerrno>

namespace linux_backend {
namespace {

// The SCSI midlayer's host byte (DID_*) and driver byte (DRIVER_*) values.
constexpr std::uint16_t kDidOk = 0x00;
constexpr std::uint16_t kDidNoConnect = 0x01;
constexpr std::uint16_t kDidBusBusy = 0x02;
constexpr std::uint16_t kDidTimeOut = 0x03;
constexpr std::uint16_t kDidBadTarget = 0x04;
constexpr std::uint16_t kDidRequeue = 0x0D;
constexpr std::uint16_t kDidImmRetry = 0x0C;
constexpr std::uint16_t kDidTransportDisrupted = 0x0E;
constexpr std::uint16_t kDriverByteMask = 0x0F;
constexpr std::uint16_t kDriverTimeout = 0x06;
constexpr std::uint16_t kDriverSense = 0x08;

} // namespace

win32::DWORD win32_error_from_open_errno(int error) {
    switch (error) {
    case ENOENT:
    case ENXIO:
    case ENODEV:
        return ERROR_FILE_NOT_FOUND;
    case ENOTDIR:
    case ELOOP:
        return ERROR_PATH_NOT_FOUND;
    case EACCES:
    case EPERM:
        return ERROR_ACCESS_DENIED;
    case EBADF:
        return ERROR_INVALID_HANDLE;
    case ENOMEM:
        return ERROR_NOT_ENOUGH_MEMORY;
    case EMFILE:
    case ENFILE:
        return kErrorTooManyOpenFiles;
    case EROFS:
        return kErrorWriteProtect;
    case ENOMEDIUM:
        return kErrorNotReady;
    case EBUSY:
    case ETXTBSY:
        return ERROR_SHARING_VIOLATION;
    case ENOTTY:
    case ENOSYS:
    case EOPNOTSUPP:
        return ERROR_INVALID_FUNCTION;
    case EINVAL:
    case EFAULT:
        return ERROR_INVALID_PARAMETER;
    case ENAMETOOLONG:
        return kErrorFilenameExcedRange;
    case ETIMEDOUT:
        return ERROR_SEM_TIMEOUT;
    case EAGAIN:
        return ERROR_BUSY;
    case EIO:
        return ERROR_IO_DEVICE;
    default:
        return ERROR_GEN_FAILURE;
    }
}

win32::DWORD win32_error_from_io_errno(int error) {
    switch (error) {
    case ENXIO:
    case ENODEV:
        return kErrorDevNotExist;
    case EBUSY:
        return ERROR_BUSY;
    default:
        return win32_error_from_open_errno(error);
    }
}

win32::DWORD win32_error_from_sg_status(std::uint16_t hostStatus, std::uint16_t driverStatus) {
    switch (hostStatus) {
    case kDidOk:
        break;
    case kDidTimeOut:
        return ERROR_SEM_TIMEOUT;
    case kDidNoConnect:
    case kDidBadTarget:
        return kErrorDevNotExist;
    case kDidBusBusy:
    case kDidImmRetry:
    case kDidRequeue:
    case kDidTransportDisrupted:
        return ERROR_BUSY;
    default:
        return ERROR_IO_DEVICE;
    }
    switch (driverStatus & kDriverByteMask) {
    case 0:
    case kDriverSense:
        return ERROR_SUCCESS;
    case kDriverTimeout:
        return ERROR_SEM_TIMEOUT;
    default:
        return ERROR_IO_DEVICE;
    }
}

} // namespace linux_backend
