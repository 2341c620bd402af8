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

// Unbuffered: every byte reaches the sink at once, so the channels stay in program order.
class SinkBuffer : public std::streambuf {
public:
    explicit SinkBuffer(Sink& sink) : sink_(sink) {}

protected:
    int_type overflow(int_type ch) override {
        if (traits_type::eq_int_type(ch, traits_type::eof())) {
            return traits_type::not_eof(ch);
        }
        const char c = traits_type::to_char_type(ch);
        sink_(&c, 1);
        return ch;
    }
    std::streamsize xsputn(const char* bytes, std::streamsize count) override {
        if (count > 0) {
            sink_(bytes, static_cast<std::size_t>(count));
        }
        return count;
    }

private:
    Sink& sink_;
};

} // namespace

std::ostream& out() {
    static SinkBuffer buffer(stdout_sink());
    static std::ostream stream(&buffer);
    return stream;
}

std::ostream& err() {
    static SinkBuffer buffer(stderr_sink());
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
        stdout_sink()(bytes.data(), bytes.size());
    }
    return *this;
}

WideOut& WideOut::operator<<(const wchar_t* text) {
    return *this << std::wstring_view(text != nullptr ? text : L"");
}

WideOut& WideOut::operator<<(int value) {
    const std::string digits = std::to_string(value);
    stdout_sink()(digits.data(), digits.size());
    return *this;
}

WideOut& wout() {
    static WideOut channel;
    return channel;
}

WideOut& wendl(WideOut& channel) {
    stdout_sink()("\n", 1);
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
        stdout_sink()(text.data(), static_cast<std::size_t>(size));
    }
    va_end(args);
}

void wprint(const wchar_t* text) {
    wout() << text;
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
