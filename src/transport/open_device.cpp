#include <ostream>

#include "platform/console.hpp"
#include "transport/transport.hpp"

Status open_device(DeviceContext& context, const wchar_t* devicePath) {
    // Share mode 0: no other program may work on the drive while its firmware changes.
    win32::SetLastError(0);
    context.handle = win32::CreateFileW(devicePath, GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                        OPEN_EXISTING, 0, nullptr);
    context.lastError = win32::GetLastError();

    if (context.handle == INVALID_HANDLE_VALUE) {
        if (context.verbose == 0) {
            return Status::NoDevice;
        }
        const console::Message message(console::Severity::Error);
        if (context.lastError == ERROR_ACCESS_DENIED) {
            console::out() << "CreateFileW Failed due to ACCESS DENIED error." << std::endl;
            console::out() << "Admin mode is required for this tool to perform." << std::endl;
        } else {
            console::out() << "CreateFileW INVALID_HANDLE_VALUE Error: " << context.lastError;
        }
        return Status::NoDevice;
    }

    // IOCTL_SCSI_GET_ADDRESS writes the SCSI_ADDRESS record in place into the context.
    context.scsiAddressLength = sizeof(win32::SCSI_ADDRESS);
    win32::SetLastError(0);
    win32::DWORD bytesReturned = 0;
    if (win32::DeviceIoControl(context.handle, IOCTL_SCSI_GET_ADDRESS, nullptr, 0,
                               &context.scsiAddressLength, sizeof(win32::SCSI_ADDRESS),
                               &bytesReturned, nullptr)) {
        return Status::Success;
    }
    context.lastError = win32::GetLastError();
    if (context.verbose != 0) {
        const console::Message message(console::Severity::Error);
        console::out() << "DeviceIoControl for IOCTL_SCSI_GET_ADDRESS Error: " << context.lastError;
    }
    return Status::NoDevice;
}
