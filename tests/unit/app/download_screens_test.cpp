// The screen that keeps a firmware command from going to a device that is no ATA drive, where
// the stricter/not-ata-* transcripts do not show it.
#include <gtest/gtest.h>

#include <string>

#include "app/download_screens.hpp"
#include "unit/support/console_capture.hpp"

namespace {

TEST(ScreenAtaDevice, RefusesWhatIdentifyShowsIsNoAtaDrive) {
    using namespace std::string_literals;
    struct Case {
        std::uint16_t word0;
        std::string model;
        std::string serial;
        Status status;
    };
    const Case cases[] = {
        // An ATAPI device answers with word 0 bit 15 set, whatever its strings hold.
        {0x85C0, "QEMU DVD-ROM", "QM00003", Status::NoDevice},
        // A translator that sent no IDENTIFY data: NULs, and blanks between them.
        {0x0000, "\0\0 \0"s, "\0 \0"s, Status::NoDevice},
        // One of the two is enough to be an ATA drive's.
        {0x0000, "QSIM", std::string(20, '\0'), Status::Success},
        {0x0000, "", "QS1", Status::Success},
    };
    for (const Case& c : cases) {
        DriveInfo info;
        info.generalConfiguration = c.word0;
        info.modelNumber = c.model;
        info.serialNumber = c.serial;
        ConsoleCapture output;
        EXPECT_EQ(screen_ata_device(info), c.status) << std::hex << c.word0 << " " << c.model;
        EXPECT_EQ(output.err.empty(), c.status == Status::Success);
        EXPECT_EQ(output.out, "");
    }
}

} // namespace
