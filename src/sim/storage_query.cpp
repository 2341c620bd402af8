#include "sim/storage_query.hpp"

#include <algorithm>
#include <cstring>

#include "sim/byte_order.hpp"

namespace sim {
namespace {

// STORAGE_PROPERTY_QUERY
constexpr win32::DWORD kQueryBytes = 12;
constexpr std::size_t kPropertyId = 0;
constexpr std::size_t kQueryType = 4;
constexpr std::uint32_t kStorageAdapterProperty = 1;
constexpr std::uint32_t kPropertyStandardQuery = 0;
constexpr std::uint32_t kPropertyExistsQuery = 1;

// STORAGE_ADAPTER_DESCRIPTOR
constexpr win32::DWORD kDescriptorBytes = 32;
constexpr win32::DWORD kDescriptorHeaderBytes = 8; // Version and Size
constexpr std::size_t kVersion = 0;
constexpr std::size_t kSize = 4;
constexpr std::size_t kMaximumTransferLength = 8;
constexpr std::size_t kMaximumPhysicalPages = 12;
constexpr std::size_t kAlignmentMask = 16;
constexpr std::size_t kBusType = 24;
constexpr std::uint8_t kBusTypeSata = 0x0B;
constexpr std::uint32_t kNoLimit = 0xFFFFFFFF;

} // namespace

win32::DWORD storage_query_property(const Disk& disk, std::uint8_t* buffer, win32::DWORD inBytes,
                                    win32::DWORD outBytes, win32::DWORD& bytesReturned,
                                    std::string& request, std::string& result) {
    if (!disk.adapterQuery) {
        return ERROR_INVALID_FUNCTION;
    }
    if (inBytes < kQueryBytes) {
        return ERROR_INVALID_PARAMETER;
    }
    const std::uint32_t property = read_le32(buffer, kPropertyId);
    const std::uint32_t queryType = read_le32(buffer, kQueryType);
    request = "property=" + std::to_string(property) + " query=" + std::to_string(queryType);
    if (property != kStorageAdapterProperty ||
        (queryType != kPropertyStandardQuery && queryType != kPropertyExistsQuery)) {
        return ERROR_NOT_SUPPORTED;
    }
    if (queryType == kPropertyExistsQuery) {
        bytesReturned = 0;
        return ERROR_SUCCESS;
    }
    if (outBytes < kDescriptorHeaderBytes) {
        return ERROR_INVALID_PARAMETER;
    }
    std::uint8_t descriptor[kDescriptorBytes] = {};
    write_le32(descriptor, kVersion, kDescriptorBytes);
    write_le32(descriptor, kSize, kDescriptorBytes);
    write_le32(descriptor, kMaximumTransferLength,
               disk.maxTransferBytes != 0 ? disk.maxTransferBytes : kNoLimit);
    write_le32(descriptor, kMaximumPhysicalPages,
               disk.maxPhysicalPages != 0 ? disk.maxPhysicalPages : kNoLimit);
    write_le32(descriptor, kAlignmentMask, 1); // word-aligned buffers, as AHCI wants them
    descriptor[kBusType] = kBusTypeSata;
    // A shorter output buffer gets the descriptor's first bytes, as the port driver copies them.
    bytesReturned = std::min(outBytes, kDescriptorBytes);
    std::memcpy(buffer, descriptor, bytesReturned);
    result = "max-transfer=" + std::to_string(read_le32(descriptor, kMaximumTransferLength)) +
             " max-pages=" + std::to_string(read_le32(descriptor, kMaximumPhysicalPages));
    return ERROR_SUCCESS;
}

} // namespace sim
