#include "platform/win32.hpp"

// The calls go to the Linux backend.
const char* const win32::kBackendName = "linux";
