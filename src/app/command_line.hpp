#pragma once

#include "app/run_options.hpp"
#include "transport/device_context.hpp"

// The run goes on, or ends with this exit code (help, usage and command-line errors).
struct ParseResult {
    bool proceed;
    int exitCode;
};

// Reads the wide command line; argumentCount and programName are main's own.
ParseResult parse_command_line(int argumentCount, const char* programName, DeviceContext& context,
                               RunOptions& options);

void print_banner();
void print_usage(const char* programName);
