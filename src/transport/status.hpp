// The outcome of every operation that talks to a drive. The operating system's own error code
// travels beside it in DeviceContext::lastError.
#pragma once

#include <cstdint>

enum class Status : std::int32_t {
    NotIssued = -1, // the CSMI request could not be built
    Failed = 0,
    Success = 1,
    NoDevice = 2,
    BadFirmwareFile = 4,
    InterfaceNotSupported = 9, // the driver stack does not offer this pass-through
    OutOfMemory = 10,
    DeviceError = 11, // the drive ended the command with an error
    CrcAbort = 13,    // ATA pass-through: interface CRC error with abort (Error 0x84)
    TimedOut = 14,    // a DOWNLOAD MICROCODE did not end within its time-out; the drive's
                      // state is unknown until it is read again
    Interrupted = 15, // an interrupt kept back a firmware command the run would have sent
};
