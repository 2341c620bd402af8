#include "platform/ata_sense.hpp"

#include <algorithm>

namespace sat {
namespace {

constexpr std::uint8_t kResponseCodeMask = 0x7F;
constexpr std::uint8_t kValid = 0x80; // fixed format: the INFORMATION field is valid
constexpr std::uint8_t kFixedCurrent = 0x70;
constexpr std::uint8_t kDescriptorCurrent = 0x72;
constexpr std::uint8_t kSenseKeyMask = 0x0F;
constexpr std::uint8_t kIllegalRequest = 0x05;
constexpr std::uint8_t kInvalidOperationCode = 0x20;
constexpr std::uint8_t kInvalidFieldInCdb = 0x24;
constexpr std::uint8_t kAtaStatusReturn = 0x09;
constexpr std::size_t kAtaStatusReturnLength = 0x0C;

enum Current { Error = 0, Count = 1, LbaLow = 2, LbaMid = 3, LbaHigh = 4, Device = 5, Status = 6 };
enum Previous { CountExt = 1, LbaLowExt = 2, LbaMidExt = 3, LbaHighExt = 4 };

AtaSenseReading empty_reading(AtaSenseVerdict verdict) {
    return AtaSenseReading{verdict, {}, {}};
}

AtaSenseVerdict refusal(std::uint8_t senseKey, std::uint8_t asc) {
    if ((senseKey & kSenseKeyMask) != kIllegalRequest) {
        return AtaSenseVerdict::NoTaskFile;
    }
    if (asc == kInvalidOperationCode) {
        return AtaSenseVerdict::CommandRefused;
    }
    if (asc == kInvalidFieldInCdb) {
        return AtaSenseVerdict::FieldRefused;
    }
    return AtaSenseVerdict::NoTaskFile;
}

// Descriptor format: the ATA Status Return descriptor, wherever it stands in the list.
AtaSenseReading read_descriptor_format(const std::uint8_t* sense, std::size_t written) {
    const std::size_t end = std::min<std::size_t>(written, 8 + std::size_t{sense[7]});
    std::size_t at = 8;
    while (at + 2 <= end) {
        const std::size_t length = sense[at + 1];
        if (at + 2 + length > end) {
            break;
        }
        if (sense[at] == kAtaStatusReturn && length >= kAtaStatusReturnLength) {
            const std::uint8_t* d = sense + at;
            AtaSenseReading reading = empty_reading(AtaSenseVerdict::TaskFile);
            reading.current[Error] = d[3];
            reading.current[Count] = d[5];
            reading.current[LbaLow] = d[7];
            reading.current[LbaMid] = d[9];
            reading.current[LbaHigh] = d[11];
            reading.current[Device] = d[12];
            reading.current[Status] = d[13];
            if ((d[2] & 0x01) != 0) { // EXTEND: the high bytes are valid
                reading.previous[CountExt] = d[4];
                reading.previous[LbaLowExt] = d[6];
                reading.previous[LbaMidExt] = d[8];
                reading.previous[LbaHighExt] = d[10];
            }
            return reading;
        }
        at += 2 + length;
    }
    return empty_reading(refusal(sense[1], sense[2]));
}

// Fixed format. With VALID set the INFORMATION field holds the drive's registers, whatever the
// sense key: since Linux 6.10 libata may return a drive's own sense data (ILLEGAL REQUEST 24/00
// for an abort, say) beside the registers of the command it ended. Error, Status, Device and
// Count stand in the INFORMATION field (bytes 3 to 6), LBA (7:0) to (23:16) in bytes 9 to 11.
// Without VALID, ILLEGAL REQUEST is libata refusing the CDB before the drive saw it; any other
// key carries the registers where libata put them until Linux 6.10: Error, Status, Device and
// Count in bytes 8 to 11 and LBA (7:0) to (23:16) in bytes 17 to 19, of which its 18 bytes of
// sense data hold only the first. What was not written reads as 0.
AtaSenseReading read_fixed_format(const std::uint8_t* sense, std::size_t written) {
    const bool valid = (sense[0] & kValid) != 0;
    if (!valid && written > 12) {
        const AtaSenseVerdict refused = refusal(sense[2], sense[12]);
        if (refused != AtaSenseVerdict::NoTaskFile) {
            return empty_reading(refused);
        }
    }
    if (written < 12) {
        return empty_reading(AtaSenseVerdict::NoTaskFile);
    }
    // Where each register stands: in the INFORMATION field, or where libata put them before.
    struct Offsets {
        std::size_t error, status, device, count, lbaLow, lbaMid, lbaHigh;
    };
    constexpr Offsets kInformationField{3, 4, 5, 6, 9, 10, 11};
    constexpr Offsets kLibataBefore610{8, 9, 10, 11, 17, 18, 19};
    const Offsets& at = valid ? kInformationField : kLibataBefore610;
    const auto byte = [&](std::size_t offset) -> std::uint8_t {
        return offset < written ? sense[offset] : 0;
    };
    AtaSenseReading reading = empty_reading(AtaSenseVerdict::TaskFile);
    reading.current[Error] = byte(at.error);
    reading.current[Status] = byte(at.status);
    reading.current[Device] = byte(at.device);
    reading.current[Count] = byte(at.count);
    reading.current[LbaLow] = byte(at.lbaLow);
    reading.current[LbaMid] = byte(at.lbaMid);
    reading.current[LbaHigh] = byte(at.lbaHigh);
    return reading;
}

} // namespace

AtaSenseReading read_ata_sense(const std::uint8_t* sense, std::size_t written) {
    if (sense == nullptr || written < 8) {
        return empty_reading(AtaSenseVerdict::NoTaskFile);
    }
    // Deferred errors (0x71, 0x73) belong to an earlier command; this one was not carried out.
    switch (sense[0] & kResponseCodeMask) {
    case kDescriptorCurrent:
        return read_descriptor_format(sense, written);
    case kFixedCurrent:
        return read_fixed_format(sense, written);
    default:
        return empty_reading(AtaSenseVerdict::NoTaskFile);
    }
}

std::uint8_t sense_key(const std::uint8_t* sense, std::size_t written) {
    if (sense == nullptr || written < 3) {
        return 0;
    }
    switch (sense[0] & kResponseCodeMask) {
    case kDescriptorCurrent:
        return sense[1] & kSenseKeyMask;
    case kFixedCurrent:
        return sense[2] & kSenseKeyMask;
    default:
        return 0;
    }
}

SenseCode read_sense_code(const std::uint8_t* sense, std::size_t written) {
    if (sense == nullptr || written < 4) {
        return SenseCode{};
    }
    switch (sense[0] & kResponseCodeMask) {
    case kDescriptorCurrent:
        return SenseCode{true, static_cast<std::uint8_t>(sense[1] & kSenseKeyMask), sense[2],
                         sense[3]};
    case kFixedCurrent:
        if (written < 14) {
            return SenseCode{};
        }
        return SenseCode{true, static_cast<std::uint8_t>(sense[2] & kSenseKeyMask), sense[12],
                         sense[13]};
    default:
        return SenseCode{};
    }
}

bool sense_reports_ata_information(const std::uint8_t* sense, std::size_t written) {
    constexpr std::uint8_t kRecoveredError = 0x01;
    constexpr std::uint8_t kAtaInformationAvailable = 0x1D; // ASCQ, with ASC 00
    const SenseCode code = read_sense_code(sense, written);
    return code.valid && code.key == kRecoveredError && code.asc == 0 &&
           code.ascq == kAtaInformationAvailable;
}

bool sense_shows_ata_error(const std::uint8_t* sense, std::size_t written) {
    constexpr std::uint8_t kStatusDeviceFault = 0x20;
    constexpr std::uint8_t kStatusError = 0x01;
    const AtaSenseReading reading = read_ata_sense(sense, written);
    return reading.verdict == AtaSenseVerdict::TaskFile &&
           (reading.current[Status] & (kStatusDeviceFault | kStatusError)) != 0;
}

} // namespace sat
