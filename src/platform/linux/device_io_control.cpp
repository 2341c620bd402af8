// DeviceIoControl on a device node: the control codes the program sends to a drive.
#include "platform/linux/adapter_descriptor.hpp"
#include "platform/linux/device_node.hpp"
#include "platform/linux/scsi_address.hpp"
#include "platform/linux/sg_ata_pass_through.hpp"
#include "platform/linux/sg_scsi_pass_through.hpp"

namespace win32 {

BOOL DeviceIoControl(HANDLE device, DWORD ioControlCode, void* inBuffer, DWORD inBufferSize,
                     void* outBuffer, DWORD outBufferSize, DWORD* bytesReturned, void* overlapped) {
    DWORD returned = 0;
    DWORD error = ERROR_SUCCESS;
    const linux_backend::DeviceNode* node = linux_backend::device_node_from_handle(device);
    if (node == nullptr) {
        error = ERROR_INVALID_HANDLE;
    } else if (overlapped != nullptr) {
        // Every command here completes before the call returns.
        error = ERROR_INVALID_PARAMETER;
    } else {
        switch (ioControlCode) {
        case IOCTL_SCSI_GET_ADDRESS:
            error = linux_backend::query_scsi_address(node->fd, outBuffer, outBufferSize, returned);
            break;
        case IOCTL_SCSI_PASS_THROUGH_DIRECT:
            error = linux_backend::sg_scsi_pass_through(node->fd, inBuffer, inBufferSize, outBuffer,
                                                        outBufferSize, returned);
            break;
        case IOCTL_STORAGE_QUERY_PROPERTY:
            error = linux_backend::query_adapter_descriptor(node->fd, inBuffer, inBufferSize,
                                                            outBuffer, outBufferSize, returned);
            break;
        case IOCTL_ATA_PASS_THROUGH_DIRECT:
            error = linux_backend::sg_ata_pass_through(node->fd, inBuffer, inBufferSize, outBuffer,
                                                       outBufferSize, returned);
            break;
        default:
            // IOCTL_SCSI_MINIPORT among them: no CSMI driver exists behind a Linux device node.
            error = ERROR_INVALID_FUNCTION;
            break;
        }
    }
    if (bytesReturned != nullptr) {
        *bytesReturned = error == ERROR_SUCCESS ? returned : 0;
    }
    if (error != ERROR_SUCCESS) {
        SetLastError(error);
        return 0;
    }
    return 1;
}

} // namespace win32
