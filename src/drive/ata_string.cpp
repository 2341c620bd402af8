#include <cstdio>
#include <cstdlib>

#include "drive/identify.hpp"

bool is_ata_blank(char c) {
    return c == ' ' || c == '\t' || c == '\v' || c == '\r' || c == '\n';
}

namespace {

[[noreturn]] void precondition_failed(int line) {
    std::fprintf(stderr, "Assertion failed: %s, file %s, line %d\n",
                 "0 != length && 0 == ( length %2 ) && NULL != source_buffer", "main", line);
    std::abort();
}

} // namespace

std::string ata_string_to_text(const std::uint8_t* source, std::uint32_t length) {
    if (!(0 != length && 0 == (length % 2) && nullptr != source)) {
        precondition_failed(__LINE__);
    }
    // Each 16-bit word carries its first character in the high byte.
    std::string text;
    text.reserve(length);
    for (std::uint32_t i = 0; i < length; i += 2) {
        text.push_back(static_cast<char>(source[i + 1]));
        text.push_back(static_cast<char>(source[i]));
    }
    // NUL is not blank: a field padded with NULs keeps them.
    std::size_t first = 0;
    while (first < text.size() && is_ata_blank(text[first])) {
        ++first;
    }
    std::size_t last = text.size();
    while (last > first && is_ata_blank(text[last - 1])) {
        --last;
    }
    return text.substr(first, last - first);
}
