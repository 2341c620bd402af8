// DOWNLOAD MICROCODE as the simulated drive keeps it, driven with the registers set here: the
// revision changes only when a whole, valid image is in and activated; every violation of the
// block counts, offsets and modes aborts and drops the partial image. Whole runs lean on these
// rules to show a fault in what the program sends.
#include <string>
#include <vector>

#include "sim/microcode_image.hpp"
#include "sim_fixture.hpp"

namespace simtest {
namespace {

// One DOWNLOAD MICROCODE: the mode, the block count and offset in their registers, and length
// bytes of the image from that offset as its data.
struct Segment {
    std::uint8_t mode;
    std::uint16_t blocks;
    std::uint16_t offset;
    std::uint32_t length = blocks * 512u;
};

class SimDownload : public SimTest {
protected:
    // A drive that takes 2 to 64 blocks per segment.
    void load_drive() { load(one_drive(R"("words": {"234": 2, "235": 64})")); }
    std::string revision() { return sim::firmware_revision(sim::machine().drives[0]); }

    // 'g' for each segment the drive took, 'a' for each it aborted.
    std::string send(const std::vector<Segment>& segments, std::vector<std::uint8_t> image) {
        image.resize(160 * 512, 0x5A); // room for the cases that overrun the image
        std::string statuses;
        for (const Segment& s : segments) {
            sim::AtaCommand command;
            command.command = 0x92;
            command.features = s.mode;
            command.count = static_cast<std::uint8_t>(s.blocks);
            command.lbaLow = static_cast<std::uint8_t>(s.blocks >> 8);
            command.lbaMid = static_cast<std::uint8_t>(s.offset);
            command.lbaHigh = static_cast<std::uint8_t>(s.offset >> 8);
            command.device = 0x40;
            const sim::AtaOutcome outcome =
                sim::run_ata_command(sim::machine(), "d0", command,
                                     s.length != 0 ? sim::DataPhase::Out : sim::DataPhase::None,
                                     &image[s.offset * 512u], s.length);
            EXPECT_TRUE(outcome.status == 0x50 || (outcome.status == 0x51 && outcome.error == 4));
            statuses += outcome.status == 0x50 ? 'g' : 'a';
        }
        return statuses;
    }
};

TEST_F(SimDownload, TakesAWholeImageAndAbortsEveryViolation) {
    const struct {
        const char* what;
        const char* statuses;
        bool goesIn; // the new revision is the drive's afterwards
        std::uint32_t imageBlocks;
        std::vector<Segment> segments;
    } cases[] = {
        {"segments in order", "gggg", true, 16, {{3, 4, 0}, {3, 4, 4}, {3, 4, 8}, {3, 4, 12}}},
        {"mode 0x07 above word 235", "g", true, 80, {{7, 80, 0}}},
        {"last segment below word 234", "gg", true, 65, {{3, 64, 0}, {3, 1, 64}}},
        // The activation takes a whole deferred image, and only that.
        {"deferred", "ggga", true, 16, {{0x0E, 8, 0}, {0x0E, 8, 8}, {0x0F, 0, 0}, {0x0F, 0, 0}}},
        {"first segment not at offset 0", "a", false, 16, {{3, 4, 4}}},
        {"a gap", "ga", false, 16, {{3, 4, 0}, {3, 4, 8}}},
        {"the same offset again", "gga", false, 16, {{3, 4, 0}, {3, 4, 4}, {3, 4, 4}}},
        {"a count above word 235", "a", false, 80, {{3, 65, 0}}},
        {"a count below word 234 inside the image", "a", false, 16, {{3, 1, 0}}},
        {"data that do not fill the count", "a", false, 16, {{3, 4, 0, 1024}}},
        {"a count the data overrun", "a", false, 16, {{3, 2, 0, 2048}}},
        {"a partial block inside the image", "a", false, 16, {{3, 4, 0, 2000}}},
        {"a change of mode", "ga", false, 16, {{3, 4, 0}, {0x0E, 4, 4}}},
        {"data beyond the image", "ga", false, 16, {{3, 8, 0}, {3, 16, 8}}},
        {"activation in a download", "ga", false, 16, {{0x0E, 4, 0}, {0x0F, 0, 0}}},
        {"an unknown mode", "ga", false, 16, {{3, 4, 0}, {1, 4, 4}}},
        {"no data", "a", false, 16, {{3, 4, 0, 0}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        load_drive();
        EXPECT_EQ(send(c.segments, sim::make_image("QU020001", c.imageBlocks * 512)), c.statuses);
        EXPECT_EQ(revision(), c.goesIn ? "QU020001" : "QU010001");
        if (std::string(c.statuses).back() == 'a') {
            // Nothing of the image is kept: what follows finds no download in progress.
            EXPECT_FALSE(sim::machine().drives[0].downloading);
            EXPECT_EQ(send({{3, 4, 12}}, {}), "a");
        }
    }
}

} // namespace
} // namespace simtest
