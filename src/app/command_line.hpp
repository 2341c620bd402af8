#pragma once

#include <string>
#include <vector>

#include "app/run_options.hpp"
#include "transport/device_context.hpp"

// The run goes on, or ends with this exit code (help, usage and command-line errors).
struct ParseResult {
    bool proceed;
    int exitCode;
};

// The wide command line as read once, before it is parsed.
struct CommandLine {
    bool read;                         // false: fewer than two arguments, or it could not be split
    std::vector<std::wstring> typed;   // the arguments after the program's name, as typed
    std::vector<std::wstring> options; // the same without --json, which is no option of a run
    bool json;                         // --json stands among them
};

// Reads the wide command line without printing; argumentCount and arguments are main's own,
// and decide --json alone when the wide command line cannot be split. --json may stand
// anywhere; where a number or a time-out must follow /g, /r or /t it is kept, and refused there.
CommandLine read_command_line(int argumentCount, char** arguments);

// Parses what read_command_line read, printing the usage text and the refusals.
ParseResult parse_command_line(const CommandLine& commandLine, int argumentCount,
                               const char* programName, DeviceContext& context,
                               RunOptions& options);
// Both steps in one.
ParseResult parse_command_line(int argumentCount, const char* programName, DeviceContext& context,
                               RunOptions& options);

void print_banner();
void print_usage(const char* programName);
