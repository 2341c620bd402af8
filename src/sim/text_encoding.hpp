// Wide text to and from UTF-8, whatever the width of wchar_t (UTF-16 on Windows, UTF-32
// elsewhere). Undecodable input becomes U+FFFD instead of failing.
#pragma once

#include <string>
#include <string_view>

namespace sim {

std::string utf8_from_wide(std::wstring_view text);
std::wstring wide_from_utf8(std::string_view text);

} // namespace sim
