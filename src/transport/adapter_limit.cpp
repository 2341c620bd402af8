#include <cstddef>
#include <cstring>

#include "transport/transport.hpp"

namespace {

constexpr std::uint64_t kPageBytes = 4096;

} // namespace

bool query_transfer_limit(DeviceContext& context, std::uint32_t& limitBytes) {
    win32::STORAGE_PROPERTY_QUERY query;
    std::memset(&query, 0, sizeof query);
    query.PropertyId = win32::StorageAdapterProperty;
    query.QueryType = win32::PropertyStandardQuery;
    win32::STORAGE_ADAPTER_DESCRIPTOR descriptor;
    std::memset(&descriptor, 0, sizeof descriptor);
    win32::DWORD returned = 0;
    if (!win32::DeviceIoControl(context.handle, IOCTL_STORAGE_QUERY_PROPERTY, &query, sizeof query,
                                &descriptor, sizeof descriptor, &returned, nullptr)) {
        return false;
    }
    // Only what the driver wrote counts: a short answer, or a length of 0, tells nothing.
    if (returned < offsetof(win32::STORAGE_ADAPTER_DESCRIPTOR, MaximumPhysicalPages) ||
        descriptor.MaximumTransferLength == 0) {
        return false;
    }
    std::uint64_t limit = descriptor.MaximumTransferLength;
    // A buffer that does not start on a page boundary spans one page more than its length.
    const bool pagesReported =
        returned >= offsetof(win32::STORAGE_ADAPTER_DESCRIPTOR, AlignmentMask) &&
        descriptor.MaximumPhysicalPages != 0;
    if (pagesReported) {
        const std::uint64_t pageLimit =
            (std::uint64_t{descriptor.MaximumPhysicalPages} - 1) * kPageBytes;
        if (pageLimit < limit) {
            limit = pageLimit;
        }
    }
    limitBytes = static_cast<std::uint32_t>(limit);
    return true;
}
