// SHA-256 of a firmware image, so that a record of the run names the bytes that were sent.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

using Sha256Digest = std::array<std::uint8_t, 32>;

Sha256Digest sha256(const std::uint8_t* bytes, std::size_t count);

// 64 lower-case hexadecimal digits.
std::string sha256_hex(const Sha256Digest& digest);
