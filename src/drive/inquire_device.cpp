#include <cstring>

#include "drive/inquire_device.hpp"
#include "transport/scsi_pass_through_request.hpp"
#include "transport/transport.hpp"

namespace {
constexpr std::uint8_t kInquiryBytes = 252;
constexpr std::uint8_t kUnitSerialNumberPage = 0x80;
constexpr std::size_t kSerialNumberLimit = 20;
} // namespace

void inquire_device(DeviceContext& context, DriveInfo& driveInfo) {
    std::uint8_t data[kInquiryBytes] = {};
    ScsiPassThroughRequest request;
    std::memset(&request, 0, sizeof request);
    context.dataDirection = DataIn;
    context.transferLength = kInquiryBytes;
    context.dataBuffer = data;

    win32::SCSI_PASS_THROUGH_DIRECT& sptd = request.header;
    sptd.Length = sizeof(win32::SCSI_PASS_THROUGH_DIRECT);
    sptd.PathId = context.pathId;
    sptd.TargetId = context.targetId;
    sptd.Lun = context.lun;
    sptd.CdbLength = 6;
    sptd.SenseInfoLength = kSenseInfoLength;
    sptd.DataIn = SCSI_IOCTL_DATA_IN;
    sptd.DataTransferLength = kInquiryBytes;
    sptd.TimeOutValue =
        context.timeoutSeconds != 0 ? context.timeoutSeconds : kDefaultTimeoutSeconds;
    sptd.DataBuffer = data;
    sptd.SenseInfoOffset = offsetof(ScsiPassThroughRequest, sense);
    const std::uint8_t standardInquiry[6] = {0x12, 0x00, 0x00, 0x00, kInquiryBytes, 0x00};
    std::memcpy(sptd.Cdb, standardInquiry, sizeof standardInquiry);

    win32::SetLastError(0);
    win32::DWORD bytesReturned = 0;
    const win32::BOOL sent =
        win32::DeviceIoControl(context.handle, IOCTL_SCSI_PASS_THROUGH_DIRECT, &request,
                               sizeof request, &request, sizeof request, &bytesReturned, nullptr);
    context.lastError = win32::GetLastError();
    if (!sent) {
        return;
    }
    // The texts keep their padding: identification replaces them with trimmed ones.
    const char* text = reinterpret_cast<const char*>(data);
    driveInfo.vendorName.assign(text + 8, 8);
    driveInfo.modelNumber.assign(text + 16, 16);
    driveInfo.firmwareRevision.assign(text + 32, 4);

    // The second request reuses the record as the driver returned it; only the CDB changes.
    // Whatever the driver wrote back, the request must not describe memory beyond this probe's
    // own data buffer and sense area.
    std::memset(data, 0, sizeof data);
    const std::uint8_t serialPage[5] = {0x12, 0x01, kUnitSerialNumberPage, 0x00, kInquiryBytes};
    std::memcpy(sptd.Cdb, serialPage, sizeof serialPage);
    sptd.DataBuffer = data;
    if (sptd.DataTransferLength > kInquiryBytes) {
        sptd.DataTransferLength = kInquiryBytes;
    }
    sptd.SenseInfoOffset = offsetof(ScsiPassThroughRequest, sense);
    if (!win32::DeviceIoControl(context.handle, IOCTL_SCSI_PASS_THROUGH_DIRECT, &request,
                                sizeof request, &request, sizeof request, &bytesReturned,
                                nullptr)) {
        return;
    }
    std::size_t pageLength = static_cast<std::size_t>(data[2] << 8 | data[3]);
    if (pageLength > kSerialNumberLimit) {
        pageLength = kSerialNumberLimit;
    }
    driveInfo.serialNumber.assign(text + 4, pageLength);
}
