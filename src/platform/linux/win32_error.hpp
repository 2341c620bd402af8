// Linux failures as the Windows error codes the program tests: errno of open and ioctl, and the
// host and driver status of an SG_IO that the kernel carried out but the transport did not.
#pragma once

#include <cstdint>

#include "platform/win32.hpp"

namespace linux_backend {

// Windows error codes the seam's header does not name.
constexpr win32::DWORD kErrorTooManyOpenFiles = 4;
constexpr win32::DWORD kErrorWriteProtect = 19;
constexpr win32::DWORD kErrorNotReady = 21;
constexpr win32::DWORD kErrorDevNotExist = 55;
constexpr win32::DWORD kErrorInsufficientBuffer = 122;
constexpr win32::DWORD kErrorInvalidName = 123;
constexpr win32::DWORD kErrorFilenameExcedRange = 206;

// For opening a node: a node without a device behind it (ENXIO, ENODEV) is a drive that is not
// there, and EBUSY is another holder of the drive.
win32::DWORD win32_error_from_open_errno(int error);

// For an ioctl on an open node: the device went away (ENXIO, ENODEV) or is busy for the moment.
win32::DWORD win32_error_from_io_errno(int error);

// An SG_IO that returned 0 whose host or driver status says the command did not complete
// normally; 0 when only the SCSI status and sense data (if any) describe the outcome.
win32::DWORD win32_error_from_sg_status(std::uint16_t hostStatus, std::uint16_t driverStatus);

} // namespace linux_backend
