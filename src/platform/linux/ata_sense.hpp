// Reading the drive's output registers out of the sense data that the SAT layer returns for an
// ATA PASS-THROUGH command sent with CK_COND.
#pragma once

#include <cstddef>
#include <cstdint>

namespace linux_backend {

enum class AtaSenseVerdict {
    TaskFile,       // the drive's registers were found
    CommandRefused, // the device does not know ATA PASS-THROUGH (invalid operation code)
    FieldRefused,   // the translator refused a field of the CDB; the drive saw nothing
    NoTaskFile,     // sense data that carries no ATA registers
};

struct AtaSenseReading {
    AtaSenseVerdict verdict;
    // As ATA_PASS_THROUGH_DIRECT returns them. Current: Error, Count, LBA (7:0), LBA (15:8),
    // LBA (23:16), Device, Status, 0. Previous, for a 48-bit answer: 0, Count (15:8),
    // LBA (31:24), LBA (39:32), LBA (47:40), 0, 0, 0.
    std::uint8_t current[8];
    std::uint8_t previous[8];
};

// Reads only the `written` bytes the kernel reported, whatever the sense data claim.
AtaSenseReading read_ata_sense(const std::uint8_t* sense, std::size_t written);

// Linux 6.12 answers an ATA PASS-THROUGH sent without CK_COND to a drive that aborts it (an
// ATAPI device aborting IDENTIFY DEVICE) with GOOD and no data, yet writes sense data holding
// the abort. True when sense data written beside a GOOD status carry the drive's registers with
// ERR or DF set in Status: the command failed, whatever the status says.
bool sense_shows_ata_error(const std::uint8_t* sense, std::size_t written);

} // namespace linux_backend
