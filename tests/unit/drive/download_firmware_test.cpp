// A firmware file that no golden transcript can hold: one that reports more bytes than it
// delivers. The commands, plans, progress lines and texts of a download stand in the goldens.
#include "drive/download_firmware.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "sim/machine.hpp"
#include "unit/support/console_capture.hpp"
#include "unit/support/sim_drive.hpp"

namespace {

namespace fs = std::filesystem;

// A sysfs attribute reports a page and holds a line: sent, it would put zeros in as firmware.
TEST(DownloadFirmware, RefusesAFileThatIsNotReadWhole) {
    const fs::path attribute = "/sys/kernel/mm/transparent_hugepage/enabled";
    std::error_code error;
    if (!fs::is_regular_file(attribute, error) || fs::file_size(attribute, error) <= 512) {
        GTEST_SKIP() << "no sysfs attribute that reports more than it holds";
    }
    DeviceContext context = open_sim_drive(R"({"drives": [{"id": "d0"}],
        "disks": [{"path": "\\\\.\\PhysicalDrive0", "drive": "d0"}]})");
    sim::machine().log.clear();
    DownloadRequest request{};
    attribute.wstring().copy(request.fileName, kPathUnits - 1);
    request.downloadMode = 0x07;
    request.segmentBlocks = 64;
    DownloadRecord record{};
    ConsoleCapture capture;
    EXPECT_EQ(download_firmware(context, request, record), Status::BadFirmwareFile);
    EXPECT_EQ(capture.err, "Firmware file could not be read whole: " + attribute.string() + "\n");
    EXPECT_EQ(capture.out, "");
    EXPECT_TRUE(sim::machine().log.empty());
}

} // namespace
