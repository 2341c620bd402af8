#include <cstring>

#include "csmi/csmi.hpp"
#include "platform/console.hpp"

namespace {

constexpr std::uint8_t kInquiry = 0x12;

} // namespace

bool send_ssp_inquiry(win32::HANDLE port, const CSMI_SAS_PHY_ENTITY& phyEntity,
                      std::uint32_t& error) {
    // The INQUIRY data area after the fixed part is cleared too, so that no stale stack bytes
    // cross to the driver.
    alignas(CSMI_SAS_SSP_PASSTHRU_BUFFER) std::uint8_t buffer[kSspRequestBytes] = {};
    CSMI_SAS_SSP_PASSTHRU_BUFFER request;
    std::memset(&request, 0, sizeof request);
    fill_csmi_header(request.IoctlHeader, kCsmiSasSignature, kCsmiTimeoutSeconds,
                     CC_CSMI_SAS_SSP_PASSTHRU, kSspRequestBytes);
    CSMI_SAS_SSP_PASSTHRU& parameters = request.Parameters;
    parameters.bPhyIdentifier = 0;
    parameters.bPortIdentifier = CSMI_SAS_IGNORE_PORT; // the driver routes by address
    parameters.bConnectionRate = CSMI_SAS_LINK_RATE_NEGOTIATED;
    std::memcpy(parameters.bDestinationSASAddress, phyEntity.Attached.bSASAddress,
                sizeof parameters.bDestinationSASAddress);
    parameters.bCDBLength = 6;
    parameters.bCDB[0] = kInquiry;
    parameters.bCDB[4] = static_cast<std::uint8_t>(kSspInquiryDataBytes); // allocation length
    parameters.uFlags = CSMI_SAS_SSP_READ;
    parameters.uDataLength = static_cast<std::uint32_t>(kSspInquiryDataBytes);
    std::memcpy(buffer, &request, offsetof(CSMI_SAS_SSP_PASSTHRU_BUFFER, bDataBuffer));

    console::printf("SAS Address: ");
    for (const std::uint8_t byte : parameters.bDestinationSASAddress) {
        console::printf("0x%02x ", byte);
    }
    console::printf("\n");

    if (!send_csmi_request(port, buffer, sizeof buffer)) {
        error = win32::GetLastError();
        return false;
    }
    return true;
}
