#include "sim/sat_bridge.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "sim/byte_order.hpp"
#include "sim/identify_data.hpp"

namespace sim {

namespace {

// SCSI_PASS_THROUGH_DIRECT, as published.
constexpr std::size_t kRecordBytes = 56;
constexpr std::size_t kLength = 0;
constexpr std::size_t kScsiStatus = 2;
constexpr std::size_t kPathId = 3;
constexpr std::size_t kTargetId = 4;
constexpr std::size_t kLun = 5;
constexpr std::size_t kCdbLength = 6;
constexpr std::size_t kSenseInfoLength = 7;
constexpr std::size_t kDataIn = 8;
constexpr std::size_t kDataTransferLength = 12;
constexpr std::size_t kTimeOutValue = 16;
constexpr std::size_t kDataBuffer = 24;
constexpr std::size_t kSenseInfoOffset = 32;
constexpr std::size_t kCdb = 36;

constexpr std::uint8_t kDataOut = 0;
constexpr std::uint8_t kDataInDirection = 1;
constexpr std::uint8_t kDataUnspecified = 2;

constexpr std::uint8_t kGood = 0x00;
constexpr std::uint8_t kCheckCondition = 0x02;
constexpr std::uint8_t kRecoveredError = 0x01;
constexpr std::uint8_t kIllegalRequest = 0x05;
constexpr std::uint8_t kAbortedCommand = 0x0B;

constexpr std::uint8_t kInquiry = 0x12;
constexpr std::uint8_t kAtaPassThrough16 = 0x85;

constexpr std::uint8_t kProtocolNonData = 3;
constexpr std::uint8_t kProtocolPioIn = 4;
constexpr std::uint8_t kProtocolPioOut = 5;
constexpr std::uint8_t kProtocolDma = 6;

struct ScsiAnswer {
    std::uint8_t status = kGood;
    std::vector<std::uint8_t> sense;
    std::uint32_t moved = 0;
    bool timedOut = false;
};

ScsiAnswer check_condition(std::uint8_t key, std::uint8_t asc, std::uint8_t ascq) {
    ScsiAnswer answer;
    answer.status = kCheckCondition;
    answer.sense.assign(18, 0);
    answer.sense[0] = 0x70; // fixed format, current
    answer.sense[2] = key;
    answer.sense[7] = 10;
    answer.sense[12] = asc;
    answer.sense[13] = ascq;
    return answer;
}

ScsiAnswer invalid_field_in_cdb() {
    return check_condition(kIllegalRequest, 0x24, 0x00);
}

ScsiAnswer invalid_opcode() {
    return check_condition(kIllegalRequest, 0x20, 0x00);
}

// IDENTIFY words as INQUIRY text: the characters in order, as the drive's strings hold them.
std::string identify_text(const IdentifyData& identify, int firstWord, int words) {
    return get_ata_string(identify, firstWord, words);
}

std::vector<std::uint8_t> standard_inquiry(const IdentifyData& identify) {
    std::vector<std::uint8_t> data(96, 0);
    data[0] = 0x00; // direct-access block device
    data[2] = 0x05; // SPC-3
    data[3] = 0x02; // response data format
    data[4] = static_cast<std::uint8_t>(data.size() - 5);
    data[7] = 0x02; // command queuing
    std::memcpy(&data[8], "ATA     ", 8);
    const std::string model = identify_text(identify, 27, 20);
    std::memcpy(&data[16], model.data(), 16);
    // The last four characters of the firmware revision, or the first four when those are blank.
    const std::string firmware = identify_text(identify, 23, 4);
    const std::string tail = firmware.substr(4, 4);
    const std::string revision = tail == "    " ? firmware.substr(0, 4) : tail;
    std::memcpy(&data[32], revision.data(), 4);
    return data;
}

std::vector<std::uint8_t> unit_serial_number_page(const IdentifyData& identify) {
    const std::string serial = identify_text(identify, 10, 10);
    std::vector<std::uint8_t> data(4 + serial.size(), 0);
    data[1] = 0x80;
    write_be16(data.data(), 2, static_cast<std::uint16_t>(serial.size()));
    std::memcpy(&data[4], serial.data(), serial.size());
    return data;
}

ScsiAnswer inquiry(const Drive& drive, const std::uint8_t* cdb, std::uint8_t cdbLength,
                   std::uint8_t dataIn, std::uint8_t* data, std::uint32_t length) {
    if (cdbLength < 6 || (length != 0 && dataIn != kDataInDirection)) {
        return invalid_field_in_cdb();
    }
    const bool evpd = (cdb[1] & 0x01) != 0;
    const std::uint8_t page = cdb[2];
    const std::uint16_t allocation = read_be16(cdb, 3);
    std::vector<std::uint8_t> answer;
    if (!evpd && page == 0) {
        answer = standard_inquiry(drive.identify);
    } else if (evpd && page == 0x80) {
        answer = unit_serial_number_page(drive.identify);
    } else {
        return invalid_field_in_cdb();
    }
    ScsiAnswer result;
    result.moved = static_cast<std::uint32_t>(
        std::min<std::size_t>({answer.size(), allocation, std::size_t{length}}));
    if (result.moved != 0) {
        std::memcpy(data, answer.data(), result.moved);
    }
    return result;
}

// Fixed-format sense of an aborted ATA command with Error, Status, Device and Count in the
// command-specific bytes, as the Linux kernel 6.1 SAT layer reports it.
std::vector<std::uint8_t> ata_error_sense(const AtaOutcome& outcome) {
    ScsiAnswer answer = check_condition(kAbortedCommand, 0x00, 0x00);
    answer.sense[8] = outcome.error;
    answer.sense[9] = outcome.status;
    answer.sense[10] = outcome.device;
    answer.sense[11] = outcome.count;
    return answer.sense;
}

// Descriptor-format sense with the ATA Status Return descriptor, for CK_COND.
std::vector<std::uint8_t> ata_return_sense(const AtaOutcome& outcome, bool extend) {
    std::vector<std::uint8_t> sense(8 + 14, 0);
    sense[0] = 0x72;
    sense[1] = kRecoveredError;
    sense[2] = 0x00;
    sense[3] = 0x1D; // ATA PASS THROUGH INFORMATION AVAILABLE
    sense[7] = 14;
    std::uint8_t* d = &sense[8];
    d[0] = 0x09;
    d[1] = 0x0C;
    d[2] = extend ? 0x01 : 0x00;
    d[3] = outcome.error;
    d[5] = outcome.count;
    d[7] = outcome.lbaLow;
    d[9] = outcome.lbaMid;
    d[11] = outcome.lbaHigh;
    d[12] = outcome.device;
    d[13] = outcome.status;
    return sense;
}

ScsiAnswer ata_pass_through_16(Machine& m, const Disk& disk, const std::uint8_t* cdb,
                               std::uint8_t cdbLength, std::uint8_t dataIn, std::uint8_t* data,
                               std::uint32_t length) {
    if (cdbLength != 16) {
        return invalid_field_in_cdb();
    }
    const std::uint8_t protocol = cdb[1] >> 1 & 0x0F;
    const bool extend = (cdb[1] & 0x01) != 0;
    const bool checkCondition = (cdb[2] & 0x20) != 0;
    const bool toHost = (cdb[2] & 0x08) != 0;

    DataPhase phase = DataPhase::None;
    switch (protocol) {
    case kProtocolNonData:
        if (length != 0) {
            return invalid_field_in_cdb();
        }
        break;
    case kProtocolPioIn:
    case kProtocolPioOut:
    case kProtocolDma: {
        const bool in = protocol == kProtocolPioIn || (protocol == kProtocolDma && toHost);
        if ((protocol == kProtocolPioIn && !toHost) || (protocol == kProtocolPioOut && toHost)) {
            return invalid_field_in_cdb();
        }
        if (length != 0) {
            if (dataIn != (in ? kDataInDirection : kDataOut)) {
                return invalid_field_in_cdb();
            }
            phase = in ? DataPhase::In : DataPhase::Out;
        }
        break;
    }
    default:
        return invalid_field_in_cdb();
    }

    AtaCommand command;
    command.featuresExt = cdb[3];
    command.features = cdb[4];
    command.countExt = cdb[5];
    command.count = cdb[6];
    command.lbaLowExt = cdb[7];
    command.lbaLow = cdb[8];
    command.lbaMidExt = cdb[9];
    command.lbaMid = cdb[10];
    command.lbaHighExt = cdb[11];
    command.lbaHigh = cdb[12];
    command.device = cdb[13];
    command.command = cdb[14];
    command.ext48 = extend;
    if (!extend) {
        // Without EXTEND the bridge sends a 28-bit command: the Ext bytes never reach the drive.
        command.featuresExt = command.countExt = command.lbaLowExt = 0;
        command.lbaMidExt = command.lbaHighExt = 0;
    }

    const AtaOutcome outcome = run_ata_command(m, disk.driveId, command, phase, data, length);
    ScsiAnswer answer;
    answer.moved = outcome.bytesMoved;
    answer.timedOut = outcome.timedOut;
    if (outcome.scsiOverride) {
        answer.status = outcome.scsiStatus;
        answer.sense = outcome.sense;
    } else if ((outcome.status & 0x21) != 0) { // ERR or DF
        answer.status = kCheckCondition;
        answer.sense = ata_error_sense(outcome);
    } else if (checkCondition) {
        answer.status = kCheckCondition;
        answer.sense = ata_return_sense(outcome, extend);
    }
    return answer;
}

std::string direction_name(std::uint8_t dataIn) {
    switch (dataIn) {
    case kDataOut:
        return "out";
    case kDataInDirection:
        return "in";
    case kDataUnspecified:
        return "unspecified";
    default:
        return std::to_string(dataIn);
    }
}

} // namespace

win32::DWORD sat_pass_through(Machine& m, const Disk& disk, std::uint8_t* buffer,
                              win32::DWORD inBytes, win32::DWORD outBytes,
                              win32::DWORD& bytesReturned, std::string& request,
                              std::string& result) {
    if (inBytes < kRecordBytes || outBytes < kRecordBytes) {
        return ERROR_INVALID_PARAMETER;
    }
    const std::uint8_t* b = buffer;
    const std::uint16_t recordLength = read_le16(b, kLength);
    const std::uint8_t cdbLength = b[kCdbLength];
    const std::uint8_t senseLength = b[kSenseInfoLength];
    const std::uint8_t dataIn = b[kDataIn];
    const std::uint32_t length = read_le32(b, kDataTransferLength);
    const std::uint32_t timeout = read_le32(b, kTimeOutValue);
    auto* data =
        reinterpret_cast<std::uint8_t*>(static_cast<std::uintptr_t>(read_le64(b, kDataBuffer)));
    const std::uint32_t senseOffset = read_le32(b, kSenseInfoOffset);
    const std::uint8_t* cdb = b + kCdb;

    request += "length=" + std::to_string(recordLength) + " address=" + std::to_string(b[kPathId]) +
               ":" + std::to_string(b[kTargetId]) + ":" + std::to_string(b[kLun]) +
               " cdb=" + hex_bytes(cdb, std::min<std::size_t>(cdbLength, 16)) +
               " data=" + direction_name(dataIn) + ":" + std::to_string(length) +
               (data == nullptr ? "(null)" : "") + " timeout=" + std::to_string(timeout) +
               " sense=" + std::to_string(senseOffset) + "+" + std::to_string(senseLength);

    // The checks the port driver makes before a request reaches the adapter.
    if (recordLength != kRecordBytes || cdbLength == 0 || cdbLength > 16 || dataIn > 2 ||
        timeout == 0 || (length != 0 && (data == nullptr || dataIn == kDataUnspecified)) ||
        (disk_transfer_limit(disk) != 0 && length > disk_transfer_limit(disk))) {
        return ERROR_INVALID_PARAMETER;
    }
    if (senseLength != 0 &&
        (senseOffset < kRecordBytes || std::uint64_t{senseOffset} + senseLength > outBytes)) {
        return ERROR_INVALID_PARAMETER;
    }

    const Drive* drive = find_drive(m, disk.driveId);
    ScsiAnswer answer;
    if (drive == nullptr) {
        answer = check_condition(0x02, 0x3A, 0x00); // NOT READY, MEDIUM NOT PRESENT
    } else if (cdb[0] == kInquiry) {
        answer = inquiry(*drive, cdb, cdbLength, dataIn, data, length);
    } else if (cdb[0] == kAtaPassThrough16) {
        answer = ata_pass_through_16(m, disk, cdb, cdbLength, dataIn, data, length);
    } else {
        answer = invalid_opcode();
    }

    if (answer.timedOut) {
        return time_out(m, timeout);
    }
    const std::size_t senseReturned = std::min<std::size_t>(answer.sense.size(), senseLength);
    buffer[kScsiStatus] = answer.status;
    write_le32(buffer, kDataTransferLength, answer.moved);
    buffer[kSenseInfoLength] = static_cast<std::uint8_t>(senseReturned);
    if (senseReturned != 0) {
        std::memcpy(buffer + senseOffset, answer.sense.data(), senseReturned);
        bytesReturned = static_cast<win32::DWORD>(senseOffset + senseReturned);
    } else {
        bytesReturned = kRecordBytes;
    }
    result = "scsi-status=" + hex8(answer.status) + " transferred=" + std::to_string(answer.moved);
    if (senseReturned != 0) {
        result += " sense=" + hex_bytes(answer.sense.data(), senseReturned);
    }
    return ERROR_SUCCESS;
}

} // namespace sim
