// What a run learns about its drive, and the seven ATA security states.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Numbered as the ATA security feature set numbers them.
enum SecurityState : std::uint32_t {
    SEC0 = 0, // powered down, security disabled
    SEC1 = 1, // disabled, not locked, not frozen
    SEC2 = 2, // disabled, not locked, frozen
    SEC3 = 3, // powered down, enabled, locked
    SEC4 = 4, // enabled, locked, not frozen
    SEC5 = 5, // enabled, not locked, not frozen
    SEC6 = 6, // enabled, not locked, frozen
};

// "SEC0" to "SEC6"; nullptr for any other number.
const char* security_state_label(std::uint32_t state);

struct DriveInfo {
    std::string vendorName; // bytes as the drive sent them; may hold NULs
    std::string modelNumber;
    std::string serialNumber;
    std::string firmwareRevision;
    // IDENTIFY DEVICE word 0; bit 15 set: the device is not an ATA device (ATAPI answers so).
    std::uint16_t generalConfiguration = 0;
    std::uint16_t securityWord = 0;
    std::uint32_t securityState = 0;
    std::uint8_t dmSupported = 0; // word 83 bit 0, where bits 15:14 say the word is valid
    std::uint8_t dmDmaSupported = 0;
    std::uint8_t dmMode3Supported = 0;
    std::uint8_t dmOffsetsDeferredSupported = 0;
    std::uint8_t dmClearsNonactivatedDeferredData = 0;
    std::uint16_t dmMinBlocks = 0;
    std::uint16_t dmMaxBlocks = 0;
    std::vector<std::string> ataVersions;
};
