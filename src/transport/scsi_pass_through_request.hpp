// The request of IOCTL_SCSI_PASS_THROUGH_DIRECT as this program sends it: the published record
// followed by the sense area the driver fills, one buffer for input and output.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/win32.hpp"

struct ScsiPassThroughRequest {
    win32::SCSI_PASS_THROUGH_DIRECT header;
    std::uint8_t sense[256];
};

constexpr std::uint8_t kSenseInfoLength = 252;
constexpr std::uint32_t kDefaultTimeoutSeconds = 5;

static_assert(sizeof(ScsiPassThroughRequest) == 312, "the request is 312 bytes");
static_assert(offsetof(ScsiPassThroughRequest, sense) == 56, "sense follows the record at 56");
