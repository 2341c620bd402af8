// The progress line drawn after each full transfer of a download: a bar of '+', a spinner and
// the percentage of the transfers finished before the one that just ended.
#pragma once

#include <cstdint>

// Process-wide and never reset, so the spinner keeps turning across retries and the activation.
extern std::int32_t spinnerCounter;

// floor(index / transferCount * 100), every step in single precision, as the line has always
// shown it (53 of 100 shows 52). transferCount must not be 0.
std::uint32_t transfer_percent(std::uint32_t index, std::uint32_t transferCount);

// "/", the horizontal line (console::kHorizontalLine), "\" and "|" for counter modulo 4 = 1, 2,
// 3, 0.
const char* spinner_character(std::int32_t counter);

// Advances spinnerCounter and prints "\r\t<bar> <spinner> : <percent>%" with no line end.
void draw_progress_line(std::uint32_t percent);
