#include "platform/console.hpp"

#ifndef _WIN32
#include <unistd.h>
#endif

// The simulated machine's console is the Windows console: into a pipe or a file it writes the
// raw byte 0xC4, as the transcripts hold it. A terminal off Windows shows that byte as a stray
// character, so there it gets the line the byte stands for in code page 437, U+2500 in UTF-8.
#ifdef _WIN32
const char* const console::kHorizontalLine = "\xC4";
#else
const char* const console::kHorizontalLine = isatty(STDOUT_FILENO) ? "\xE2\x94\x80" : "\xC4";
#endif
