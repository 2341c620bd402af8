#include "platform/console_events.hpp"

#include <atomic>

#ifdef _WIN32

namespace console_events {
namespace {

std::atomic<win32::PHANDLER_ROUTINE> current{nullptr};
HANDLE wake = nullptr;

BOOL WINAPI on_console_event(DWORD type) {
    const win32::PHANDLER_ROUTINE routine = current.load();
    if (routine == nullptr) {
        return FALSE;
    }
    routine(type);
    SetEvent(wake);
    // After a closed console, a logoff or a shutdown the system ends the process as soon as a
    // handler returns, or about 5 s later if none does: holding on gives the run that time to
    // let the drive answer, read it again and say what it holds. The run's own exit ends it.
    if (type == CTRL_CLOSE_EVENT || type == CTRL_LOGOFF_EVENT || type == CTRL_SHUTDOWN_EVENT) {
        for (;;) {
            ::Sleep(INFINITE);
        }
    }
    return TRUE;
}

} // namespace

bool attach(win32::PHANDLER_ROUTINE routine) {
    if (wake == nullptr) {
        wake = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        if (wake == nullptr || !::SetConsoleCtrlHandler(on_console_event, TRUE)) {
            return false;
        }
    }
    current = routine;
    return true;
}

void detach() {
    current = nullptr;
}

void pause(win32::DWORD milliseconds) {
    if (wake == nullptr) {
        ::Sleep(milliseconds);
        return;
    }
    WaitForSingleObject(wake, milliseconds);
}

} // namespace console_events

#else

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <mutex>

namespace console_events {
namespace {

std::atomic<win32::PHANDLER_ROUTINE> current{nullptr};
int wakeRead = -1;
int wakeWrite = -1;
std::once_flag started;
bool running = false;

sigset_t handled_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGHUP);
    sigaddset(&set, SIGTERM);
    return set;
}

win32::DWORD event_of(int signal) {
    switch (signal) {
    case SIGINT:
        return CTRL_C_EVENT;
    case SIGHUP:
        return CTRL_CLOSE_EVENT;
    default:
        return CTRL_SHUTDOWN_EVENT;
    }
}

void* watch(void*) {
    const sigset_t set = handled_signals();
    for (;;) {
        int signal = 0;
        if (sigwait(&set, &signal) != 0) {
            continue;
        }
        const win32::PHANDLER_ROUTINE routine = current.load();
        if (routine == nullptr) {
            // Nobody takes it: the signal's own course, as if it had never been caught.
            sigset_t one;
            sigemptyset(&one);
            sigaddset(&one, signal);
            ::signal(signal, SIG_DFL);
            pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
            raise(signal);
            continue;
        }
        routine(event_of(signal));
        const char byte = 1;
        [[maybe_unused]] const ssize_t written = write(wakeWrite, &byte, 1);
    }
    return nullptr;
}

void start() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
        return;
    }
    ::signal(SIGPIPE, SIG_IGN);
    const sigset_t set = handled_signals();
    sigset_t previous;
    pthread_sigmask(SIG_BLOCK, &set, &previous);
    // The pipe is in place before the thread that writes it can take a signal.
    wakeRead = fds[0];
    wakeWrite = fds[1];
    pthread_t thread;
    if (pthread_create(&thread, nullptr, watch, nullptr) != 0) {
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        close(fds[0]);
        close(fds[1]);
        wakeRead = -1;
        wakeWrite = -1;
        return;
    }
    pthread_detach(thread);
    running = true;
}

} // namespace

bool attach(win32::PHANDLER_ROUTINE routine) {
    current = routine;
    std::call_once(started, start);
    return running;
}

void detach() {
    current = nullptr;
}

void pause(win32::DWORD milliseconds) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(milliseconds);
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0) {
            return;
        }
        if (!running) {
            timespec rest{static_cast<std::time_t>(left / 1000), (left % 1000) * 1000000L};
            nanosleep(&rest, nullptr);
            continue;
        }
        // The wake pipe stays readable once written: every later pause ends at once too.
        pollfd wakeUp{wakeRead, POLLIN, 0};
        if (poll(&wakeUp, 1, static_cast<int>(left)) > 0) {
            return;
        }
    }
}

} // namespace console_events

#endif
