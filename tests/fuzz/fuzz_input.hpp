// What every target shares: a forward reader over the fuzz input that yields zeros once the
// input is used up (so that a short input is still a whole, valid case), the console sinks that
// discard everything, and the checks that end a run with a report libFuzzer records as a crash.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "platform/console.hpp"

namespace fuzz {

class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

    bool empty() const { return offset_ >= size_; }

    std::uint8_t u8() { return offset_ < size_ ? data_[offset_++] : 0; }
    std::uint16_t u16() {
        const std::uint16_t low = u8();
        return static_cast<std::uint16_t>(low | u8() << 8);
    }
    std::uint32_t u32() {
        const std::uint32_t low = u16();
        return low | static_cast<std::uint32_t>(u16()) << 16;
    }
    bool flag() { return (u8() & 1) != 0; }

    // count bytes, zero-filled past the end of the input.
    void bytes(std::uint8_t* out, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            out[i] = u8();
        }
    }
    // Up to count bytes, as many as the input still holds.
    std::vector<std::uint8_t> rest(std::size_t count) {
        std::vector<std::uint8_t> out;
        while (out.size() < count && !empty()) {
            out.push_back(u8());
        }
        return out;
    }

private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t offset_ = 0;
};

// Both standard streams go nowhere, and the narrow stream starts in a fresh process's state.
// FUZZ_SHOW_OUTPUT=1 in the environment keeps the program's output, to see what an input does.
inline void discard_console() {
    console::reset_stream_state();
    static const bool show = std::getenv("FUZZ_SHOW_OUTPUT") != nullptr;
    if (show) {
        console::reset_sinks();
        return;
    }
    console::set_sinks([](const char*, std::size_t) {}, [](const char*, std::size_t) {});
}

// A broken invariant: one line on the real standard error, then abort, which libFuzzer reports
// as a crash and keeps the input.
[[noreturn]] inline void fail(const char* what) {
    std::fprintf(stderr, "fuzz invariant broken: %s\n", what);
    std::abort();
}

inline void expect(bool condition, const char* what) {
    if (!condition) {
        fail(what);
    }
}

} // namespace fuzz
