#include "sim/text_encoding.hpp"

#include <cstdint>
#include <type_traits>

namespace sim {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

void append_utf8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | c >> 6);
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | c >> 12);
        out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | c >> 18);
        out += static_cast<char>(0x80 | (c >> 12 & 0x3F));
        out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

void append_wide(std::wstring& out, char32_t c) {
    if constexpr (sizeof(wchar_t) == 2) {
        if (c >= 0x10000) {
            c -= 0x10000;
            out += static_cast<wchar_t>(0xD800 + (c >> 10));
            out += static_cast<wchar_t>(0xDC00 + (c & 0x3FF));
            return;
        }
    }
    out += static_cast<wchar_t>(c);
}

} // namespace

std::string utf8_from_wide(std::wstring_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t c = static_cast<char32_t>(static_cast<std::make_unsigned_t<wchar_t>>(text[i]));
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size()) {
            const char32_t low =
                static_cast<char32_t>(static_cast<std::make_unsigned_t<wchar_t>>(text[i + 1]));
            if (low >= 0xDC00 && low <= 0xDFFF) {
                c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
                ++i;
            }
        }
        if ((c >= 0xD800 && c <= 0xDFFF) || c > 0x10FFFF) {
            c = kReplacement;
        }
        append_utf8(out, c);
    }
    return out;
}

std::wstring wide_from_utf8(std::string_view text) {
    std::wstring out;
    std::size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<std::uint8_t>(text[i]);
        int extra = 0;
        char32_t c = 0;
        char32_t minimum = 0;
        if (lead < 0x80) {
            c = lead;
        } else if ((lead & 0xE0) == 0xC0) {
            extra = 1;
            c = lead & 0x1F;
            minimum = 0x80;
        } else if ((lead & 0xF0) == 0xE0) {
            extra = 2;
            c = lead & 0x0F;
            minimum = 0x800;
        } else if ((lead & 0xF8) == 0xF0) {
            extra = 3;
            c = lead & 0x07;
            minimum = 0x10000;
        } else {
            append_wide(out, kReplacement);
            ++i;
            continue;
        }
        bool valid = i + static_cast<std::size_t>(extra) < text.size();
        for (int k = 1; valid && k <= extra; ++k) {
            const auto next = static_cast<std::uint8_t>(text[i + k]);
            if ((next & 0xC0) != 0x80) {
                valid = false;
            } else {
                c = c << 6 | (next & 0x3F);
            }
        }
        if (!valid || c < minimum || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
            append_wide(out, kReplacement);
            ++i;
            continue;
        }
        append_wide(out, c);
        i += static_cast<std::size_t>(extra) + 1;
    }
    return out;
}

} // namespace sim
