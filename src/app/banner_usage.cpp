#include <cstring>
#include <ostream>
#include <string>

#include "app/command_line.hpp"
#include "platform/console.hpp"

namespace {

const char* const kRule =
    "==========================================================================";
const char* const kTableRule =
    "-------------------------------------------------------------------------";

// The compiler's date pads a day below 10 with a blank ("Sep  4 2016"); the banner shows
// "Sep 4 2016".
std::string build_date() {
    std::string date = __DATE__;
    const std::size_t padded = date.find("  ");
    if (padded != std::string::npos) {
        date.erase(padded, 1);
    }
    return date;
}

} // namespace

void print_banner() {
    std::ostream& out = console::out();
    out << kRule << std::endl;
    out << "Tarnvel Utility. Version: " << QUENMARK_VERSION << " Build Date: " << build_date()
        << std::endl;
    out << "Copyright (c) 2016-2026 Tarnvel. All rights reserved." << std::endl;
    out << kRule << std::endl;
}

void print_usage(const char* programName) {
    std::ostream& out = console::out();
    out << std::endl;
    out << "Usage: " << (programName != nullptr ? programName : "")
        << " [prefix]<device> </D:firmware file> [options]" << std::endl;
    out << std::endl;
    out << "Default Interface is SCSI Pass-Through." << std::endl;
    out << "Use prefix /T: to use ATA Pass-Through." << std::endl;
    out << "Use prefix /C: to use CSMI device." << std::endl;
    out << "Use /h option to see this information." << std::endl;
    out << "Use /v option to see verbose debug information." << std::endl;
    out << "Use /i option to print device information." << std::endl;
    out << "SATA Target options:" << std::endl;
    out << "  Use --scan to print CSMI devices in the system" << std::endl;
    out << "  Use /a option to use activate command (0x0F Feature Reg.)" << std::endl;
    out << "  Use /e option to use deferred download (0x0E Feature Reg.)" << std::endl;
    out << "  Use /s option to use segmented download (0x03 Feature Reg.)" << std::endl;
    out << "  Use /r <number> to keep retrying firmware download" << std::endl;
    out << "  Use /g <number> to set segment size." << std::endl;
    out << std::endl;
    out << "Examples:" << std::endl;
    console::WideOut& wout = console::wout();
    wout << L"  Quenmark.exe \\\\.\\PhysicalDrive0 /D:fw.LOD /s " << console::wendl;
    wout << L"  Quenmark.exe /T:\\\\.\\PhysicalDrive1 /D:fw.LOD /e " << console::wendl;
    wout << L"  Quenmark.exe /C:\\\\.\\SCSI3:1 /D:fw.LOD /e /a /v " << console::wendl;
    wout << L"  Quenmark.exe /C:2,0000000500000000 /D:fw.LOD /e /a /v " << console::wendl;
    out << std::endl;
    out << "Return Codes Supported: " << std::endl;
    out << kTableRule << std::endl;
    out << "| Code |         Description                                            |" << std::endl;
    out << kTableRule << std::endl;
    static const char* const rows[] = {
        "|  0   |  Firmware Update succeeded                                     |",
        "|  1   |  Firmware Filed due to device reasons                          |",
        "|  2   |  No Target device found                                        |",
        "|  4   |  Fialed due to invalid / corrupted firmware file               |",
        "|  8   |  Invalid Command Line argument                                 |",
        "|  9   |  Target Device interface not supported                         |",
    };
    for (const char* row : rows) {
        out << row << std::endl;
        out << kTableRule << std::endl;
    }
}
