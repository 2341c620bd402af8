#include "sim/drive_model.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "sim/identify_data.hpp"
#include "sim/microcode_download.hpp"

namespace sim {

namespace {

constexpr std::uint8_t kIdentifyDevice = 0xEC;
constexpr std::uint8_t kReadLogExt = 0x2F;
constexpr std::uint8_t kDownloadMicrocode = 0x92;
constexpr std::uint8_t kIdentifyDeviceDataLog = 0x30;

constexpr std::uint8_t kStatusGood = 0x50; // DRDY, DSC
constexpr std::uint8_t kStatusError = 0x51;
constexpr std::uint8_t kErrorAbort = 0x04;

AtaOutcome answer(const AtaCommand& command, std::uint8_t status, std::uint8_t error) {
    AtaOutcome outcome;
    outcome.status = status;
    outcome.error = error;
    outcome.count = command.count;
    outcome.lbaLow = command.lbaLow;
    outcome.lbaMid = command.lbaMid;
    outcome.lbaHigh = command.lbaHigh;
    outcome.device = command.device;
    return outcome;
}

AtaOutcome abort_command(const AtaCommand& command, std::string& note, const std::string& why) {
    note = "aborted: " + why;
    return answer(command, kStatusError, kErrorAbort);
}

// A data-in command: the drive offers its bytes, the host takes at most what it asked for.
AtaOutcome data_in(const AtaCommand& command, const std::uint8_t* bytes, std::size_t count,
                   std::uint8_t* data, std::uint32_t length) {
    AtaOutcome outcome = answer(command, kStatusGood, 0);
    const std::size_t moved = std::min<std::size_t>(count, length);
    if (moved != 0) {
        std::memcpy(data, bytes, moved);
    }
    outcome.bytesMoved = static_cast<std::uint32_t>(moved);
    return outcome;
}

bool is_vendor_identify(const AtaCommand& command) {
    return command.features == 0x0B && command.lbaLow == 0xDB && command.lbaMid == 0x97 &&
           command.lbaHigh == 0x20;
}

AtaOutcome identify(Drive& drive, const AtaCommand& command, DataPhase phase, std::uint8_t* data,
                    std::uint32_t length, std::string& note) {
    if (phase != DataPhase::In) {
        return abort_command(command, note, "IDENTIFY DEVICE without a data-in phase");
    }
    if (is_vendor_identify(command)) {
        switch (drive.vendorIdentify) {
        case VendorIdentify::Abort:
            return abort_command(command, note, "vendor identify not supported");
        case VendorIdentify::Identify:
            note = "vendor identify answered with IDENTIFY DEVICE data";
            break;
        case VendorIdentify::Vendor: {
            const IdentifyData vendor = vendor_identify_data(drive.identify);
            return data_in(command, vendor.data(), vendor.size(), data, length);
        }
        }
    }
    return data_in(command, drive.identify.data(), drive.identify.size(), data, length);
}

AtaOutcome read_log_ext(Drive& drive, const AtaCommand& command, DataPhase phase,
                        std::uint8_t* data, std::uint32_t length, std::string& note) {
    const unsigned log = command.lbaLow;
    const unsigned page = command.lbaMid | (command.ext48 ? command.lbaMidExt << 8 : 0);
    const unsigned pages = command.count | (command.ext48 ? command.countExt << 8 : 0);
    char text[64];
    std::snprintf(text, sizeof text, "log 0x%02X page %u count %u", log, page, pages);
    note = text;
    if (!drive.identifyLogSupported) {
        return abort_command(command, note, std::string(text) + ": no general purpose logging");
    }
    if (phase != DataPhase::In) {
        return abort_command(command, note, std::string(text) + ": no data-in phase");
    }
    if (log != kIdentifyDeviceDataLog || pages == 0) {
        return abort_command(command, note, std::string(text) + ": not available");
    }
    std::vector<std::uint8_t> bytes;
    for (unsigned p = page; p < page + pages; ++p) {
        const LogPage* source = p == 0   ? &drive.identifyLogPage0
                                : p == 3 ? &drive.identifyLogPage3
                                         : nullptr;
        if (source == nullptr) {
            return abort_command(command, note, std::string(text) + ": not available");
        }
        bytes.insert(bytes.end(), source->begin(), source->end());
    }
    return data_in(command, bytes.data(), bytes.size(), data, length);
}

} // namespace

AtaOutcome execute_on_drive(Drive& drive, const AtaCommand& command, DataPhase phase,
                            std::uint8_t* data, std::uint32_t length, std::string& note) {
    // Any other command between two segments ends a segmented download: the drive drops what
    // it has of the image and keeps its firmware.
    if (command.command != kDownloadMicrocode && drive.downloading) {
        drive.downloading = false;
        drive.partial.clear();
        drive.partial.shrink_to_fit();
        note = "incomplete download discarded";
    }
    switch (command.command) {
    case kIdentifyDevice:
        return identify(drive, command, phase, data, length, note);
    case kReadLogExt:
        return read_log_ext(drive, command, phase, data, length, note);
    case kDownloadMicrocode: {
        const DownloadVerdict verdict = download_microcode(drive, command, phase, data, length);
        note = verdict.note;
        if (!verdict.accepted) {
            return answer(command, kStatusError, kErrorAbort);
        }
        AtaOutcome outcome = answer(command, kStatusGood, 0);
        outcome.bytesMoved = phase == DataPhase::Out ? length : 0;
        if (drive.downloadStatusInCount) {
            outcome.count = verdict.countStatus;
        }
        return outcome;
    }
    default:
        return abort_command(command, note, "command not supported by the drive");
    }
}

} // namespace sim
