// DOWNLOAD MICROCODE (0x92) as the drive keeps it: segments whose offsets follow each other,
// block counts within words 234/235, the image judged when whole, activation at once (modes
// 0x03, 0x07) or deferred until mode 0x0F (mode 0x0E).
#pragma once

#include <cstdint>
#include <string>

#include "sim/ata_command.hpp"
#include "sim/drive.hpp"

namespace sim {

// What the drive reports in Count after a DOWNLOAD MICROCODE it accepted.
constexpr std::uint8_t kCountMoreDataExpected = 0x01;
constexpr std::uint8_t kCountApplied = 0x02;
constexpr std::uint8_t kCountSaved = 0x03;

struct DownloadVerdict {
    bool accepted = false;
    std::uint8_t countStatus = 0; // with accepted
    std::string note;             // for the call log: what the drive did, or why it aborted
};

// data holds length bytes of the data-out phase (none for DataPhase::None).
DownloadVerdict download_microcode(Drive& drive, const AtaCommand& command, DataPhase phase,
                                   const std::uint8_t* data, std::uint32_t length);

} // namespace sim
