// What the run knows of interrupts: Ctrl-C, Ctrl-Break, a closed console or terminal, a logoff,
// a shutdown (on Linux SIGINT, SIGHUP, SIGTERM). The handler only records that one came; the run
// driver and the download engine ask between commands and stop there, so a command with the
// drive always completes.
#pragma once

#include "platform/win32.hpp"

namespace interrupts {

// From here on an interrupt is recorded instead of ending the process. Runs that send no
// firmware command never call it and keep the platform's default: they end at once.
void watch();
bool pending();
// The first event that came (CTRL_C_EVENT and so on), and how the outcome line names it.
win32::DWORD first_event();
const char* event_name(win32::DWORD event);
// Marks the time a firmware command is with the drive: an interrupt that comes then, after the
// first, is told that the run stops when the drive answers.
void command_with_drive(bool withDrive);
// Forgets every interrupt (tests run many runs in one process).
void reset();

} // namespace interrupts
