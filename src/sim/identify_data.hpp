// IDENTIFY DEVICE data and the IDENTIFY DEVICE data log as a drive builds them: ATA strings
// (two characters per word, the first in the high byte), the word-255 integrity word, and the
// log pages 0x00 and 0x03 of log 0x30.
#pragma once

#include <cstdint>
#include <string>

#include "sim/drive.hpp"

namespace sim {

std::uint16_t identify_word(const IdentifyData& data, int word);
void set_identify_word(IdentifyData& data, int word, std::uint16_t value);

// Writes text into words [firstWord, firstWord + words), padded with blanks, cut to fit.
void put_ata_string(IdentifyData& data, int firstWord, int words, const std::string& text);
// The characters of words [firstWord, firstWord + words), untrimmed.
std::string get_ata_string(const IdentifyData& data, int firstWord, int words);

// Word 255: signature 0xA5 in the low byte, and the high byte that makes all 512 bytes sum to 0.
void seal_identify_checksum(IdentifyData& data);
bool has_identify_signature(const IdentifyData& data);

// The words of a built drive before its own fields are written: a SATA drive with 48-bit
// addressing, DOWNLOAD MICROCODE and mode 0x03 (words 83, 86, 119), 234/235 = 1/2048.
IdentifyData default_identify();

struct DmCapabilities {
    bool header = true;                          // bit 63 of the page header
    bool offsetsDeferred = true;                 // bit 34
    bool clearsNonactivatedDeferredData = false; // bit 35
};

// Page 0x03 (supported capabilities) of the IDENTIFY DEVICE data log: the header, and the
// download-microcode capabilities in the third 64-bit word.
LogPage identify_log_page3(const DmCapabilities& capabilities);
// Page 0x00: the list of supported pages (0x00, 0x03).
LogPage identify_log_page0();

// The 512 bytes the vendor identify returns: a fixed tag, the drive's serial number, and a
// valid word 255.
IdentifyData vendor_identify_data(const IdentifyData& identify);

} // namespace sim
