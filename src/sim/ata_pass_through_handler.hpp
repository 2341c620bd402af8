// The ATA port driver behind IOCTL_ATA_PASS_THROUGH_DIRECT: takes the task files of an
// ATA_PASS_THROUGH_DIRECT record to the drive and writes the output registers and the moved
// byte count back into it.
#pragma once

#include <string>

#include "platform/win32.hpp"
#include "sim/machine.hpp"

namespace sim {

// buffer is the I/O manager's system copy of the request: max(inBytes, outBytes) bytes.
win32::DWORD ata_pass_through_handler(Machine& machine, const Disk& disk, std::uint8_t* buffer,
                                      win32::DWORD inBytes, win32::DWORD outBytes,
                                      win32::DWORD& bytesReturned, std::string& request,
                                      std::string& result);

} // namespace sim
