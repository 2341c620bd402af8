#include <cstring>
#include <cwchar>
#include <ostream>
#include <string>

#include "app/command_line.hpp"
#include "csmi/csmi.hpp"
#include "platform/console.hpp"
#include "platform/win32.hpp"

namespace {

constexpr int kExitCommandLine = 8;
constexpr std::size_t kMaxPathCharacters = kPathUnits - 1;
// "N,AAAAAAAAAAAAAAAA": one port digit, a comma, sixteen hexadecimal digits.
constexpr std::size_t kPortAddressLength = 18;

bool begins_with(const wchar_t* text, const wchar_t* prefix) {
    return std::wcsncmp(text, prefix, std::wcslen(prefix)) == 0;
}

bool is_blank(wchar_t c) {
    return c == L' ' || c == L'\t' || c == L'\n' || c == L'\v' || c == L'\f' || c == L'\r';
}

// Leading blanks and a sign, then digits up to the first non-digit; values beyond the 32-bit
// range are clamped. Sets digitsSeen and overflowed for the callers that must refuse them.
std::int32_t read_decimal(const wchar_t* text, bool& digitsSeen, bool& overflowed) {
    digitsSeen = false;
    overflowed = false;
    while (is_blank(*text)) {
        ++text;
    }
    bool negative = false;
    if (*text == L'+' || *text == L'-') {
        negative = *text == L'-';
        ++text;
    }
    std::int64_t magnitude = 0;
    const std::int64_t limit = negative ? 2147483648LL : 2147483647LL;
    for (; *text >= L'0' && *text <= L'9'; ++text) {
        digitsSeen = true;
        magnitude = magnitude * 10 + (*text - L'0');
        if (magnitude > limit) {
            overflowed = true;
            magnitude = limit;
        }
    }
    return static_cast<std::int32_t>(negative ? -magnitude : magnitude);
}

// The phy number after /C:...: is read leniently: no digits give 0, and it never fails.
std::int32_t read_phy_number(const wchar_t* text) {
    bool digitsSeen = false;
    bool overflowed = false;
    return read_decimal(text, digitsSeen, overflowed);
}

int hex_digit(wchar_t c) {
    if (c >= L'0' && c <= L'9') {
        return c - L'0';
    }
    if (c >= L'a' && c <= L'f') {
        return c - L'a' + 10;
    }
    if (c >= L'A' && c <= L'F') {
        return c - L'A' + 10;
    }
    return -1;
}

bool copy_path(wchar_t (&field)[kPathUnits], const wchar_t* text, std::size_t length) {
    if (length > kMaxPathCharacters) {
        return false;
    }
    std::wmemcpy(field, text, length);
    field[length] = L'\0';
    return true;
}

// The download time-out: decimal digits only, 1 to 3600. A time-out is no place for a guess: a
// typo that read as 0 or as a clamped huge value would change how the host treats a slow drive.
bool read_timeout_seconds(const wchar_t* text, std::uint32_t& seconds) {
    std::uint32_t value = 0;
    if (*text == L'\0') {
        return false;
    }
    for (; *text != L'\0'; ++text) {
        if (*text < L'0' || *text > L'9') {
            return false;
        }
        value = value * 10 + static_cast<std::uint32_t>(*text - L'0');
        if (value > kMaxDownloadTimeoutSeconds) {
            return false;
        }
    }
    if (value == 0) {
        return false;
    }
    seconds = value;
    return true;
}

ParseResult end_run() {
    return {false, kExitCommandLine};
}

ParseResult invalid_option(const wchar_t* argument, const char* programName) {
    {
        const console::Message message(console::Severity::Error);
        console::wout() << L"Invalid Command Line Option: " << argument << console::wendl;
    }
    print_usage(programName);
    return end_run();
}

ParseResult error_at(const wchar_t* argument, const char* programName) {
    {
        const console::Message message(console::Severity::Error);
        console::wout() << console::wendl << L"Error in command line at " << argument
                        << console::wendl;
    }
    print_usage(programName);
    return end_run();
}

// "\\.\SCSI3:1" or "2,0000000500000000", without the /C: prefix.
bool parse_csmi_device(const wchar_t* text, RunOptions& options) {
    const wchar_t* lastColon = std::wcsrchr(text, L':');
    if (lastColon != nullptr) {
        options.phyNumber = read_phy_number(lastColon + 1);
        return copy_path(options.devicePath, text, static_cast<std::size_t>(lastColon - text) + 1);
    }
    if (std::wcschr(text, L',') == nullptr) {
        return false;
    }
    // The fields stand at fixed places; anything shorter, longer or not hexadecimal is refused
    // rather than guessed at.
    if (std::wcslen(text) != kPortAddressLength || text[1] != L',' || text[0] < L'0' ||
        text[0] > L'9') {
        return false;
    }
    std::uint8_t address[8];
    for (int i = 0; i < 8; ++i) {
        const int high = hex_digit(text[2 + 2 * i]);
        const int low = hex_digit(text[3 + 2 * i]);
        if (high < 0 || low < 0) {
            return false;
        }
        address[i] = static_cast<std::uint8_t>(high << 4 | low);
    }
    std::wstring path = kScsiPortPrefix;
    path += text[0];
    path += L':';
    std::memcpy(options.sasAddress, address, sizeof address);
    options.phyNumber = -1;
    return copy_path(options.devicePath, path.c_str(), path.size());
}

} // namespace

