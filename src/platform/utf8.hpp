// Wide text (UTF-32 off Windows) and the UTF-8 bytes of Linux arguments, paths and consoles.
#pragma once

#include <string>
#include <string_view>

namespace utf8 {

// Bytes that are no UTF-8 (a stray continuation byte, a truncated, overlong or surrogate
// sequence, a value above U+10FFFF) become U+FFFD one byte at a time, so such a name never
// silently turns into another existing one.
std::wstring decode_utf8(std::string_view bytes);

// False when the text holds a character that UTF-8 cannot carry (a surrogate, a value above
// U+10FFFF) or a NUL, which would cut the name short at the kernel.
bool encode_utf8(std::wstring_view text, std::string& bytes);

// For display: a character UTF-8 cannot carry becomes U+FFFD.
std::string to_utf8(std::wstring_view text);

} // namespace utf8
