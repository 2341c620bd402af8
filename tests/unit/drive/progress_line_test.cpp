#include "drive/progress_line.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/console.hpp"

namespace {

// Captures standard output for the life of the object.
struct CapturedOutput {
    std::string text;
    CapturedOutput() {
        console::set_sinks(
            [this](const char* bytes, std::size_t count) { text.append(bytes, count); },
            [](const char*, std::size_t) {});
    }
    ~CapturedOutput() { console::reset_sinks(); }
};

TEST(TransferPercent, IsRoundedDownInSinglePrecision) {
    struct Case {
        std::uint32_t index, count, percent;
    };
    const Case cases[] = {
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
    for (const Case& c : cases) {
        EXPECT_EQ(transfer_percent(c.index, c.count), c.percent) << c.index << "/" << c.count;
    }
}

TEST(SpinnerCharacter, TurnsThroughFourCharactersByCounterModuloFour) {
    EXPECT_STREQ(spinner_character(0), "|");
    EXPECT_STREQ(spinner_character(1), "/");
    EXPECT_STREQ(spinner_character(2), "\xC4");
    EXPECT_STREQ(spinner_character(3), "\\");
    EXPECT_STREQ(spinner_character(4), "|");
    EXPECT_STREQ(spinner_character(5), "/");
}

// The bar grows by one '+' per 5 %, a percentage of exactly 1 shows as 0, and the spinner moves
// one step per line, carried on from whatever was drawn before.
TEST(DrawProgressLine, PrintsBarSpinnerAndShownPercentage) {
    struct Case {
        std::uint32_t percent;
        std::string bar;
        std::string shown;
    };
    const std::vector<Case> cases = {
        {0, "+", "0"},
        {1, "+", "0"},
        {2, "+", "2"},
        {4, "+", "4"},
        {5, "++", "5"},
        {52, "+++++++++++", "52"},
        {95, std::string(20, '+'), "95"},
        {99, std::string(20, '+'), "99"},
    };
    for (const Case& c : cases) {
        CapturedOutput output;
        const std::int32_t before = spinnerCounter;
        draw_progress_line(c.percent);
        EXPECT_EQ(spinnerCounter, before + 1);
        const std::string expected =
            "\r\t" + c.bar + " " + spinner_character(before + 1) + " : " + c.shown + "%";
        EXPECT_EQ(output.text, expected) << c.percent;
    }
}

} // namespace
