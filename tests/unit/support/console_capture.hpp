// Captures what the program prints, for the length of a test.
#pragma once

#include <string>

#include "platform/console.hpp"

struct ConsoleCapture {
    std::string out;
    std::string err;

    ConsoleCapture() {
        console::reset_stream_state();
        console::set_sinks([this](const char* b, std::size_t n) { out.append(b, n); },
                           [this](const char* b, std::size_t n) { err.append(b, n); });
    }
    ~ConsoleCapture() {
        console::reset_sinks();
        console::reset_stream_state();
    }
    ConsoleCapture(const ConsoleCapture&) = delete;
    ConsoleCapture& operator=(const ConsoleCapture&) = delete;
};
