#include "platform/win32.hpp"

// The calls go to the simulated machine.
const char* const win32::kBackendName = "simulated";
