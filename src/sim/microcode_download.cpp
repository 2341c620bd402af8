#include "sim/microcode_download.hpp"

#include <cstdio>

#include "sim/identify_data.hpp"
#include "sim/microcode_image.hpp"

namespace sim {

namespace {

constexpr std::uint8_t kModeOffsetsImmediate = 0x03;
constexpr std::uint8_t kModeImmediate = 0x07;
constexpr std::uint8_t kModeOffsetsDeferred = 0x0E;
constexpr std::uint8_t kModeActivate = 0x0F;
constexpr std::uint32_t kBlock = 512;

std::string format(const char* pattern, unsigned a = 0, unsigned b = 0, unsigned c = 0) {
    char text[160];
    std::snprintf(text, sizeof text, pattern, a, b, c);
    return text;
}

bool mode_supported(const Drive& drive, std::uint8_t mode) {
    switch (mode) {
    case kModeOffsetsImmediate:
        return drive.mode03;
    case kModeImmediate:
        return drive.mode07;
    case kModeOffsetsDeferred:
        return drive.mode0E;
    case kModeActivate:
        return drive.mode0F;
    default:
        return false;
    }
}

// A limit of words 234/235 counts only when the drive reports one.
bool reported(std::uint16_t limit) {
    return limit != 0 && limit != 0xFFFF;
}

void activate(Drive& drive, const std::string& revision) {
    set_firmware_revision(drive, revision);
    drive.deferred.reset();
    ++drive.activations;
}

DownloadVerdict reject(Drive& drive, const std::string& prefix, const std::string& reason) {
    const bool hadPartial = drive.downloading;
    drive.downloading = false;
    drive.partial.clear();
    drive.partial.shrink_to_fit();
    DownloadVerdict verdict;
    verdict.note = prefix + "aborted: " + reason;
    if (hadPartial) {
        verdict.note += "; partial image discarded";
    }
    return verdict;
}

DownloadVerdict accept(const std::string& note, std::uint8_t countStatus) {
    DownloadVerdict verdict;
    verdict.accepted = true;
    verdict.countStatus = countStatus;
    verdict.note = note;
    return verdict;
}

// The image is whole: judge it and activate it or keep it for later.
DownloadVerdict finish(Drive& drive, std::uint8_t mode, const std::string& prefix,
                       const std::uint8_t* image, std::size_t count) {
    std::string revision;
    const ImageVerdict verdict = check_image(image, count, revision);
    if (verdict != ImageVerdict::Valid) {
        return reject(drive, prefix, std::string("image ") + image_verdict_text(verdict));
    }
    const std::uint32_t length = static_cast<std::uint32_t>(count);
    const std::uint32_t crc = image_crc(image, count);
    drive.downloading = false;
    drive.partial.clear();
    drive.partial.shrink_to_fit();
    if (mode == kModeOffsetsDeferred) {
        drive.deferred = DeferredImage{revision, length, crc};
        return accept(prefix + "image complete, deferred \"" + revision + "\"", kCountSaved);
    }
    activate(drive, revision);
    return accept(prefix + "image complete, activated \"" + revision + "\"", kCountApplied);
}

DownloadVerdict segment(Drive& drive, std::uint8_t mode, std::uint16_t blocks, std::uint16_t offset,
                        const std::uint8_t* data, std::uint32_t length, const std::string& prefix) {
    const std::uint16_t minimum = identify_word(drive.identify, 234);
    const std::uint16_t maximum = identify_word(drive.identify, 235);
    if (drive.enforceBlockLimits && reported(maximum) && blocks > maximum) {
        return reject(drive, prefix,
                      format("%u blocks above the maximum %u (word 235)", blocks, maximum));
    }
    if (offset == 0) {
        // Offset 0 begins a new image, whatever was in progress.
        drive.partial.clear();
        drive.downloading = true;
        drive.downloadMode = mode;
        drive.nextOffset = 0;
    } else if (!drive.downloading) {
        return reject(drive, prefix, format("offset %u with no download in progress", offset));
    } else if (mode != drive.downloadMode) {
        return reject(drive, prefix,
                      format("mode 0x%02X while a mode 0x%02X download is in progress", mode,
                             drive.downloadMode));
    } else if (offset != drive.nextOffset) {
        return reject(drive, prefix,
                      format("offset %u does not follow the last segment (expected %u)", offset,
                             drive.nextOffset));
    }

    drive.partial.insert(drive.partial.end(), data, data + length);
    const std::size_t received = drive.partial.size();
    if (received >= kImageHeaderBytes) {
        const std::uint8_t* header = drive.partial.data();
        if (!image_magic_ok(header)) {
            return reject(drive, prefix, "not a firmware image for this drive (magic)");
        }
        const std::uint32_t total = image_length(header);
        if (total < kImageHeaderBytes || total > kImageMaxBytes) {
            return reject(drive, prefix, format("image length %u in the header", total));
        }
        if (received > total) {
            return reject(drive, prefix,
                          format("%u bytes received, beyond the image length %u",
                                 static_cast<unsigned>(received), total));
        }
        if (received == total) {
            // The last segment may be shorter than the minimum.
            return finish(drive, mode, prefix, drive.partial.data(), received);
        }
    } else if (length % kBlock != 0) {
        // A partial block ends the data, and the image is shorter than its own header.
        return finish(drive, mode, prefix, drive.partial.data(), received);
    }
    if (length % kBlock != 0) {
        return reject(drive, prefix, "a partial block before the end of the image");
    }
    if (drive.enforceBlockLimits && reported(minimum) && blocks < minimum) {
        return reject(drive, prefix,
                      format("%u blocks below the minimum %u (word 234)", blocks, minimum));
    }
    drive.nextOffset = static_cast<std::uint16_t>(offset + blocks);
    return accept(prefix + format("accepted, %u bytes of %u", static_cast<unsigned>(received),
                                  image_length(drive.partial.data())),
                  kCountMoreDataExpected);
}

} // namespace

DownloadVerdict download_microcode(Drive& drive, const AtaCommand& command, DataPhase phase,
                                   const std::uint8_t* data, std::uint32_t length) {
    const std::uint8_t mode = command.features;
    const std::uint16_t blocks = static_cast<std::uint16_t>(command.count | command.lbaLow << 8);
    const std::uint16_t offset = static_cast<std::uint16_t>(command.lbaMid | command.lbaHigh << 8);
    std::string prefix = format("mode 0x%02X blocks %u offset %u: ", mode, blocks, offset);
    if (mode == kModeActivate || mode == kModeImmediate) {
        prefix = format(mode == kModeActivate ? "mode 0x%02X: " : "mode 0x%02X blocks %u: ", mode,
                        blocks);
    }

    if (!mode_supported(drive, mode)) {
        return reject(drive, prefix, "mode not supported by this drive");
    }
    if (mode == kModeActivate) {
        if (phase != DataPhase::None && length != 0) {
            return reject(drive, prefix, "activation with a data phase");
        }
        if (drive.downloading) {
            return reject(drive, prefix, "a download is still in progress");
        }
        if (!drive.deferred) {
            return reject(drive, prefix, "no deferred image waiting");
        }
        const std::string revision = drive.deferred->revision;
        activate(drive, revision);
        return accept(prefix + "activated \"" + revision + "\"", kCountApplied);
    }

    if (phase != DataPhase::Out || length == 0) {
        return reject(drive, prefix, "no data-out phase");
    }
    // The data must fill the blocks the command names; only the last may be partial.
    const std::uint32_t whole = length / kBlock;
    const std::uint32_t rounded = (length + kBlock - 1) / kBlock;
    if (blocks != whole && blocks != rounded) {
        return reject(drive, prefix, format("%u bytes of data for %u blocks", length, blocks));
    }
    if (mode == kModeImmediate) {
        drive.downloading = false;
        drive.partial.clear();
        return finish(drive, mode, prefix, data, length);
    }
    return segment(drive, mode, blocks, offset, data, length, prefix);
}

} // namespace sim
