// Quenmark.exe: the seam forwards to the operating system itself.
#include "platform/console_events.hpp"
#include "platform/win32.hpp"

// shellapi.h needs the types of windows.h first.
#include <shellapi.h>

namespace win32 {

HANDLE CreateFileW(LPCWSTR fileName, DWORD desiredAccess, DWORD shareMode, void* securityAttributes,
                   DWORD creationDisposition, DWORD flagsAndAttributes, HANDLE templateFile) {
    return ::CreateFileW(fileName, desiredAccess, shareMode,
                         static_cast<LPSECURITY_ATTRIBUTES>(securityAttributes),
                         creationDisposition, flagsAndAttributes, templateFile);
}

BOOL DeviceIoControl(HANDLE device, DWORD ioControlCode, void* inBuffer, DWORD inBufferSize,
                     void* outBuffer, DWORD outBufferSize, DWORD* bytesReturned, void* overlapped) {
    return ::DeviceIoControl(device, ioControlCode, inBuffer, inBufferSize, outBuffer,
                             outBufferSize, bytesReturned, static_cast<LPOVERLAPPED>(overlapped));
}

BOOL CloseHandle(HANDLE object) {
    return ::CloseHandle(object);
}

DWORD GetLastError() {
    return ::GetLastError();
}

void SetLastError(DWORD errorCode) {
    ::SetLastError(errorCode);
}

// The pause after a download attempt ends early once an interrupt has come.
void Sleep(DWORD milliseconds) {
    console_events::pause(milliseconds);
}

BOOL SetConsoleCtrlHandler(PHANDLER_ROUTINE routine, BOOL add) {
    if (add == FALSE) {
        console_events::detach();
        return TRUE;
    }
    return console_events::attach(routine) ? TRUE : FALSE;
}

LPWSTR GetCommandLineW() {
    return ::GetCommandLineW();
}

LPWSTR* CommandLineToArgvW(LPCWSTR commandLine, int* argumentCount) {
    return ::CommandLineToArgvW(commandLine, argumentCount);
}

} // namespace win32
