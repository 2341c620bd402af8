// DOWNLOAD MICROCODE as the drive keeps it: the revision changes only when a whole, valid image
// is activated; every violation aborts and drops the partial image.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "sim/identify_data.hpp"
#include "sim/machine_file.hpp"
#include "sim/microcode_image.hpp"
#include "sim_fixture.hpp"

namespace simtest {
namespace {

constexpr std::uint8_t kGood = 0x50;
constexpr std::uint8_t kAborted = 0x51;

class SimDownload : public SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        // Limits 2 to 64 blocks per segment.
        load(one_drive(R"("words": {"234": 2, "235": 64})"));
    }
    sim::Drive& drive() { return sim::machine().drives[0]; }
    std::string revision() { return sim::firmware_revision(drive()); }

    // One DOWNLOAD MICROCODE with the block count and offset in their registers.
    std::uint8_t send_segment(std::uint8_t mode, std::uint16_t blocks, std::uint16_t offset,
                              const std::uint8_t* data, std::uint32_t length) {
        sim::AtaCommand command;
        command.command = 0x92;
        command.features = mode;
        command.count = static_cast<std::uint8_t>(blocks);
        command.lbaLow = static_cast<std::uint8_t>(blocks >> 8);
        command.lbaMid = static_cast<std::uint8_t>(offset);
        command.lbaHigh = static_cast<std::uint8_t>(offset >> 8);
        command.device = 0x40;
        std::vector<std::uint8_t> copy(data, data + length);
        const sim::AtaOutcome outcome = sim::run_ata_command(
            sim::machine(), "d0", command, length != 0 ? sim::DataPhase::Out : sim::DataPhase::None,
            copy.data(), length);
        EXPECT_TRUE(outcome.status == kGood || (outcome.status == kAborted && outcome.error == 4));
        return outcome.status;
    }
    std::uint8_t activate() { return send_segment(0x0F, 0, 0, nullptr, 0); }

    // Sends image[from, to) as segments of `blocks` blocks (the last one what is left), at
    // offsets that follow each other; returns the status of each.
    std::vector<std::uint8_t> send_image(const std::vector<std::uint8_t>& image, std::uint8_t mode,
                                         std::uint32_t blocks) {
        std::vector<std::uint8_t> statuses;
        for (std::size_t at = 0; at < image.size(); at += blocks * 512) {
            const auto length =
                static_cast<std::uint32_t>(std::min<std::size_t>(blocks * 512, image.size() - at));
            statuses.push_back(send_segment(mode, static_cast<std::uint16_t>(length / 512),
                                            static_cast<std::uint16_t>(at / 512), &image[at],
                                            length));
        }
        return statuses;
    }
};

TEST_F(SimDownload, ASegmentedImageActivatesWhenItsLastSegmentArrives) {
    const auto image = sim::make_image("QU020001", 100000); // 3 x 64 blocks and 1,696 bytes
    for (std::size_t at = 0; at < 3; ++at) {
        EXPECT_EQ(
            send_segment(0x03, 64, static_cast<std::uint16_t>(at * 64), &image[at * 32768], 32768),
            kGood);
        EXPECT_EQ(revision(), "QU010001");
    }
    EXPECT_EQ(send_segment(0x03, 3, 192, &image[98304], 1696), kGood);
    EXPECT_EQ(revision(), "QU020001");
    EXPECT_EQ(sim::identify_word(drive().identify, 255) & 0xFF, 0xA5);
    unsigned sum = 0;
    for (const std::uint8_t byte : drive().identify) {
        sum += byte;
    }
    EXPECT_EQ(sum % 256, 0u); // the checksum still holds
}

TEST_F(SimDownload, ModeSevenTakesTheWholeImageInOneCommand) {
    const auto image = sim::make_image("QU020001", 1048576); // far above word 235
    EXPECT_EQ(send_segment(0x07, 2048, 0, image.data(), 1048576), kGood);
    EXPECT_EQ(revision(), "QU020001");
}

TEST_F(SimDownload, ADeferredImageWaitsForActivation) {
    const auto image = sim::make_image("QU030001", 64 * 512);
    EXPECT_EQ(send_image(image, 0x0E, 16), std::vector<std::uint8_t>(4, kGood));
    EXPECT_EQ(revision(), "QU010001");
    ASSERT_TRUE(drive().deferred);
    EXPECT_EQ(activate(), kGood);
    EXPECT_EQ(revision(), "QU030001");
    EXPECT_FALSE(drive().deferred);
    EXPECT_EQ(activate(), kAborted); // nothing waits any more
}

