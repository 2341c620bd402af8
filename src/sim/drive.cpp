#include "sim/drive.hpp"

#include "sim/identify_data.hpp"

namespace sim {

namespace {
constexpr int kFirmwareWord = 23;
constexpr int kFirmwareWords = 4;
} // namespace

std::string firmware_revision(const Drive& drive) {
    return get_ata_string(drive.identify, kFirmwareWord, kFirmwareWords);
}

void set_firmware_revision(Drive& drive, const std::string& revision) {
    put_ata_string(drive.identify, kFirmwareWord, kFirmwareWords, revision);
    if (has_identify_signature(drive.identify)) {
        seal_identify_checksum(drive.identify);
    }
}

} // namespace sim
