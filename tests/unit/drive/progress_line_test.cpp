#include "drive/progress_line.hpp"

#include <gtest/gtest.h>

#include <string>

#include "unit/support/console_capture.hpp"

namespace {

TEST(TransferPercent, IsRoundedDownInSinglePrecision) {
    const struct {
        std::uint32_t index, count, percent;
    } cases[] = {
        {0, 1, 0},
        {0, 3, 0},
        {1, 3, 33},
        {2, 3, 66},
        {53, 100, 52},
        {54, 100, 54},
        {99, 100, 99},
        {1, 100, 1},
        {65534, 65535, 99},
        // The product rounds up to a whole number in single precision; in double it would not.
        {7, 10, 70},
        {1, 25, 4},
        {19, 20, 95},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(transfer_percent(c.index, c.count), c.percent) << c.index << "/" << c.count;
    }
}

// The bar grows by one '+' per 5 %, a percentage of exactly 1 shows as 0, and the spinner moves
// one step per line, carried on from whatever was drawn before.
TEST(DrawProgressLine, PrintsBarSpinnerAndShownPercentage) {
    const struct {
        std::uint32_t percent;
        std::size_t bar;
        const char* shown;
    } cases[] = {{0, 1, "0"}, {1, 1, "0"},    {2, 1, "2"},    {4, 1, "4"},
                 {5, 2, "5"}, {52, 11, "52"}, {95, 20, "95"}, {99, 20, "99"}};
    for (const auto& c : cases) {
        ConsoleCapture output;
        const std::int32_t before = spinnerCounter;
        draw_progress_line(c.percent);
        EXPECT_EQ(spinnerCounter, before + 1);
        EXPECT_EQ(output.out, "\r\t" + std::string(c.bar, '+') + " " +
                                  spinner_character(before + 1) + " : " + c.shown + "%")
            << c.percent;
    }
}

} // namespace
