#include "drive/transfer_plan.hpp"

#include "drive/download_request.hpp"

TransferPlan plan_transfers(std::uint32_t imageBytes, std::uint8_t downloadMode,
                            std::uint8_t segmentBlocks) {
    TransferPlan plan{};
    if (downloadMode == kModeImmediate) {
        plan.transferBytes = imageBytes;
    } else if (segmentBlocks != 0) {
        plan.transferBytes = std::uint32_t{segmentBlocks} * kBlockBytes;
    } else {
        plan.transferBytes = imageBytes < kUnsegmentedCapBytes ? imageBytes : kUnsegmentedCapBytes;
    }
    plan.blocksPerTransfer = plan.transferBytes / kBlockBytes;
    if (plan.transferBytes != 0) {
        plan.transferCount = static_cast<std::uint16_t>(imageBytes / plan.transferBytes);
        plan.remainderBytes = imageBytes % plan.transferBytes;
    }
    return plan;
}
