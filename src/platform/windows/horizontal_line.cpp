#include "platform/console.hpp"

// The console shows it in its OEM code page, 437 on the machines the tool was made for.
const char* const console::kHorizontalLine = "\xC4";
