// Reading the drive's output registers out of the sense data that a SAT layer returns for an ATA
// PASS-THROUGH command: shared by the SCSI pass-through transport, which asks for them with
// CK_COND, and the Linux backend, which builds the ATA pass-through's task file from them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace sat {

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

// The sense key (0 to 15) of fixed or descriptor format sense data; 0 when none can be read.
std::uint8_t sense_key(const std::uint8_t* sense, std::size_t written);

// The sense key, ASC and ASCQ of current sense data in descriptor or fixed format; valid is
// false when the bytes written do not hold all three.
struct SenseCode {
    bool valid;
    std::uint8_t key;
    std::uint8_t asc;
    std::uint8_t ascq;
};
SenseCode read_sense_code(const std::uint8_t* sense, std::size_t written);

// True for the sense data a SAT layer returns for a command sent with CK_COND that the drive
// completed without error: RECOVERED ERROR, ATA PASS-THROUGH INFORMATION AVAILABLE (00/1D), in
// descriptor or fixed format. Its CHECK CONDITION carries registers, not a failure.
bool sense_reports_ata_information(const std::uint8_t* sense, std::size_t written);

// Linux 6.12 answers an ATA PASS-THROUGH sent without CK_COND to a drive that aborts it (an
// ATAPI device aborting IDENTIFY DEVICE) with GOOD and no data, yet writes sense data holding
// the abort. True when sense data written beside a GOOD status carry the drive's registers with
// ERR or DF set in Status: the command failed, whatever the status says.
bool sense_shows_ata_error(const std::uint8_t* sense, std::size_t written);

} // namespace sat
