// How one image is cut into DOWNLOAD MICROCODE transfers: the size of a full transfer, how many
// full transfers there are, and the bytes left over for one last, shorter transfer.
#pragma once

#include <cstdint>

constexpr std::uint32_t kBlockBytes = 512;
// The command carries its block count and its block offset in 16 bits each.
constexpr std::uint32_t kMaxImageBlocks = 0xFFFF;
constexpr std::uint32_t kMaxImageBytes = kMaxImageBlocks * kBlockBytes; // 33,553,920
// An unsegmented plan (segmentBlocks 0) never puts more than this in one data phase.
constexpr std::uint32_t kUnsegmentedCapBytes = 0x800000;

struct TransferPlan {
    std::uint32_t transferBytes;     // bytes of one full transfer; 0 when the plan has none
    std::uint32_t blocksPerTransfer; // transferBytes / 512, rounded down
    std::uint16_t transferCount;     // full transfers
    std::uint32_t remainderBytes;    // sent after the full transfers when not 0
    std::uint16_t blockOffset;       // offset of the next transfer, in blocks; wraps at 65536
};

// Pure: depends on nothing but its arguments. Images above kMaxImageBytes are the caller's to
// refuse; the counts would not fit the command. When the transfer size comes out as 0 (an empty
// image in mode 0x07 or with segmentBlocks 0) the plan holds no transfer and no remainder.
TransferPlan plan_transfers(std::uint32_t imageBytes, std::uint8_t downloadMode,
                            std::uint8_t segmentBlocks);
