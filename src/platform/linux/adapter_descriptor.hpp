// IOCTL_STORAGE_QUERY_PROPERTY (StorageAdapterProperty) on a device node: the largest data phase
// SG_IO takes there, from the request queue of the disk behind the node.
#pragma once

#include "platform/win32.hpp"

namespace linux_backend {

// Writes the STORAGE_ADAPTER_DESCRIPTOR (at most outSize bytes of it): MaximumTransferLength from
// the queue's max_hw_sectors_kb, which SG_IO holds every data phase to on sd and sg nodes alike,
// and MaximumPhysicalPages from max_segments, one page of a user buffer per segment. Returns
// ERROR_INVALID_FUNCTION for a node without a request queue (an enclosure's sg node, say).
win32::DWORD query_adapter_descriptor(int fd, const void* in, win32::DWORD inSize, void* out,
                                      win32::DWORD outSize, win32::DWORD& bytesReturned);

} // namespace linux_backend
