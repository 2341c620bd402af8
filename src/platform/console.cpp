#include "platform/console.hpp"
#include "platform/utf8.hpp"

#include <cstdarg>
#include <cstdio>
#include <streambuf>
#include <vector>

#ifdef _WIN32
#include <windows.h>
#endif

namespace console {
namespace {

void write_stdout(const char* bytes, std::size_t count) {
    std::fwrite(bytes, 1, count, stdout);
    std::fflush(stdout);
}

void write_stderr(const char* bytes, std::size_t count) {
    std::fwrite(bytes, 1, count, stderr);
    std::fflush(stderr);
}

Sink& stdout_sink() {
    static Sink sink = write_stdout;
    return sink;
}

Sink& stderr_sink() {
    static Sink sink = write_stderr;
    return sink;
}

struct MessageState {
    MessageListener listener;
    bool open = false;
    Severity severity = Severity::Error;
    std::string bytes; // printed since the message opened
};

MessageState& message_state() {
    static MessageState state;
    return state;
}

bool& standard_output_muted() {
    static bool muted = false;
    return muted;
}

// The text the console showed for the bytes of a line.
std::string console_bytes_to_utf8(const std::string& bytes) {
#ifdef _WIN32
    const UINT codePage = GetConsoleOutputCP() != 0 ? GetConsoleOutputCP() : CP_OEMCP;
    const int size =
        MultiByteToWideChar(codePage, 0, bytes.data(), static_cast<int>(bytes.size()), nullptr, 0);
    std::wstring text(static_cast<std::size_t>(size > 0 ? size : 0), L'\0');
    if (size > 0) {
        MultiByteToWideChar(codePage, 0, bytes.data(), static_cast<int>(bytes.size()), text.data(),
                            size);
    }
    return utf8::to_utf8(text);
#else
    return utf8::to_utf8(utf8::decode_utf8(bytes));
#endif
}

void capture(const char* bytes, std::size_t count) {
    MessageState& state = message_state();
    if (state.open && state.listener) {
        state.bytes.append(bytes, count);
    }
}

void emit_stdout(const char* bytes, std::size_t count) {
    capture(bytes, count);
    if (!standard_output_muted()) {
        stdout_sink()(bytes, count);
    }
}

void emit_stderr(const char* bytes, std::size_t count) {
    capture(bytes, count);
    stderr_sink()(bytes, count);
}

using Emit = void (*)(const char* bytes, std::size_t count);

// Unbuffered: every byte reaches the sink at once, so the channels stay in program order.
class SinkBuffer : public std::streambuf {
public:
    explicit SinkBuffer(Emit emit) : emit_(emit) {}

protected:
    int_type overflow(int_type ch) override {
        if (traits_type::eq_int_type(ch, traits_type::eof())) {
            return traits_type::not_eof(ch);
        }
        const char c = traits_type::to_char_type(ch);
        emit_(&c, 1);
        return ch;
    }
    std::streamsize xsputn(const char* bytes, std::streamsize count) override {
        if (count > 0) {
            emit_(bytes, static_cast<std::size_t>(count));
        }
        return count;
    }

private:
    Emit emit_;
};

} // namespace

std::ostream& out() {
    static SinkBuffer buffer(emit_stdout);
    static std::ostream stream(&buffer);
    return stream;
}

std::ostream& err() {
    static SinkBuffer buffer(emit_stderr);
    static std::ostream stream(&buffer);
    return stream;
}

std::string to_console_bytes(std::wstring_view text) {
    std::string bytes;
#ifdef _WIN32
    if (text.empty()) {
        return bytes;
    }
    const UINT codePage = GetConsoleOutputCP() != 0 ? GetConsoleOutputCP() : CP_OEMCP;
    const int size = WideCharToMultiByte(codePage, 0, text.data(), static_cast<int>(text.size()),
                                         nullptr, 0, nullptr, nullptr);
    if (size > 0) {
        bytes.resize(static_cast<std::size_t>(size));
        WideCharToMultiByte(codePage, 0, text.data(), static_cast<int>(text.size()), bytes.data(),
                            size, nullptr, nullptr);
    }
#else
    bytes = utf8::to_utf8(text);
#endif
    return bytes;
}

WideOut& WideOut::operator<<(std::wstring_view text) {
    const std::string bytes = to_console_bytes(text);
    if (!bytes.empty()) {
        emit_stdout(bytes.data(), bytes.size());
    }
    return *this;
}

WideOut& WideOut::operator<<(const wchar_t* text) {
    return *this << std::wstring_view(text != nullptr ? text : L"");
}

WideOut& WideOut::operator<<(int value) {
    const std::string digits = std::to_string(value);
    emit_stdout(digits.data(), digits.size());
    return *this;
}

WideOut& wout() {
    static WideOut channel;
    return channel;
}

WideOut& wendl(WideOut& channel) {
    emit_stdout("\n", 1);
    return channel;
}

void printf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    const int size = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (size > 0) {
        std::vector<char> text(static_cast<std::size_t>(size) + 1);
        std::vsnprintf(text.data(), text.size(), format, args);
        emit_stdout(text.data(), static_cast<std::size_t>(size));
    }
    va_end(args);
}

void wprint(const wchar_t* text) {
    wout() << text;
}

void set_message_listener(MessageListener listener) {
    message_state().listener = std::move(listener);
}

Message::Message(Severity severity) : opened_(!message_state().open) {
    MessageState& state = message_state();
    if (opened_) {
        state.open = true;
        state.severity = severity;
        state.bytes.clear();
    }
}

Message::~Message() {
    MessageState& state = message_state();
    if (!opened_) {
        return;
    }
    state.open = false;
    std::string bytes;
    bytes.swap(state.bytes);
    if (!state.listener) {
        return;
    }
    std::size_t start = 0;
    while (start < bytes.size()) {
        std::size_t end = bytes.find('\n', start);
        if (end == std::string::npos) {
            end = bytes.size();
        }
        const std::size_t first = bytes.find_first_not_of(" \t\r", start);
        if (first != std::string::npos && first < end) {
            const std::size_t last = bytes.find_last_not_of(" \t\r", end - 1);
            state.listener(state.severity,
                           console_bytes_to_utf8(bytes.substr(first, last + 1 - first)));
        }
        start = end + 1;
    }
}

void mute_standard_output(bool muted) {
    standard_output_muted() = muted;
}

void write_standard_output(std::string_view bytes) {
    if (!bytes.empty()) {
        stdout_sink()(bytes.data(), bytes.size());
    }
}

void set_sinks(Sink standardOutput, Sink standardError) {
    stdout_sink() = std::move(standardOutput);
    stderr_sink() = std::move(standardError);
}

void reset_sinks() {
    set_sinks(write_stdout, write_stderr);
}

void reset_stream_state() {
    for (std::ostream* stream : {&out(), &err()}) {
        stream->flags(std::ios_base::dec | std::ios_base::skipws);
        stream->fill(' ');
        stream->width(0);
        stream->precision(6);
        stream->clear();
    }
}

} // namespace console
