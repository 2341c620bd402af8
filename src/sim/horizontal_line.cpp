#include "platform/console.hpp"

// The simulated machine's console is the Windows console: its transcripts hold the raw byte.
const char* const console::kHorizontalLine = "\xC4";
