// Error and warning lines reach the message listener as they were printed, whether standard
// output is shown or muted for a document.
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "platform/console.hpp"
#include "unit/support/console_capture.hpp"

namespace {

struct Listened {
    std::vector<std::string> lines;
    Listened() {
        console::set_message_listener([this](console::Severity severity, std::string text) {
            lines.push_back((severity == console::Severity::Error ? "E " : "W ") + text);
        });
    }
    ~Listened() { console::set_message_listener(nullptr); }
};

TEST(ConsoleMessage, KeepsEachLineOfTheMessageTrimmedWithItsSeverity) {
    ConsoleCapture output;
    Listened listened;
    console::out() << "\t+ / : 0%"; // the progress line the failure follows
    {
        const console::Message message(console::Severity::Error);
        console::printf(" Status = 0x%x", 0x51);
        console::out() << "\n \r\n";
        console::err() << "Firmware file is empty: fw.bin" << std::endl;
        const console::Message inner(console::Severity::Warning);
        console::wout() << L"\tCould not get CSMI phy information for \u00e9" << console::wendl;
    }
    {
        const console::Message message(console::Severity::Warning);
        console::out() << "\n\n\tPLEASE DO NOT CLOSE\n\n\n";
    }
    console::out() << "not a message" << std::endl;
    EXPECT_EQ(listened.lines, (std::vector<std::string>{
                                  "E Status = 0x51",
                                  "E Firmware file is empty: fw.bin",
                                  "E Could not get CSMI phy information for \xC3\xA9",
                                  "W PLEASE DO NOT CLOSE",
                              }));
}

TEST(ConsoleMessage, MutedStandardOutputStillGivesItsMessagesAndStandardErrorIsShown) {
    ConsoleCapture output;
    Listened listened;
    console::mute_standard_output(true);
    {
        const console::Message message(console::Severity::Error);
        console::out() << "IO Error [121]" << std::endl;
        console::err() << "timed out" << std::endl;
    }
    console::printf("  MN: %s\n", "QSIM");
    console::write_standard_output("{}\n");
    console::mute_standard_output(false);
    EXPECT_EQ(output.out, "{}\n");
    EXPECT_EQ(output.err, "timed out\n");
    EXPECT_EQ(listened.lines, (std::vector<std::string>{"E IO Error [121]", "E timed out"}));
}

} // namespace
