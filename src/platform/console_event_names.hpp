// The console-control events by their Win32 names, for the records that name them: the --json
// document and the simulated machine's file and call log.
#pragma once

#include <string_view>

#include "platform/win32.hpp"

namespace console_events {

struct NamedEvent {
    win32::DWORD event;
    const char* name;
};

inline constexpr NamedEvent kNamedEvents[] = {
    {CTRL_C_EVENT, "CTRL_C_EVENT"},
    {CTRL_BREAK_EVENT, "CTRL_BREAK_EVENT"},
    {CTRL_CLOSE_EVENT, "CTRL_CLOSE_EVENT"},
    {CTRL_LOGOFF_EVENT, "CTRL_LOGOFF_EVENT"},
    {CTRL_SHUTDOWN_EVENT, "CTRL_SHUTDOWN_EVENT"},
};

// nullptr for an event Windows does not define.
inline const char* win32_name(win32::DWORD event) {
    for (const NamedEvent& named : kNamedEvents) {
        if (named.event == event) {
            return named.name;
        }
    }
    return nullptr;
}

inline bool from_win32_name(std::string_view name, win32::DWORD& event) {
    for (const NamedEvent& named : kNamedEvents) {
        if (name == named.name) {
            event = named.event;
            return true;
        }
    }
    return false;
}

} // namespace console_events
