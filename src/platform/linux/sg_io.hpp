// One SCSI command through the SG_IO ioctl, which both the sd block nodes and the sg nodes
// accept, and what came back.
#pragma once

#include <cstdint>

#include "platform/linux/ata_pass_through_cdb.hpp"
#include "platform/win32.hpp"

namespace linux_backend {

struct SgCommand {
    const std::uint8_t* cdb;
    std::uint8_t cdbLength;
    DataPhase phase;
    void* data;
    std::uint32_t length;
    std::uint32_t timeoutSeconds;
    std::uint8_t* sense;
    std::uint8_t senseCapacity;
};

struct SgOutcome {
    // ERROR_SUCCESS when the command reached the device and its SCSI status came back; else
    // the ioctl's or the transport's failure.
    win32::DWORD error;
    std::uint8_t scsiStatus;
    std::uint8_t senseLength;
    std::uint32_t moved; // the length less the kernel's residual count
};

SgOutcome send_sg_io(int fd, const SgCommand& command);

} // namespace linux_backend
