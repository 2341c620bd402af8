#include "csmi/csmi.hpp"

const wchar_t kScsiPortPrefix[] = L"\\\\.\\SCSI";

Status open_csmi_device(DeviceContext& context, const wchar_t* devicePath, std::int32_t& phyNumber,
                        const std::uint8_t (&sasAddress)[8]) {
    (void)context;
    (void)devicePath;
    (void)phyNumber;
    (void)sasAddress;
    return Status::Failed;
}