CommandLine read_command_line(int argumentCount, char** arguments) {
    CommandLine commandLine{false, {}, {}, false};
    if (argumentCount < 2) {
        return commandLine;
    }
    int wideCount = 0;
    win32::LPWSTR* wide = win32::CommandLineToArgvW(win32::GetCommandLineW(), &wideCount);
    if (wide == nullptr) {
        for (int i = 1; arguments != nullptr && i < argumentCount; ++i) {
            commandLine.json = commandLine.json || std::strcmp(arguments[i], "--json") == 0;
        }
        return commandLine;
    }
    commandLine.read = true;
    bool valueNext = false;
    for (int i = 1; i < wideCount; ++i) {
        const std::wstring argument = wide[i];
        commandLine.typed.push_back(argument);
        const bool json = argument == L"--json";
        commandLine.json = commandLine.json || json;
        if (json && !valueNext) {
            continue;
        }
        // The first option names the device; the arguments after /g, /r and /t are values.
        valueNext = !valueNext && !commandLine.options.empty() &&
                    (begins_with(argument.c_str(), L"/g") || begins_with(argument.c_str(), L"/r") ||
                     begins_with(argument.c_str(), L"/t"));
        commandLine.options.push_back(argument);
    }
    return commandLine;
}

ParseResult parse_command_line(int argumentCount, const char* programName, DeviceContext& context,
                               RunOptions& options) {
    return parse_command_line(read_command_line(argumentCount, nullptr), argumentCount, programName,
                              context, options);
}

ParseResult parse_command_line(const CommandLine& commandLine, int argumentCount,
                               const char* programName, DeviceContext& context,
                               RunOptions& options) {
    if (argumentCount < 2) {
        print_banner();
        print_usage(programName);
        return end_run();
    }
    if (!commandLine.read) {
        const console::Message message(console::Severity::Error);
        console::wprint(L"CommandLineToArgvW failed\n");
        return end_run();
    }
    const std::vector<std::wstring>& arguments = commandLine.options;
    const int count = static_cast<int>(arguments.size());
    if (count < 1) {
        // The wide command line disagrees with main's arguments: nothing names a device.
        print_banner();
        print_usage(programName);
        return end_run();
    }

    const wchar_t* first = arguments[0].c_str();
    if (begins_with(first, L"/h") || begins_with(first, L"/H")) {
        print_banner();
        print_usage(programName);
        return end_run();
    }
    if (begins_with(first, L"--scan")) {
        context.interfaceKind = ScanRequested;
    } else if (begins_with(first, L"/C:")) {
        context.interfaceKind = Csmi;
        if (!parse_csmi_device(first + 3, options)) {
            return invalid_option(first, programName);
        }
    } else if (begins_with(first, L"/T:")) {
        context.interfaceKind = AtaPassThrough;
        if (!copy_path(options.devicePath, first + 3, std::wcslen(first + 3))) {
            return invalid_option(first, programName);
        }
    } else if (!copy_path(options.devicePath, first, std::wcslen(first))) {
        return invalid_option(first, programName);
    }

    for (int i = 1; i < count; ++i) {
        const wchar_t* argument = arguments[i].c_str();
        if (begins_with(argument, L"/D:")) {
            if (!copy_path(options.request.fileName, argument + 3, std::wcslen(argument + 3))) {
                return error_at(argument, programName);
            }
            context.interfaceKind |= DownloadRequested;
        } else if (begins_with(argument, L"/s")) {
            options.request.downloadMode = kModeSegmented;
        } else if (begins_with(argument, L"/g") || begins_with(argument, L"/r")) {
            const bool segment = begins_with(argument, L"/g");
            if (i + 1 >= count) {
                return error_at(argument, programName);
            }
            const wchar_t* number = arguments[++i].c_str();
            bool digitsSeen = false;
            bool overflowed = false;
            const std::int32_t value = read_decimal(number, digitsSeen, overflowed);
            if (!digitsSeen || overflowed) {
                return error_at(number, programName);
            }
            if (!segment) {
                options.retryCount = value;
            } else if ((value & 0xFF) != 0) {
                options.request.segmentBlocks = static_cast<std::uint8_t>(value & 0xFF);
            }
        } else if (begins_with(argument, L"/vv")) {
            context.verbose = 2;
        } else if (begins_with(argument, L"/v")) {
            context.verbose = 1;
        } else if (begins_with(argument, L"/i")) {
            context.interfaceKind |= InfoRequested;
        } else if (begins_with(argument, L"/e")) {
            options.request.downloadMode = kModeDeferred;
        } else if (begins_with(argument, L"/a")) {
            context.interfaceKind |= ActivateRequested;
        } else if (begins_with(argument, L"/l")) {
            context.optionL = 1;
        } else if (begins_with(argument, L"/t")) {
            if (i + 1 >= count) {
                return error_at(argument, programName);
            }
            const wchar_t* seconds = arguments[++i].c_str();
            if (!read_timeout_seconds(seconds, options.request.timeoutSeconds)) {
                return error_at(seconds, programName);
            }
        } else {
            return error_at(argument, programName);
        }
    }
    return {true, 0};
}
