// GetCommandLineW and CommandLineToArgvW of the simulated machine. Off Windows the command line
// is the process's own arguments (or the one a test set), quoted as Windows quotes them and split
// by the Windows rules. On Windows (quenmark-sim.exe, under Wine) both calls go to the real
// kernel32 and shell32, so that the program sees the platform's own splitting.
#include <cstdint>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "platform/win32.hpp"
#include "sim/machine.hpp"
#include "sim/process_command_line.hpp"
#include "sim/seam_call.hpp"
#include "sim/text_encoding.hpp"

#ifdef _WIN32
#include <shellapi.h>
#endif

namespace sim {

namespace {

bool is_blank(wchar_t c) {
    return c == L' ' || c == L'\t';
}

std::vector<std::wstring> own_arguments() {
    std::vector<std::wstring> arguments;
#ifndef _WIN32
    std::ifstream file("/proc/self/cmdline", std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)),
                            std::istreambuf_iterator<char>());
    std::string current;
    for (const char c : bytes) {
        if (c == '\0') {
            arguments.push_back(wide_from_utf8(current));
            current.clear();
        } else {
            current += c;
        }
    }
    if (!current.empty()) {
        arguments.push_back(wide_from_utf8(current));
    }
#endif
    return arguments;
}

} // namespace

std::wstring quote_argument(const std::wstring& argument, bool programName) {
    if (programName) {
        // The program name ends at the first blank unless quoted, and knows no escapes.
        const bool needsQuotes =
            argument.empty() || argument.find_first_of(L" \t") != std::wstring::npos;
        return needsQuotes ? L"\"" + argument + L"\"" : argument;
    }
    if (!argument.empty() && argument.find_first_of(L" \t\"") == std::wstring::npos) {
        return argument;
    }
    std::wstring text = L"\"";
    std::size_t backslashes = 0;
    for (const wchar_t c : argument) {
        if (c == L'\\') {
            ++backslashes;
            continue;
        }
        if (c == L'"') {
            // Backslashes before a quote are doubled, and the quote escaped.
            text.append(backslashes * 2 + 1, L'\\');
        } else {
            text.append(backslashes, L'\\');
        }
        backslashes = 0;
        text += c;
    }
    // Backslashes before the closing quote are doubled too.
    text.append(backslashes * 2, L'\\');
    return text + L"\"";
}

std::wstring join_command_line(const std::vector<std::wstring>& arguments) {
    std::wstring line;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        if (i != 0) {
            line += L' ';
        }
        line += quote_argument(arguments[i], i == 0);
    }
    return line;
}

std::vector<std::wstring> split_command_line(const std::wstring& line) {
    std::vector<std::wstring> arguments;
    std::size_t i = 0;
    // The program name: up to the closing quote when it starts with one, else the first blank.
    std::wstring name;
    if (i < line.size() && line[i] == L'"') {
        ++i;
        while (i < line.size() && line[i] != L'"') {
            name += line[i++];
        }
        if (i < line.size()) {
            ++i;
        }
    } else {
        while (i < line.size() && !is_blank(line[i])) {
            name += line[i++];
        }
    }
    arguments.push_back(name);
    for (;;) {
        while (i < line.size() && is_blank(line[i])) {
            ++i;
        }
        if (i >= line.size()) {
            break;
        }
        std::wstring argument;
        bool inQuotes = false;
        while (i < line.size() && (inQuotes || !is_blank(line[i]))) {
            if (line[i] == L'\\') {
                std::size_t count = 0;
                while (i < line.size() && line[i] == L'\\') {
                    ++count;
                    ++i;
                }
                if (i < line.size() && line[i] == L'"') {
                    argument.append(count / 2, L'\\');
                    if (count % 2 == 1) {
                        argument += L'"';
                        ++i;
                    }
                } else {
                    argument.append(count, L'\\');
                }
                continue;
            }
            if (line[i] == L'"') {
                if (inQuotes && i + 1 < line.size() && line[i + 1] == L'"') {
                    argument += L'"'; // "" inside quotes is one literal quote
                    i += 2;
                    continue;
                }
                inQuotes = !inQuotes;
                ++i;
                continue;
            }
            argument += line[i++];
        }
        arguments.push_back(argument);
    }
    return arguments;
}

} // namespace sim

namespace win32 {

LPWSTR GetCommandLineW() {
    sim::Machine& m = sim::machine();
    sim::SeamCall call(m, "GetCommandLineW");
#ifdef _WIN32
    if (!m.commandLine) {
        LPWSTR line = ::GetCommandLineW();
        call.record.result = sim::quote_text(sim::utf8_from_wide(line));
        return line;
    }
#endif
    m.commandLineText =
        sim::join_command_line(m.commandLine ? *m.commandLine : sim::own_arguments());
    call.record.result = sim::quote_text(sim::utf8_from_wide(m.commandLineText));
    return m.commandLineText.data();
}

LPWSTR* CommandLineToArgvW(LPCWSTR commandLine, int* argumentCount) {
    sim::Machine& m = sim::machine();
    sim::SeamCall call(m, "CommandLineToArgvW");
    call.record.request = commandLine != nullptr ? sim::quote_text(sim::utf8_from_wide(commandLine))
                                                 : std::string("null");
    if (call.injected_failure()) {
        return nullptr;
    }
    if (argumentCount == nullptr) {
        call.fail(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
#ifdef _WIN32
    LPWSTR* forwarded = ::CommandLineToArgvW(commandLine, argumentCount);
    if (forwarded == nullptr) {
        call.fail(::GetLastError());
        return nullptr;
    }
    call.record.result = std::to_string(*argumentCount) + " arguments:";
    for (int i = 0; i < *argumentCount; ++i) {
        call.record.result += " " + sim::quote_text(sim::utf8_from_wide(forwarded[i]));
    }
    return forwarded;
#else
    auto block = std::make_unique<sim::ArgumentBlock>();
    if (commandLine == nullptr || *commandLine == L'\0') {
        // An empty line stands for the program itself.
        const std::vector<std::wstring> own = m.commandLine ? *m.commandLine : sim::own_arguments();
        block->texts.push_back(own.empty() ? std::wstring(L"quenmark-sim") : own.front());
    } else {
        block->texts = sim::split_command_line(commandLine);
    }
    for (std::wstring& text : block->texts) {
        block->pointers.push_back(text.data());
    }
    block->pointers.push_back(nullptr);
    *argumentCount = static_cast<int>(block->texts.size());
    call.record.result = std::to_string(*argumentCount) + " arguments:";
    for (const std::wstring& text : block->texts) {
        call.record.result += " " + sim::quote_text(sim::utf8_from_wide(text));
    }
    LPWSTR* result = block->pointers.data();
    m.argumentBlocks.push_back(std::move(block));
    return result;
#endif
}

} // namespace win32
