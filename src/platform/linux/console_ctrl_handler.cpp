#include "platform/console_events.hpp"
#include "platform/win32.hpp"

namespace win32 {

BOOL SetConsoleCtrlHandler(PHANDLER_ROUTINE routine, BOOL add) {
    if (add == 0) {
        console_events::detach();
        return 1;
    }
    return console_events::attach(routine) ? 1 : 0;
}

} // namespace win32
