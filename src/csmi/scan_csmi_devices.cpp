#include <algorithm>
#include <cstring>
#include <ostream>
#include <string>

#include "csmi/csmi.hpp"
#include "drive/drive_info.hpp"
#include "drive/identify.hpp"
#include "platform/console.hpp"

namespace {

constexpr int kScanPorts = 15;
constexpr std::uint32_t kScanTimeoutSeconds = 15;
constexpr std::uint8_t kIdentifyDevice = 0xEC;
constexpr char kStars[] = "***********************************************";
constexpr char kRule[] = "===============================================";

struct ScanCounters {
    int opened = 0;
    int controllers = 0;
    int devices = 0;
};

// Driver names are fixed 81-byte fields: text up to the first NUL, never past the field.
template <std::size_t N>
std::string field_text(const std::uint8_t (&field)[N]) {
    const std::uint8_t* end = std::find(field, field + N, std::uint8_t{0});
    return std::string(reinterpret_cast<const char*>(field), static_cast<std::size_t>(end - field));
}

// The operating system's last error decides, not the call's result or ReturnCode: some
// drivers complete a refused CSMI request as a success with the error set.
bool request_answered(win32::HANDLE port, void* buffer, std::size_t bytes) {
    send_csmi_request(port, buffer, bytes);
    return win32::GetLastError() == 0;
}

void print_sas_address_digits(const std::uint8_t (&address)[8]) {
    for (const std::uint8_t byte : address) {
        console::printf("%02x", byte);
    }
}

void print_phy_entry(const CSMI_SAS_PHY_ENTITY& phy) {
    console::printf("\n\tbPortIdentifier: 0x%02x\n", phy.bPortIdentifier);
    console::printf("\tbNegotiatedLinkRate: 0x%02x\n", phy.bNegotiatedLinkRate);
    console::printf("\tbMinimumLinkRate: 0x%02x\n", phy.bMinimumLinkRate);
    console::printf("\tbMaximumLinkRate: 0x%02x\n", phy.bMaximumLinkRate);
    console::printf("\tbPhyChangeCount: 0x%02x\n", phy.bPhyChangeCount);
    console::printf("\tbAutoDiscover: 0x%02x\n", phy.bAutoDiscover);
    console::printf("\tbPhyFeatures: 0x%02x\n", phy.bPhyFeatures);
    console::printf("\tATTACHED:\n");
    dump_sas_identify(phy.Attached);
    console::printf("\tIDENTIFY:\n");
    dump_sas_identify(phy.Identify);
}

void print_controller_config(const std::wstring& path, const CSMI_SAS_CNTLR_CONFIG& config) {
    std::ostream& out = console::out();
    out << std::endl << kStars << std::endl;
    out << "\t";
    console::wout() << path << console::wendl;
    out << "\tBoardID: " << std::dec << config.uBoardID << std::endl;
    out << "\tControllerFlags: " << config.uControllerFlags << std::endl;
}

void print_driver_info(const std::wstring& path, const CSMI_SAS_DRIVER_INFO& info) {
    std::ostream& out = console::out();
    out << std::endl << kStars << std::endl;
    out << "\t";
    console::wout() << path << console::wendl;
    out << "\tDriver: " << field_text(info.szName) << std::endl;
    out << "\tDescription: " << field_text(info.szDescription) << std::endl;
    out << "\tVersion: " << std::dec << info.usMajorRevision << "." << info.usMinorRevision
        << std::endl;
    out << "\tCSMI Version: " << info.usCSMIMajorRevision << "." << info.usCSMIMinorRevision
        << std::endl;
    out << "\tRelease: " << info.usReleaseRevision << std::endl;
}

// IDENTIFY DEVICE through the STP pass-through to the phy in context.phyEntity; prints the
// drive's block, counts it and keeps it when the drive answers.
void identify_phy(DeviceContext& context, int port, int phyIndex, const CSMI_SAS_PHY_ENTITY& phy,
                  const std::uint8_t* identify, ScanCounters& counters, ScannedController& found) {
    std::ostream& out = console::out();
    if (issue_stp_passthru(context) != Status::Success) {
        if (context.verbose >= 1) {
            const console::Message message(console::Severity::Error);
            console::printf(
                "\tCSMI:%d:%d STP command FAILED with GetLastError %d to Phy[%d] Port[%d]\n\n",
                port, phyIndex, static_cast<int>(context.lastError), phy.Identify.bPhyIdentifier,
                phy.bPortIdentifier);
        }
        return;
    }
    const std::string serialNumber = ata_string_to_text(identify + 20, 20);
    const std::string modelNumber = ata_string_to_text(identify + 54, 40);
    const std::string firmwareRevision = ata_string_to_text(identify + 46, 8);
    if (context.verbose >= 1) {
        const auto securityWord = static_cast<std::uint16_t>(identify[256] | identify[257] << 8);
        const char* label = security_state_label(security_state_from_word(securityWord));
        out << "\tDrive Serial Number: " << serialNumber << std::endl;
        out << "\tDrive Model Number: " << modelNumber << std::endl;
        out << "\tDrive Firmware Rev: " << firmwareRevision << std::endl << std::endl;
        out << "\tATA Security Word: 0x" << std::hex << std::nouppercase << securityWord << std::dec
            << std::endl;
        out << "\tATA Security State: " << (label != nullptr ? label : "") << std::endl;
    }
    console::wout() << kScsiPortPrefix;
    out << std::dec << port << ":" << phyIndex << " # " << serialNumber << "," << modelNumber << ","
        << firmwareRevision << std::endl;
    console::printf("SAS Address (Attached): ");
    print_sas_address_digits(phy.Attached.bSASAddress);
    console::printf("\n");
    console::printf("SAS Address (Identify): ");
    print_sas_address_digits(phy.Identify.bSASAddress);
    console::printf("\n\n");
    ++counters.devices;
    ScannedDrive drive{phyIndex, {}, {}, modelNumber, serialNumber, firmwareRevision};
    std::memcpy(drive.attachedSasAddress, phy.Attached.bSASAddress, 8);
    std::memcpy(drive.identifySasAddress, phy.Identify.bSASAddress, 8);
    found.drives.push_back(drive);
}

void scan_phys(DeviceContext& context, int port, const CSMI_SAS_PHY_INFO& phyInfo,
               const std::uint8_t* identify, ScanCounters& counters, ScannedController& found) {
    std::ostream& out = console::out();
    const bool verbose = context.verbose >= 1;
    // Every entry of the table, whatever bNumberOfPhys claims: drivers count differently.
    for (int i = 0; i < static_cast<int>(kCsmiMaxPhys); ++i) {
        const CSMI_SAS_PHY_ENTITY& phy = phyInfo.Phy[i];
        std::memcpy(context.phyEntity, &phy, sizeof phy);
        if (verbose) {
            console::printf("Phy %d ", i);
        }
        if (phy.Identify.bDeviceType == 0) {
            if (verbose) {
                out << "Skipping...nothing identified\n";
            }
            continue;
        }
        if (phy.Attached.bDeviceType == 0) {
            if (verbose) {
                out << "Skipping...nothing attached\n";
            }
            continue;
        }
        if (verbose) {
            print_phy_entry(phy);
        }
        const unsigned protocol = phy.Attached.bTargetPortProtocol;
        switch (protocol) {
        case CSMI_SAS_PROTOCOL_SATA:
            if (verbose) {
                out << "\tCSMI_SAS_PROTOCOL_SATA supported for Phy: " << std::dec << i;
                console::printf(" 0x%x\n", protocol);
                out << "\tCSMI_SAS_PROTOCOL_STP supported for Phy: " << i << std::endl << std::endl;
            }
            break;
        case CSMI_SAS_PROTOCOL_STP:
            if (verbose) {
                out << "\tCSMI_SAS_PROTOCOL_STP supported for Phy: " << std::dec << i << std::endl
                    << std::endl;
            }
            break;
        case CSMI_SAS_PROTOCOL_SSP: {
            if (verbose) {
                out << "CSMI_SAS_PROTOCOL_SSP supported for Phy: " << std::dec << i << std::endl;
            }
            std::uint32_t error = 0;
            if (!send_ssp_inquiry(context.handle, phy, error)) {
                const console::Message message(console::Severity::Error);
                console::printf("SSP command FAILED with GetLastError %d\n",
                                static_cast<int>(error));
            }
            continue;
        }
        default: {
            const console::Message message(console::Severity::Error);
            out << "Uknown Protocol " << std::dec << protocol << " for Phy: " << i
                << " so skipping. " << std::endl;
            continue;
        }
        }
        identify_phy(context, port, i, phy, identify, counters, found);
    }
}

void scan_port(DeviceContext& context, int port, const std::uint8_t* identify,
               ScanCounters& counters, ScanRecord& record) {
    std::ostream& out = console::out();
    const bool verbose = context.verbose >= 1;
    const std::wstring path = kScsiPortPrefix + std::to_wstring(port) + L":";

    const win32::HANDLE handle =
        win32::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE,
                           FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    win32::GetLastError();
    if (handle == INVALID_HANDLE_VALUE) {
        if (verbose) {
            console::wout() << path << L"...NOT FOUND\n";
        }
        return;
    }
    if (verbose) {
        console::wout() << path << L"...FOUND\n";
    }
    ++counters.opened;

    CSMI_SAS_CNTLR_CONFIG_BUFFER config;
    std::memset(&config, 0, sizeof config);
    fill_csmi_header(config.IoctlHeader, kCsmiAllSignature, kCsmiTimeoutSeconds,
                     CC_CSMI_SAS_GET_CNTLR_CONFIG, sizeof config);
    if (request_answered(handle, &config, sizeof config)) {
        if (verbose) {
            print_controller_config(path, config.Configuration);
        }
    } else if (verbose) {
        const console::Message message(console::Severity::Error);
        out << "Getting CSMI CNTLR info failed. ";
        console::wout() << path << console::wendl;
        out << std::endl;
    }

    CSMI_SAS_DRIVER_INFO_BUFFER driverInfo;
    std::memset(&driverInfo, 0, sizeof driverInfo);
    fill_csmi_header(driverInfo.IoctlHeader, kCsmiAllSignature, kCsmiTimeoutSeconds,
                     CC_CSMI_SAS_GET_DRIVER_INFO, sizeof driverInfo);
    if (!request_answered(handle, &driverInfo, sizeof driverInfo)) {
        if (verbose) {
            const console::Message message(console::Severity::Error);
            out << "Getting CSMI Driver info failed. ";
            console::wout() << path << console::wendl;
            out << std::endl;
        }
        win32::CloseHandle(handle);
        return;
    }
    if (verbose) {
        print_driver_info(path, driverInfo.Information);
    }
    ++counters.controllers;
    record.controllers.push_back(ScannedController{port,
                                                   field_text(driverInfo.Information.szName),
                                                   field_text(driverInfo.Information.szDescription),
                                                   {}});

    // A refused phy table leaves the cleared buffer: no phy is populated.
    CSMI_SAS_PHY_INFO_BUFFER phyInfo;
    std::memset(&phyInfo, 0, sizeof phyInfo);
    fill_csmi_header(phyInfo.IoctlHeader, kCsmiSasSignature, kCsmiTimeoutSeconds,
                     CC_CSMI_SAS_GET_PHY_INFO, sizeof phyInfo);
    send_csmi_request(handle, &phyInfo, sizeof phyInfo);
    context.handle = handle;
    if (verbose) {
        console::printf("\n\tTotal Number of Phys: %d\n\n", phyInfo.Information.bNumberOfPhys);
    }
    scan_phys(context, port, phyInfo.Information, identify, counters, record.controllers.back());
    win32::CloseHandle(handle);
}

} // namespace

