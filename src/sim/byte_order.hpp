// Byte readers and writers at explicit offsets. The simulated machine decodes every request
// with these, never by casting to the program's records, so that a layout fault on the program
// side shows up as wrong bytes here instead of being shared.
#pragma once

#include <cstddef>
#include <cstdint>

namespace sim {

inline std::uint16_t read_le16(const std::uint8_t* buffer, std::size_t offset) {
    return static_cast<std::uint16_t>(buffer[offset] | buffer[offset + 1] << 8);
}

inline std::uint32_t read_le32(const std::uint8_t* buffer, std::size_t offset) {
    return static_cast<std::uint32_t>(read_le16(buffer, offset)) |
           static_cast<std::uint32_t>(read_le16(buffer, offset + 2)) << 16;
}

inline std::uint64_t read_le64(const std::uint8_t* buffer, std::size_t offset) {
    return static_cast<std::uint64_t>(read_le32(buffer, offset)) |
           static_cast<std::uint64_t>(read_le32(buffer, offset + 4)) << 32;
}

inline std::uint16_t read_be16(const std::uint8_t* buffer, std::size_t offset) {
    return static_cast<std::uint16_t>(buffer[offset] << 8 | buffer[offset + 1]);
}

inline void write_le16(std::uint8_t* buffer, std::size_t offset, std::uint16_t value) {
    buffer[offset] = static_cast<std::uint8_t>(value);
    buffer[offset + 1] = static_cast<std::uint8_t>(value >> 8);
}

inline void write_le32(std::uint8_t* buffer, std::size_t offset, std::uint32_t value) {
    write_le16(buffer, offset, static_cast<std::uint16_t>(value));
    write_le16(buffer, offset + 2, static_cast<std::uint16_t>(value >> 16));
}

inline void write_le64(std::uint8_t* buffer, std::size_t offset, std::uint64_t value) {
    write_le32(buffer, offset, static_cast<std::uint32_t>(value));
    write_le32(buffer, offset + 4, static_cast<std::uint32_t>(value >> 32));
}

inline void write_be16(std::uint8_t* buffer, std::size_t offset, std::uint16_t value) {
    buffer[offset] = static_cast<std::uint8_t>(value >> 8);
    buffer[offset + 1] = static_cast<std::uint8_t>(value);
}

} // namespace sim
