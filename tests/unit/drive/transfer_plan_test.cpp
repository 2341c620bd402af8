#include "drive/transfer_plan.hpp"

#include <gtest/gtest.h>

#include "drive/download_request.hpp"

namespace {

struct PlanCase {
    const char* name;
    std::uint32_t imageBytes;
    std::uint8_t mode;
    std::uint8_t segmentBlocks;
    std::uint32_t transferBytes;
    std::uint32_t blocksPerTransfer;
    std::uint16_t transferCount;
    std::uint32_t remainderBytes;
};

const PlanCase kPlanCases[] = {
    // Mode 0x07 sends the whole image at once, whatever segmentBlocks says.
    {"immediate ignores segment", 5000, kModeImmediate, 1, 5000, 9, 1, 0},
    {"immediate below one block", 100, kModeImmediate, 64, 100, 0, 1, 0},
    {"immediate largest image", kMaxImageBytes, kModeImmediate, 64, kMaxImageBytes, 0xFFFF, 1, 0},
    // Segmented and deferred: segmentBlocks x 512, the rest in one shorter transfer. The plans
    // of the images the golden transcripts send stand there.
    {"segmented smaller than a segment", 1000, kModeSegmented, 64, 32768, 64, 0, 1000},
    {"segmented exact multiple", 65536, kModeSegmented, 64, 32768, 64, 2, 0},
    {"segmented largest by 1", kMaxImageBytes, kModeSegmented, 1, 512, 1, 0xFFFF, 0},
    {"segmented largest by 255", kMaxImageBytes, kModeSegmented, 255, 130560, 255, 257, 0},
    {"deferred largest by 64", kMaxImageBytes, kModeDeferred, 64, 32768, 64, 1023, 32256},
    // segmentBlocks 0 (the activation): the whole image, capped at 8 MiB per transfer.
    {"activate 2 MiB", 2097152, kModeActivate, 0, 2097152, 4096, 1, 0},
    {"activate just below the cap", 8388607, kModeActivate, 0, 8388607, 16383, 1, 0},
    {"activate at the cap", 8388608, kModeActivate, 0, 8388608, 16384, 1, 0},
    {"activate 10 MiB", 10485760, kModeActivate, 0, 8388608, 16384, 1, 2097152},
    {"activate largest image", kMaxImageBytes, kModeActivate, 0, 8388608, 16384, 3, 8388096},
    {"deferred unsegmented 3 MiB", 3145728, kModeDeferred, 0, 3145728, 6144, 1, 0},
};

TEST(TransferPlan, CutsTheImageByModeAndSegmentSize) {
    for (const PlanCase& c : kPlanCases) {
        SCOPED_TRACE(c.name);
        const TransferPlan plan = plan_transfers(c.imageBytes, c.mode, c.segmentBlocks);
        EXPECT_EQ(plan.transferBytes, c.transferBytes);
        EXPECT_EQ(plan.blocksPerTransfer, c.blocksPerTransfer);
        EXPECT_EQ(plan.transferCount, c.transferCount);
        EXPECT_EQ(plan.remainderBytes, c.remainderBytes);
        EXPECT_EQ(plan.blockOffset, 0);
    }
}

// Every byte of the image is covered exactly once, and no offset or count the command carries
// leaves 16 bits, for every segment size up to the largest image.
TEST(TransferPlan, CoversTheLargestImageWithinSixteenBitOffsets) {
    for (unsigned segment = 1; segment <= 255; ++segment) {
        const TransferPlan plan =
            plan_transfers(kMaxImageBytes, kModeSegmented, static_cast<std::uint8_t>(segment));
        SCOPED_TRACE(segment);
        EXPECT_EQ(std::uint64_t{plan.transferCount} * plan.transferBytes + plan.remainderBytes,
                  kMaxImageBytes);
        EXPECT_LT(plan.remainderBytes, plan.transferBytes);
        EXPECT_LE(std::uint64_t{plan.transferCount} * plan.blocksPerTransfer, 0xFFFFu);
    }
}

} // namespace
