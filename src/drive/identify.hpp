#pragma once

#include <cstdint>
#include <string>

#include "drive/drive_info.hpp"
#include "transport/device_context.hpp"
#include "transport/status.hpp"

Status identify_device(DeviceContext& context, DriveInfo& driveInfo);
void read_dm_capabilities(DeviceContext& context, DriveInfo& driveInfo);
Status vendor_identify(DeviceContext& context);
// True when the registers are the vendor identify's (Features 0x0B, LBA 0x2097DB): an IDENTIFY
// DEVICE sent while they remain is answered with the vendor's data, not IDENTIFY data.
bool is_vendor_identify(const AtaRegisters& registers);

// An ATA identify string (two characters per word, the first in the high byte) as trimmed
// text. length must be even and non-zero.
std::string ata_string_to_text(const std::uint8_t* source, std::uint32_t length);
// The characters ata_string_to_text trims from both ends: blank, tab, vertical tab, CR, LF.
bool is_ata_blank(char c);
// SEC1, SEC2, SEC4, SEC5 or SEC6 from IDENTIFY word 128.
std::uint32_t security_state_from_word(std::uint16_t securityWord);
