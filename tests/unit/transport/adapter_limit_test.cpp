// The screen that keeps a download from sending a data phase the adapter cannot carry, with the
// limit as the storage driver reports it.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <unistd.h>

#include "app/download_screens.hpp"
#include "transport/transport.hpp"
#include "unit/support/console_capture.hpp"
#include "unit/support/sim_drive.hpp"

namespace {

DeviceContext open_disk(const std::string& diskKeys) {
    return open_sim_drive(R"({"drives": [{"id": "d0"}],
      "disks": [{"path": "\\\\.\\PhysicalDrive0", "drive": "d0")" +
                          (diskKeys.empty() ? "" : ", " + diskKeys) + "}]}");
}

class ScreenTransferLimit : public testing::Test {
protected:
    void SetUp() override {
        path_ = std::filesystem::temp_directory_path() /
                ("quenmark-limit-" + std::to_string(::getpid()) + ".bin");
        std::ofstream(path_, std::ios::binary) << std::string(100000, 'x');
        options_ = make_run_options();
        const std::wstring wide = path_.wstring();
        wide.copy(options_.request.fileName, wide.size());
    }
    void TearDown() override { std::filesystem::remove(path_); }

    std::filesystem::path path_;
    RunOptions options_;
};

TEST_F(ScreenTransferLimit, NamesTheDataPhaseTheLimitAndTheSegmentSizeThatFits) {
    struct Case {
        const char* disk;
        std::uint8_t mode;
        std::uint8_t segmentBlocks;
        Status status;
        std::string line;
    };
    const Case cases[] = {
        // The image is smaller than one segment: the remainder alone is its data phase.
        {R"("maxTransferBytes": 65536)", kModeSegmented, 255, Status::BadFirmwareFile,
         "Transfer too large for the adapter: one data phase of 100000 bytes, the adapter carries "
         "at most 65536; use /s or /e with /g 128 or less. No firmware command was sent.\n"},
        {R"("maxTransferBytes": 65536, "maxPhysicalPages": 1)", kModeDeferred, 1,
         Status::BadFirmwareFile,
         "Transfer too large for the adapter: one data phase of 512 bytes, the adapter carries at "
         "most 0; not even one block of 512 bytes fits. No firmware command was sent.\n"},
        {R"("maxTransferBytes": 100000)", kModeImmediate, 64, Status::Success, ""},
        {R"("maxTransferBytes": 65536)", kModeDeferred, 128, Status::Success, ""},
    };
    for (const Case& c : cases) {
        DeviceContext context = open_disk(c.disk);
        context.interfaceKind |= DownloadRequested;
        options_.request.downloadMode = c.mode;
        options_.request.segmentBlocks = c.segmentBlocks;
        ConsoleCapture output;
        AdapterLimit limit{};
        EXPECT_EQ(screen_transfer_limit(context, options_, limit), c.status) << c.disk;
        EXPECT_EQ(output.err, c.line) << c.disk;
        EXPECT_EQ(output.out, "") << c.disk;
    }
}

} // namespace
