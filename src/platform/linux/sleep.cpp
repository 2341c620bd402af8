#include <cerrno>
#include <ctime>

#include "platform/win32.hpp"

namespace win32 {

// The pause after a download attempt gives the drive time to settle; a signal must not cut it
// short, so the rest of the time is slept again.
void Sleep(DWORD milliseconds) {
    timespec remaining{static_cast<std::time_t>(milliseconds / 1000),
                       static_cast<long>(milliseconds % 1000) * 1000000L};
    while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
    }
}

} // namespace win32
