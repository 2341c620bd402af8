#include <cstring>

#include "csmi/csmi_requests.hpp"

void fill_csmi_header(win32::SRB_IO_CONTROL& header, const char (&signature)[8],
                      win32::ULONG timeoutSeconds, win32::ULONG controlCode,
                      std::size_t bufferBytes) {
    header.HeaderLength = sizeof(win32::SRB_IO_CONTROL);
    std::memcpy(header.Signature, signature, sizeof header.Signature);
    header.Timeout = timeoutSeconds;
    header.ControlCode = controlCode;
    header.ReturnCode = 0;
    header.Length = static_cast<win32::ULONG>(bufferBytes - sizeof(win32::SRB_IO_CONTROL));
}

bool send_csmi_request(win32::HANDLE port, void* buffer, std::size_t bufferBytes) {
    // The miniport answers in place: one buffer, its size as both lengths.
    const auto bytes = static_cast<win32::DWORD>(bufferBytes);
    win32::DWORD bytesReturned = 0;
    return win32::DeviceIoControl(port, IOCTL_SCSI_MINIPORT, buffer, bytes, buffer, bytes,
                                  &bytesReturned, nullptr) != 0;
}

CSMI_SAS_PHY_ENTITY phy_entity_from_bytes(const std::uint8_t* bytes) {
    CSMI_SAS_PHY_ENTITY entity;
    std::memcpy(&entity, bytes, sizeof entity);
    return entity;
}