TEST_F(SimDownload, TheLastSegmentMayBeBelowTheMinimum) {
    const auto image = sim::make_image("QU020001", 512 * 65); // 64 blocks, then 1
    EXPECT_EQ(send_image(image, 0x03, 64), (std::vector<std::uint8_t>{kGood, kGood}));
    EXPECT_EQ(revision(), "QU020001");
}

TEST_F(SimDownload, AnOffsetZeroStartsOver) {
    const auto old = sim::make_image("QU0BAD01", 8 * 512);
    const auto image = sim::make_image("QU020001", 8 * 512);
    EXPECT_EQ(send_segment(0x03, 4, 0, old.data(), 2048), kGood);
    EXPECT_EQ(send_image(image, 0x03, 4), (std::vector<std::uint8_t>{kGood, kGood}));
    EXPECT_EQ(revision(), "QU020001");
}

// Each case: segments (mode, blocks, offset, bytes from, bytes count) of one 16-block image;
// the last one must be aborted, and a segment that would have followed it too.
struct Segment {
    std::uint8_t mode;
    std::uint16_t blocks;
    std::uint16_t offset;
    std::uint32_t from;
    std::uint32_t length;
};

TEST_F(SimDownload, ViolationsAbortAndDropThePartialImage) {
    const struct {
        const char* what;
        std::vector<Segment> segments;
    } cases[] = {
        {"first segment not at offset 0", {{0x03, 4, 4, 2048, 2048}}},
        {"a gap", {{0x03, 4, 0, 0, 2048}, {0x03, 4, 8, 4096, 2048}}},
        {"the same offset again",
         {{0x03, 4, 0, 0, 2048}, {0x03, 4, 0 + 4, 2048, 2048}, {0x03, 4, 4, 2048, 2048}}},
        {"a count above word 235", {{0x03, 65, 0, 0, 65 * 512}}},
        {"a count below word 234 inside the image", {{0x03, 1, 0, 0, 512}}},
        {"data that do not fill the count", {{0x03, 4, 0, 0, 1024}}},
        {"a count the data overrun", {{0x03, 2, 0, 0, 2048}}},
        {"a partial block inside the image", {{0x03, 4, 0, 0, 2000}}},
        {"a change of mode", {{0x03, 4, 0, 0, 2048}, {0x0E, 4, 4, 2048, 2048}}},
        {"data beyond the end of the image", {{0x03, 8, 0, 0, 4096}, {0x03, 16, 8, 4096, 8192}}},
        {"an activation while a download is in progress",
         {{0x0E, 4, 0, 0, 2048}, {0x0F, 0, 0, 0, 0}}},
        {"an unknown mode", {{0x03, 4, 0, 0, 2048}, {0x01, 4, 4, 2048, 2048}}},
        {"no data", {{0x03, 4, 0, 0, 0}}},
    };
    auto image = sim::make_image("QU020001", 16 * 512);
    image.resize(80 * 512, 0x5A); // room for the overrunning cases
    for (const auto& c : cases) {
        load(one_drive(R"("words": {"234": 2, "235": 64})"));
        for (std::size_t i = 0; i < c.segments.size(); ++i) {
            const Segment& s = c.segments[i];
            const std::uint8_t status =
                send_segment(s.mode, s.blocks, s.offset, &image[s.from], s.length);
            EXPECT_EQ(status, i + 1 == c.segments.size() ? kAborted : kGood) << c.what << " " << i;
        }
        EXPECT_FALSE(drive().downloading) << c.what;
        // What follows finds no download in progress.
        EXPECT_EQ(send_segment(0x03, 4, 12, &image[6144], 2048), kAborted) << c.what;
        EXPECT_EQ(revision(), "QU010001") << c.what;
        EXPECT_FALSE(drive().deferred) << c.what;
    }
}

TEST_F(SimDownload, InvalidImagesAreNeverActivatedNorKept) {
    for (const sim::ImageDefect defect :
         {sim::ImageDefect::BadCrc, sim::ImageDefect::BadMagic, sim::ImageDefect::BadLength}) {
        for (const std::uint8_t mode : {0x03, 0x07, 0x0E}) {
            load(one_drive(R"("words": {"234": 2, "235": 64})"));
            const auto image = sim::make_image("QU020001", 16 * 512, defect);
            const std::vector<std::uint8_t> statuses =
                mode == 0x07
                    ? std::vector<std::uint8_t>{send_segment(0x07, 16, 0, image.data(), 16 * 512)}
                    : send_image(image, mode, 8);
            // A header that promises more data than came leaves the image waiting, unfinished.
            const bool waits = defect == sim::ImageDefect::BadLength && mode != 0x07;
            EXPECT_EQ(std::count(statuses.begin(), statuses.end(), kAborted) != 0, !waits)
                << int(defect) << " " << int(mode);
            EXPECT_EQ(revision(), "QU010001");
            EXPECT_FALSE(drive().deferred);
            EXPECT_EQ(activate(), kAborted);
        }
    }
}

