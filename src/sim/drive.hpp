// One simulated ATA drive: what it answers (IDENTIFY data, the IDENTIFY DEVICE data log), which
// DOWNLOAD MICROCODE modes it takes, and the state it keeps: the firmware revision (in its
// IDENTIFY data), a deferred image waiting for activation, a download in progress.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sim {

using IdentifyData = std::array<std::uint8_t, 512>;
using LogPage = std::array<std::uint8_t, 512>;

// How the drive answers the vendor identify (IDENTIFY DEVICE with Features 0x0B, LBA 0x2097DB).
enum class VendorIdentify { Vendor, Identify, Abort };

// A complete, valid image kept for a later activation (mode 0x0E, then 0x0F). Survives power
// cycles, so it is written back to the machine file.
struct DeferredImage {
    std::string revision; // the 8 characters the image carries
    std::uint32_t length = 0;
    std::uint32_t crc = 0;
};

struct Drive {
    std::string id;
    IdentifyData identify{};
    // The drive keeps word 255 valid when its firmware revision changes only if it had a
    // signature (0xA5) to begin with.
    bool identifyLogSupported = true;
    LogPage identifyLogPage0{};
    LogPage identifyLogPage3{};
    VendorIdentify vendorIdentify = VendorIdentify::Vendor;

    // DOWNLOAD MICROCODE modes the drive carries out; any other is aborted.
    bool mode03 = true, mode07 = true, mode0E = true, mode0F = true;
    // Block counts of modes 0x03 and 0x0E must lie within IDENTIFY words 234/235 when the drive
    // reports them (neither 0 nor 0xFFFF).
    bool enforceBlockLimits = true;
    // The drive reports in Count after each DOWNLOAD MICROCODE what it made of it (01h more data
    // expected, 02h applied, 03h saved for activation); without, Count echoes the command's.
    bool downloadStatusInCount = true;
    // Real time every DOWNLOAD MICROCODE takes, as a drive writing its flash does: a person or a
    // test can interrupt a download while a command is with the drive. The clock moves on too.
    std::uint32_t downloadDelayMs = 0;

    std::optional<DeferredImage> deferred;

    // A segmented download in progress: lost at power-off, never written back.
    bool downloading = false;
    std::uint8_t downloadMode = 0;
    std::uint16_t nextOffset = 0;
    std::vector<std::uint8_t> partial;

    std::uint32_t activations = 0;
};

// The firmware revision as IDENTIFY words 23 to 26 carry it: 8 characters, untrimmed.
std::string firmware_revision(const Drive& drive);
// Writes the revision (padded with blanks to 8 characters) into words 23 to 26 and keeps the
// word-255 checksum valid when the data carry a signature.
void set_firmware_revision(Drive& drive, const std::string& revision);

} // namespace sim
