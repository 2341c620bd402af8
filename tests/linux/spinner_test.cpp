// The Linux build's progress line: a Linux terminal shows the spinner's line only in UTF-8.
#include <gtest/gtest.h>

#include <string>

#include "drive/progress_line.hpp"
#include "unit/support/console_capture.hpp"

namespace {

TEST(LinuxSpinner, DrawsTheHorizontalLineInUtf8) {
    ConsoleCapture output;
    spinnerCounter = 0;
    draw_progress_line(0);
    draw_progress_line(50);
    EXPECT_EQ(output.out, "\r\t+ / : 0%\r\t+++++++++++ \xE2\x94\x80 : 50%");
}

} // namespace