TEST_F(SimDownload, ModesTheDriveDoesNotTakeAreAborted) {
    load(one_drive(R"("downloadModes": [7])"));
    const auto image = sim::make_image("QU020001", 4 * 512);
    EXPECT_EQ(send_segment(0x03, 4, 0, image.data(), 2048), kAborted);
    EXPECT_EQ(send_segment(0x0E, 4, 0, image.data(), 2048), kAborted);
    EXPECT_EQ(send_segment(0x07, 4, 0, image.data(), 2048), kGood);
    EXPECT_EQ(revision(), "QU020001");
}

TEST_F(SimDownload, ADriveWithoutLimitsTakesAnyCount) {
    load(one_drive(R"("words": {"234": 8, "235": 16}, "enforceBlockLimits": false)"));
    const auto image = sim::make_image("QU020001", 40 * 512);
    EXPECT_EQ(send_image(image, 0x03, 32), (std::vector<std::uint8_t>{kGood, kGood}));
    EXPECT_EQ(revision(), "QU020001");
}

TEST_F(SimDownload, RawDataWithoutASignatureKeepTheirWord255) {
    // Word 255 = 0: the drive keeps no checksum and must not start one.
    load(one_drive(R"("words": {"255": 0})"));
    ASSERT_FALSE(sim::has_identify_signature(drive().identify));
    const auto image = sim::make_image("QU020001", 2 * 512);
    EXPECT_EQ(send_segment(0x07, 2, 0, image.data(), 1024), kGood);
    EXPECT_EQ(sim::identify_word(drive().identify, 255), 0);
}

class SimDownloadAcrossRuns : public SimDownload {
protected:
    // Writes the machine back and loads it again, as quenmark-sim does between two runs.
    void power_cycle() {
        const std::string path = ::testing::TempDir() + "sim_download_machine.json";
        std::string error;
        ASSERT_TRUE(sim::save_machine_file(path, error)) << error;
        ASSERT_TRUE(sim::load_machine_file(path, error)) << error;
        std::remove(path.c_str());
    }
};

TEST_F(SimDownloadAcrossRuns, AnInterruptedDownloadIsLost) {
    const auto image = sim::make_image("QU020001", 16 * 512);
    EXPECT_EQ(send_segment(0x03, 8, 0, image.data(), 4096), kGood);
    power_cycle();
    EXPECT_EQ(revision(), "QU010001");
    EXPECT_EQ(send_segment(0x03, 8, 8, &image[4096], 4096), kAborted);
    EXPECT_EQ(revision(), "QU010001");
}

TEST_F(SimDownloadAcrossRuns, ADeferredImageSurvivesAndIsActivatedLater) {
    const auto image = sim::make_image("QU030001", 16 * 512);
    EXPECT_EQ(send_image(image, 0x0E, 8), (std::vector<std::uint8_t>{kGood, kGood}));
    power_cycle();
    ASSERT_TRUE(drive().deferred);
    EXPECT_EQ(drive().deferred->revision, "QU030001");
    EXPECT_EQ(revision(), "QU010001");
    EXPECT_EQ(activate(), kGood);
    EXPECT_EQ(revision(), "QU030001");
    power_cycle();
    EXPECT_EQ(revision(), "QU030001");
    EXPECT_FALSE(drive().deferred);
}

TEST(SimImage, CrcAndDefectsAreWhatTheDriveChecks) {
    const std::uint8_t check[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(sim::crc32(check, sizeof check), 0xCBF43926u);
    const struct {
        sim::ImageDefect defect;
        sim::ImageVerdict verdict;
    } cases[] = {{sim::ImageDefect::None, sim::ImageVerdict::Valid},
                 {sim::ImageDefect::BadCrc, sim::ImageVerdict::BadCrc},
                 {sim::ImageDefect::BadMagic, sim::ImageVerdict::BadMagic},
                 {sim::ImageDefect::BadLength, sim::ImageVerdict::BadLength}};
    for (const auto& c : cases) {
        const auto image = sim::make_image("QS02", 1000, c.defect);
        ASSERT_EQ(image.size(), 1000u);
        std::string revision;
        EXPECT_EQ(sim::check_image(image.data(), image.size(), revision), c.verdict);
        if (c.verdict == sim::ImageVerdict::Valid) {
            EXPECT_EQ(revision, "QS02    ");
        }
    }
}

} // namespace
} // namespace simtest
