#include "platform/console_events.hpp"
#include "platform/win32.hpp"

namespace win32 {

// The pause after a download attempt ends early only for an interrupt the run has taken; any
// other signal leaves it to run its course.
void Sleep(DWORD milliseconds) {
    console_events::pause(milliseconds);
}

} // namespace win32