int scan_csmi_devices(std::int32_t verbose, ScanRecord& record) {
    std::uint8_t identify[512] = {};
    DeviceContext context;
    std::memset(&context, 0, sizeof context);
    context.dataDirection = DataIn;
    context.dataBuffer = identify;
    context.transferLength = sizeof identify;
    context.timeoutSeconds = kScanTimeoutSeconds;
    context.verbose = verbose;
    context.commandWidth = Ata28;
    context.registers.count = 1;
    context.registers.command = kIdentifyDevice;

    std::ostream& out = console::out();
    out << "\tScanning for CSMI Devices\n" << std::endl;

    ScanCounters counters;
    for (int port = 0; port < kScanPorts; ++port) {
        scan_port(context, port, identify, counters, record);
    }

    if (verbose >= 1) {
        out << std::endl << kRule << std::endl;
        if (counters.controllers != 0) {
            out << std::endl
                << "Found " << std::dec << counters.controllers << " CSMI Controller(s) "
                << "and " << counters.devices << " CSMI device(s)" << std::endl
                << std::endl;
        } else {
            out << std::endl
                << "Tested " << std::dec << counters.opened
                << " valid controller(s) but didn't find any CSMI devices" << std::endl
                << std::endl;
        }
    }
    out << "To Scan the system for Physical Devices please use the following:\n\t wmic diskdrive "
           "get DeviceID,model,FirmwareRevision,InterfaceType"
        << std::endl
        << std::endl;
    return 0;
}
