#include "drive/progress_line.hpp"

#include <cfloat>
#include <cmath>
#include <cstring>

#include "platform/console.hpp"

// The shown percentages depend on float arithmetic not being widened to double.
static_assert(FLT_EVAL_METHOD == 0, "single-precision arithmetic must stay single precision");

std::int32_t spinnerCounter = 0;

std::uint32_t transfer_percent(std::uint32_t index, std::uint32_t transferCount) {
    const float fraction = static_cast<float>(index) / static_cast<float>(transferCount);
    return static_cast<std::uint32_t>(std::floor(fraction * 100.0f));
}

const char* spinner_character(std::int32_t counter) {
    switch (counter % 4) {
    case 1:
        return "/";
    case 2:
        return console::kHorizontalLine;
    case 3:
        return "\\";
    default:
        return "|";
    }
}

void draw_progress_line(std::uint32_t percent) {
    // Wraps rather than overflowing; two billion transfers never happen in one process anyway.
    spinnerCounter = static_cast<std::int32_t>(static_cast<std::uint32_t>(spinnerCounter) + 1u);
    const char* spinner = spinner_character(spinnerCounter);

    constexpr std::uint32_t kBarMax = 20; // at 95 % to 99 %
    char bar[kBarMax + 1];
    std::uint32_t barLength = percent / 5 + 1;
    if (barLength > kBarMax) {
        barLength = kBarMax;
    }
    std::memset(bar, '+', barLength);
    bar[barLength] = '\0';

    // A percentage of exactly 1 has always been shown as 0; the bar still counts it.
    const double shown = percent == 1 ? 0.0 : static_cast<double>(percent);
    console::printf("\r\t%s %s : %.f%%", bar, spinner, shown);
}
