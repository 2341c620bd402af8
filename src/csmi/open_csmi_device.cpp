#include <cstring>
#include <ostream>

#include "csmi/csmi.hpp"
#include "platform/console.hpp"

const wchar_t kScsiPortPrefix[] = L"\\\\.\\SCSI";

namespace {

bool populated(const CSMI_SAS_PHY_ENTITY& phy) {
    return phy.Identify.bDeviceType != 0 && phy.Attached.bDeviceType != 0;
}

bool drive_protocol(std::uint8_t protocol) {
    return protocol == CSMI_SAS_PROTOCOL_SATA || protocol == CSMI_SAS_PROTOCOL_STP ||
           protocol == CSMI_SAS_PROTOCOL_SSP;
}

} // namespace

Status open_csmi_device(DeviceContext& context, const wchar_t* devicePath, std::int32_t& phyNumber,
                        const std::uint8_t (&sasAddress)[8]) {
    // Shared: the controller's port serves every drive behind it, and its driver stays in use.
    context.handle =
        win32::CreateFileW(devicePath, GENERIC_READ | GENERIC_WRITE,
                           FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    context.lastError = win32::GetLastError();
    if (context.handle == INVALID_HANDLE_VALUE) {
        const console::Message message(console::Severity::Error);
        console::wout() << L"Error: Opening Device " << devicePath << console::wendl;
        return Status::Failed;
    }

    CSMI_SAS_PHY_INFO_BUFFER phyInfo;
    std::memset(&phyInfo, 0, sizeof phyInfo);
    fill_csmi_header(phyInfo.IoctlHeader, kCsmiSasSignature, kCsmiTimeoutSeconds,
                     CC_CSMI_SAS_GET_PHY_INFO, sizeof phyInfo);
    if (!send_csmi_request(context.handle, &phyInfo, sizeof phyInfo)) {
        const console::Message message(console::Severity::Error);
        console::wout() << L"Could not get CSMI phy information for " << devicePath
                        << console::wendl;
        return Status::Failed;
    }

    // /l: the typed address goes out as it is, on phy 0 of port 0 unless an entry was kept.
    if (context.optionL != 0) {
        constexpr std::size_t identifyAddress =
            offsetof(CSMI_SAS_PHY_ENTITY, Identify) + offsetof(CSMI_SAS_IDENTIFY, bSASAddress);
        constexpr std::size_t attachedAddress =
            offsetof(CSMI_SAS_PHY_ENTITY, Attached) + offsetof(CSMI_SAS_IDENTIFY, bSASAddress);
        std::memcpy(context.phyEntity + attachedAddress, sasAddress, sizeof sasAddress);
        std::memcpy(context.phyEntity + identifyAddress, sasAddress, sizeof sasAddress);
        return Status::Success;
    }

    const CSMI_SAS_PHY_ENTITY* const table = phyInfo.Information.Phy;
    std::ostream& out = console::out();
    if (phyNumber < 0) {
        // A wide port shows one address on several phys: the last of them is taken.
        bool matched = false;
        for (std::int32_t i = 0; i < static_cast<std::int32_t>(kCsmiMaxPhys); ++i) {
            const CSMI_SAS_PHY_ENTITY& phy = table[i];
            if (populated(phy) && drive_protocol(phy.Attached.bTargetPortProtocol) &&
                std::memcmp(phy.Attached.bSASAddress, sasAddress, sizeof sasAddress) == 0) {
                matched = true;
                phyNumber = i;
                if (context.verbose >= 1) {
                    out << "SAS Address for Phy: " << std::dec << i << " match." << std::endl
                        << std::endl;
                }
            }
        }
        if (!matched) {
            const console::Message message(console::Severity::Error);
            out << "Device Opened but SAS Address does not match any attached phy " << std::endl;
            return Status::Failed;
        }
    }

    // The table has 32 entries: a phy number beyond it names no entry at all.
    if (phyNumber < 0 || phyNumber >= static_cast<std::int32_t>(kCsmiMaxPhys) ||
        !populated(table[phyNumber])) {
        const console::Message message(console::Severity::Error);
        out << "Device Opened but Phy " << std::dec << phyNumber << " not valid." << std::endl;
        return Status::Failed;
    }
    const CSMI_SAS_PHY_ENTITY& phy = table[phyNumber];

    const unsigned protocol = phy.Attached.bTargetPortProtocol;
    switch (protocol) {
    case CSMI_SAS_PROTOCOL_SATA:
        if (context.verbose >= 1) {
            out << "CSMI_SAS_PROTOCOL_SATA supported for Phy: " << std::dec << phyNumber
                << std::endl
                << std::endl;
        }
        break;
    case CSMI_SAS_PROTOCOL_STP:
        if (context.verbose >= 1) {
            out << "CSMI_SAS_PROTOCOL_STP supported for Phy: " << std::dec << phyNumber << std::endl
                << std::endl;
        }
        break;
    case CSMI_SAS_PROTOCOL_SSP:
        // A SAS drive takes no ATA commands.
        if (context.verbose >= 1) {
            out << "CSMI_SAS_PROTOCOL_SSP supported for Phy: " << std::dec << phyNumber
                << std::endl;
        }
        return Status::Failed;
    default: {
        const console::Message message(console::Severity::Error);
        out << "Uknown Protocol " << std::dec << protocol << " for Phy: " << phyNumber << std::endl;
        return Status::Failed;
    }
    }

    std::memcpy(context.phyEntity, &phy, sizeof phy);
    return Status::Success;
}
