// What a scan found, for the record of the run: each controller that answered with its driver's
// information, and the SATA drives behind it that answered IDENTIFY DEVICE.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct ScannedDrive {
    std::int32_t phy;
    std::uint8_t attachedSasAddress[8];
    std::uint8_t identifySasAddress[8];
    std::string model; // as ata_string_to_text gives them
    std::string serial;
    std::string firmware;
};

struct ScannedController {
    std::int32_t port; // \\.\SCSI<port>:
    std::string driverName;
    std::string driverDescription;
    std::vector<ScannedDrive> drives;
};

struct ScanRecord {
    std::vector<ScannedController> controllers;
};
