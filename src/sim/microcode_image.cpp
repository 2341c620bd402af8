#include "sim/microcode_image.hpp"

#include <cstring>

#include "sim/byte_order.hpp"

namespace sim {

std::uint32_t crc32(const std::uint8_t* data, std::size_t count, std::uint32_t crc) {
    crc = ~crc;
    for (std::size_t i = 0; i < count; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
        }
    }
    return ~crc;
}

std::uint32_t image_crc(const std::uint8_t* image, std::size_t count) {
    const std::uint8_t zero[4] = {0, 0, 0, 0};
    std::uint32_t crc = crc32(image, 20);
    crc = crc32(zero, 4, crc);
    return crc32(image + 24, count - 24, crc);
}

bool image_magic_ok(const std::uint8_t* header) {
    return std::memcmp(header, kImageMagic, 8) == 0;
}

std::uint32_t image_length(const std::uint8_t* header) {
    return read_le32(header, 16);
}

std::vector<std::uint8_t> make_image(const std::string& revision, std::uint32_t size,
                                     ImageDefect defect) {
    if (size < kImageHeaderBytes) {
        size = kImageHeaderBytes;
    }
    std::vector<std::uint8_t> image(size, 0);
    std::memcpy(image.data(), kImageMagic, 8);
    for (std::size_t i = 0; i < 8; ++i) {
        image[8 + i] = static_cast<std::uint8_t>(i < revision.size() ? revision[i] : ' ');
    }
    write_le32(image.data(), 16, defect == ImageDefect::BadLength ? size + 512 : size);
    // A payload that differs from block to block, so that a misplaced segment changes the CRC.
    std::uint32_t state = 0x9E3779B9u ^ size;
    for (std::size_t i = kImageHeaderBytes; i < size; ++i) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        image[i] = static_cast<std::uint8_t>(state);
    }
    if (defect == ImageDefect::BadMagic) {
        image[0] = 'X';
    }
    std::uint32_t crc = image_crc(image.data(), image.size());
    if (defect == ImageDefect::BadCrc) {
        crc ^= 0x00000001u;
    }
    write_le32(image.data(), 20, crc);
    return image;
}

ImageVerdict check_image(const std::uint8_t* image, std::size_t count, std::string& revision) {
    if (count < kImageHeaderBytes) {
        return ImageVerdict::TooShort;
    }
    if (!image_magic_ok(image)) {
        return ImageVerdict::BadMagic;
    }
    if (image_length(image) != count) {
        return ImageVerdict::BadLength;
    }
    if (image_crc(image, count) != read_le32(image, 20)) {
        return ImageVerdict::BadCrc;
    }
    revision.assign(reinterpret_cast<const char*>(image + 8), 8);
    return ImageVerdict::Valid;
}

const char* image_verdict_text(ImageVerdict verdict) {
    switch (verdict) {
    case ImageVerdict::Valid:
        return "valid";
    case ImageVerdict::TooShort:
        return "shorter than its header";
    case ImageVerdict::BadMagic:
        return "not a firmware image for this drive (magic)";
    case ImageVerdict::BadLength:
        return "length differs from its header";
    case ImageVerdict::BadCrc:
        return "CRC mismatch";
    }
    return "?";
}

} // namespace sim
