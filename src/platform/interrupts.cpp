#include "platform/interrupts.hpp"

#include <atomic>
#include <ostream>

#include "platform/console.hpp"

namespace interrupts {
namespace {

std::atomic<int> count{0};
std::atomic<win32::DWORD> first{0};
std::atomic<bool> withDriveNow{false};
std::atomic<bool> toldToWait{false};

// Runs on the platform's event thread (or inside a simulated call): it records, and speaks only
// while the run's own thread waits for the drive.
win32::BOOL on_event(win32::DWORD event) {
    if (count.fetch_add(1) == 0) {
        first = event;
        return 1;
    }
    if (withDriveNow && !toldToWait.exchange(true)) {
        console::err() << "Interrupted again: the DOWNLOAD MICROCODE with the drive cannot be "
                          "recalled; the run stops when the drive answers."
                       << std::endl;
    }
    return 1;
}

} // namespace

void watch() {
    win32::SetConsoleCtrlHandler(on_event, 1);
}

bool pending() {
    return count.load() != 0;
}

win32::DWORD first_event() {
    return first.load();
}

const char* event_name(win32::DWORD event) {
    switch (event) {
    case CTRL_C_EVENT:
        return "Ctrl-C";
    case CTRL_BREAK_EVENT:
        return "Ctrl-Break";
    case CTRL_CLOSE_EVENT:
        return "console closed or hang-up";
    case CTRL_LOGOFF_EVENT:
        return "logoff";
    case CTRL_SHUTDOWN_EVENT:
        return "shutdown or termination";
    default:
        return "console event";
    }
}

void command_with_drive(bool withDrive) {
    withDriveNow = withDrive;
}

void reset() {
    count = 0;
    first = 0;
    withDriveNow = false;
    toldToWait = false;
}

} // namespace interrupts
