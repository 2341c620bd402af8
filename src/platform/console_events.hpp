// The operating system's own console-control events, for the backends that run on it: the
// product on Windows and Linux, and quenmark-sim, whose runs real signals reach too.
#pragma once

#include "platform/win32.hpp"

namespace console_events {

// From the first call on, every event goes to routine, on a thread of its own (as Windows calls
// its handlers), and ends a pause early. Off Windows: SIGINT, SIGHUP and SIGTERM are blocked in
// the calling thread and taken by that thread instead, so that no signal interrupts a command
// with the drive (an SG_IO cut short by a signal leaves its command running, its outcome lost);
// SIGPIPE is ignored, so a closed standard output drops what is written to it.
bool attach(win32::PHANDLER_ROUTINE routine);
// Events then take their default course again: they end the process.
void detach();
// Sleeps, or returns as soon as an event has come since attach.
void pause(win32::DWORD milliseconds);

} // namespace console_events
