// The storage port driver's answer to IOCTL_STORAGE_QUERY_PROPERTY: the adapter descriptor of
// the disk, decoded and written at the published offsets of STORAGE_PROPERTY_QUERY and
// STORAGE_ADAPTER_DESCRIPTOR.
#pragma once

#include <string>

#include "platform/win32.hpp"
#include "sim/machine.hpp"

namespace sim {

// buffer is the I/O manager's system copy of the request: max(inBytes, outBytes) bytes.
win32::DWORD storage_query_property(const Disk& disk, std::uint8_t* buffer, win32::DWORD inBytes,
                                    win32::DWORD outBytes, win32::DWORD& bytesReturned,
                                    std::string& request, std::string& result);

} // namespace sim
