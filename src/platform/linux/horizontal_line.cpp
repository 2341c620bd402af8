#include "platform/console.hpp"

// U+2500 BOX DRAWINGS LIGHT HORIZONTAL, the character 0xC4 stands for in code page 437.
const char* const console::kHorizontalLine = "\xE2\x94\x80";
