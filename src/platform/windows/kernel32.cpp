// Quenmark.exe: the seam forwards to the operating system itself.
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

void Sleep(DWORD milliseconds) {
    ::Sleep(milliseconds);
}

LPWSTR GetCommandLineW() {
    return ::GetCommandLineW();
}

LPWSTR* CommandLineToArgvW(LPCWSTR commandLine, int* argumentCount) {
    return ::CommandLineToArgvW(commandLine, argumentCount);
}

} // namespace win32
