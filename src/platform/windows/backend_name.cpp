#include "platform/win32.hpp"

// The calls go to kernel32 and shell32.
const char* const win32::kBackendName = "windows";
