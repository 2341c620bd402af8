// The last-error value of the calling thread. The backend's calls set it only when they fail,
// so a successful call leaves what the caller put there.
#include "platform/win32.hpp"

namespace win32 {
namespace {

thread_local DWORD lastError = ERROR_SUCCESS;

} // namespace

DWORD GetLastError() {
    return lastError;
}

void SetLastError(DWORD errorCode) {
    lastError = errorCode;
}

} // namespace win32
