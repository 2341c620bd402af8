#include "platform/utf8.hpp"

#include <cstdint>

namespace utf8 {
namespace {

constexpr wchar_t kReplacement = 0xFFFD;

bool is_continuation(unsigned char byte) {
    return (byte & 0xC0) == 0x80;
}

bool is_scalar_value(char32_t cp) {
    return cp <= 0x10FFFF && !(cp >= 0xD800 && cp <= 0xDFFF);
}

void append_utf8(std::string& out, char32_t cp) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

} // namespace

std::wstring decode_utf8(std::string_view bytes) {
    std::wstring text;
    text.reserve(bytes.size());
    std::size_t i = 0;
    while (i < bytes.size()) {
        const auto lead = static_cast<unsigned char>(bytes[i]);
        std::size_t length = 0;
        char32_t cp = 0;
        char32_t minimum = 0;
        if (lead < 0x80) {
            text.push_back(static_cast<wchar_t>(lead));
            ++i;
            continue;
        }
        if ((lead & 0xE0) == 0xC0) {
            length = 2;
            cp = lead & 0x1F;
            minimum = 0x80;
        } else if ((lead & 0xF0) == 0xE0) {
            length = 3;
            cp = lead & 0x0F;
            minimum = 0x800;
        } else if ((lead & 0xF8) == 0xF0) {
            length = 4;
            cp = lead & 0x07;
            minimum = 0x10000;
        }
        bool valid = length != 0 && i + length <= bytes.size();
        for (std::size_t k = 1; valid && k < length; ++k) {
            const auto next = static_cast<unsigned char>(bytes[i + k]);
            valid = is_continuation(next);
            cp = (cp << 6) | (next & 0x3F);
        }
        valid = valid && cp >= minimum && cp <= 0x10FFFF && !(cp >= 0xD800 && cp <= 0xDFFF);
        if (!valid) {
            text.push_back(kReplacement);
            ++i;
            continue;
        }
        text.push_back(static_cast<wchar_t>(cp));
        i += length;
    }
    return text;
}

bool encode_utf8(std::wstring_view text, std::string& bytes) {
    bytes.clear();
    bytes.reserve(text.size());
    for (const wchar_t ch : text) {
        const auto cp = static_cast<char32_t>(ch);
        if (cp == 0 || !is_scalar_value(cp)) {
            return false;
        }
        append_utf8(bytes, cp);
    }
    return true;
}

std::string to_utf8(std::wstring_view text) {
    std::string bytes;
    bytes.reserve(text.size());
    for (const wchar_t ch : text) {
        const auto cp = static_cast<char32_t>(ch);
        append_utf8(bytes, is_scalar_value(cp) ? cp : char32_t{kReplacement});
    }
    return bytes;
}

} // namespace utf8
