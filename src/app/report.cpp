#include <ostream>

#include "app/report.hpp"
#include "platform/console.hpp"

void print_selection(const RunOptions& options, const DeviceContext& context) {
    console::WideOut& wout = console::wout();
    wout << L"  Device Path: " << options.devicePath;
    if ((context.interfaceKind & Csmi) != 0) {
        wout << options.phyNumber << console::wendl;
        wout << L"  SAS Address:";
        for (std::uint8_t byte : options.sasAddress) {
            console::printf(" %02x", byte);
        }
        console::printf("\n");
    } else {
        wout << console::wendl;
    }
    wout << L"  FileName: " << options.request.fileName << console::wendl;

    std::ostream& out = console::out();
    switch (options.request.downloadMode) {
    case kModeSegmented:
        out << "  Segmented Immediate Mode Selected" << std::endl;
        break;
    case kModeImmediate:
        out << "  Download Immediate Mode Selected" << std::endl;
        break;
    case kModeDeferred:
        out << "  Deferred Mode Selected" << std::endl;
        break;
    default:
        break;
    }
}

void print_drive_report(const DriveInfo& driveInfo, std::uint8_t segmentBlocks) {
    std::ostream& out = console::out();
    out << "  MN: " << driveInfo.modelNumber << std::endl;
    out << "  SN: " << driveInfo.serialNumber << std::endl;
    out << "  FW: " << driveInfo.firmwareRevision << std::endl;
    out << "  ";
    for (const std::string& version : driveInfo.ataVersions) {
        out << version << " ";
    }
    out << std::endl;
    if (driveInfo.dmDmaSupported) {
        out << "  DMA MICROCODE DOWNLOAD SUPPORTED " << std::endl;
    }
    if (driveInfo.dmMode3Supported) {
        out << "  MODE 3 MICROCODE DOWNLOAD SUPPORTED " << std::endl;
    }
    if (driveInfo.dmOffsetsDeferredSupported) {
        out << "  DM OFFSETS DEFERRED SUPPORTED SUPPORTED " << std::endl;
    }
    if (driveInfo.dmClearsNonactivatedDeferredData) {
        out << "  DM CLEARS NONACTIVATED DEFERRED DATA SUPPORTED " << std::endl;
    }
    if (driveInfo.dmMinBlocks != 0) {
        out << "  MICROCODE DOWNLOAD MIN BLOCKS " << driveInfo.dmMinBlocks << std::endl;
    }
    if (driveInfo.dmMaxBlocks != 0) {
        out << "  MICROCODE DOWNLOAD MAX BLOCKS " << driveInfo.dmMaxBlocks << std::endl;
    }
    if (const char* label = security_state_label(driveInfo.securityState)) {
        out << "  " << label;
    }
    out << std::endl;
    console::printf("  Segment Size : %d\n", segmentBlocks);
}
