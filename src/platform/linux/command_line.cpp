// The process's own arguments, as the kernel keeps them in /proc/self/cmdline: NUL-terminated
// UTF-8 texts. Splitting a joined command line again could not give back arguments that hold
// blanks or quotes, so the array comes from the arguments themselves.
#include <cwchar>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/linux/win32_error.hpp"
#include "platform/utf8.hpp"
#include "platform/win32.hpp"

namespace win32 {
namespace {

struct ProcessArguments {
    bool read = false;
    std::vector<std::wstring> texts;
    std::vector<wchar_t*> pointers; // the argv array, ended by a null pointer
    std::wstring commandLine;       // the arguments joined by blanks, for show only
};

ProcessArguments& process_arguments() {
    static ProcessArguments arguments;
    if (arguments.read) {
        return arguments;
    }
    arguments.read = true;
    std::ifstream file("/proc/self/cmdline", std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)),
                            std::istreambuf_iterator<char>());
    std::size_t start = 0;
    while (start < bytes.size()) {
        std::size_t end = bytes.find('\0', start);
        if (end == std::string::npos) {
            end = bytes.size();
        }
        arguments.texts.push_back(
            utf8::decode_utf8(std::string_view(bytes).substr(start, end - start)));
        start = end + 1;
    }
    for (std::wstring& text : arguments.texts) {
        if (!arguments.commandLine.empty()) {
            arguments.commandLine.push_back(L' ');
        }
        arguments.commandLine += text;
        arguments.pointers.push_back(text.data());
    }
    arguments.pointers.push_back(nullptr);
    return arguments;
}

} // namespace

LPWSTR GetCommandLineW() {
    return process_arguments().commandLine.data();
}

LPWSTR* CommandLineToArgvW(LPCWSTR commandLine, int* argumentCount) {
    ProcessArguments& arguments = process_arguments();
    if (argumentCount == nullptr || commandLine == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    if (arguments.texts.empty()) {
        // /proc was not there to read: no arguments are better than guessed ones.
        SetLastError(ERROR_FILE_NOT_FOUND);
        return nullptr;
    }
    // Only the process's own command line can be split back into its arguments.
    if (std::wcscmp(commandLine, arguments.commandLine.c_str()) != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    *argumentCount = static_cast<int>(arguments.texts.size());
    return arguments.pointers.data();
}

} // namespace win32
