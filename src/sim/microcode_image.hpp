// The simulated drives' own firmware image format, which they check before activating:
//   bytes 0-7    magic "QSIMFW01"
//   bytes 8-15   the new firmware revision, 8 characters (blank-padded)
//   bytes 16-19  the image length in bytes, header included, little-endian
//   bytes 20-23  CRC-32 (IEEE, as zlib computes it) of the whole image with these four bytes
//                taken as zero, little-endian
//   bytes 24-31  zero
//   bytes 32-    payload
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace sim {

constexpr std::size_t kImageHeaderBytes = 32;
constexpr char kImageMagic[] = "QSIMFW01";
// DOWNLOAD MICROCODE describes at most 65,535 blocks of 512 bytes.
constexpr std::uint32_t kImageMaxBytes = 65535u * 512u;

std::uint32_t crc32(const std::uint8_t* data, std::size_t count, std::uint32_t crc = 0);
std::uint32_t image_crc(const std::uint8_t* image, std::size_t count);

enum class ImageDefect { None, BadCrc, BadMagic, BadLength };

// An image of exactly size bytes (at least the header) for the revision, with a deterministic
// payload, and optionally one defect.
std::vector<std::uint8_t> make_image(const std::string& revision, std::uint32_t size,
                                     ImageDefect defect = ImageDefect::None);

enum class ImageVerdict { Valid, TooShort, BadMagic, BadLength, BadCrc };

// Judges count bytes as a whole image; on Valid, revision holds its 8 characters.
ImageVerdict check_image(const std::uint8_t* image, std::size_t count, std::string& revision);
const char* image_verdict_text(ImageVerdict verdict);

// The header fields, once the first kImageHeaderBytes bytes are there.
bool image_magic_ok(const std::uint8_t* header);
std::uint32_t image_length(const std::uint8_t* header);

} // namespace sim
