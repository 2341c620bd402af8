// The console channels. Narrow text, wide text and printf-style output share one ordered byte
// sink per standard stream, so their output never reorders. Wide text is converted once, at the
// sink: UTF-8 off Windows, the console's code page on Windows. Bytes printed as bytes pass
// unchanged; the spinner's line is written in the form the executable's terminal shows.
#pragma once

#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#if defined(__MINGW32__)
#define QUENMARK_PRINTF_FORMAT(f, a) __attribute__((format(gnu_printf, f, a)))
#else
#define QUENMARK_PRINTF_FORMAT(f, a) __attribute__((format(printf, f, a)))
#endif

namespace console {

using Sink = std::function<void(const char* bytes, std::size_t count)>;

// The progress spinner's horizontal line, the byte 0xC4 of the OEM code page 437. Quenmark.exe
// and quenmark-sim (whose transcripts are the Windows console's) write that byte; the Linux build
// writes U+2500 in UTF-8, which a Linux terminal shows as the same line. Each backend defines it.
extern const char* const kHorizontalLine;

// The narrow standard-output stream. It keeps its number base and letter case from one use to
// the next, as the messages that switch to hexadecimal expect.
std::ostream& out();
// The narrow standard-error stream.
std::ostream& err();

// The wide standard-output channel: device paths, file names, arguments.
class WideOut {
public:
    WideOut& operator<<(const wchar_t* text);
    WideOut& operator<<(std::wstring_view text);
    WideOut& operator<<(int value); // decimal, with its sign
    WideOut& operator<<(WideOut& (*manipulator)(WideOut&)) { return manipulator(*this); }
};
WideOut& wout();
// A line end on the wide channel: a newline, then a flush.
WideOut& wendl(WideOut& channel);

// printf-style output to standard output.
void printf(const char* format, ...) QUENMARK_PRINTF_FORMAT(1, 2);
// The wide formatted print, for the one wide message that has no argument.
void wprint(const wchar_t* text);

// Wide text to the bytes the console shows.
std::string to_console_bytes(std::wstring_view text);

// Error and warning lines. While a Message lives, every line printed on either stream is also
// handed, as UTF-8 without its line end and the blanks around it, to the message listener: a
// record of the run lists them beside the text that printed them. A Message inside another
// adds its lines to the outer one, with the outer one's severity.
enum class Severity { Error, Warning };
using MessageListener = std::function<void(Severity severity, std::string text)>;
void set_message_listener(MessageListener listener); // an empty listener: none
class Message {
public:
    explicit Message(Severity severity);
    ~Message();
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

private:
    bool opened_; // false inside another Message: its lines are the outer one's
};

// A run that writes a document instead of its console texts: while muted, nothing printed on
// standard output reaches it (standard error and the message listener are unchanged);
// write_standard_output writes to it in either state.
void mute_standard_output(bool muted);
void write_standard_output(std::string_view bytes);

// Tests capture the two streams; reset_sinks restores the process's own standard streams.
void set_sinks(Sink standardOutput, Sink standardError);
void reset_sinks();
// Back to decimal, lower-case hexadecimal: a fresh process's stream state.
void reset_stream_state();

} // namespace console
