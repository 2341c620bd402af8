#include "sim/ata_pass_through_handler.hpp"

#include <cstdint>

#include "sim/byte_order.hpp"

namespace sim {

namespace {

// ATA_PASS_THROUGH_DIRECT, as published.
constexpr std::size_t kRecordBytes = 48;
constexpr std::size_t kLength = 0;
constexpr std::size_t kAtaFlags = 2;
constexpr std::size_t kPathId = 4;
constexpr std::size_t kTargetId = 5;
constexpr std::size_t kLun = 6;
constexpr std::size_t kDataTransferLength = 8;
constexpr std::size_t kTimeOutValue = 12;
constexpr std::size_t kDataBuffer = 24;
constexpr std::size_t kPreviousTaskFile = 32;
constexpr std::size_t kCurrentTaskFile = 40;

constexpr std::uint16_t kFlagDataIn = 0x02;
constexpr std::uint16_t kFlagDataOut = 0x04;
constexpr std::uint16_t kFlag48Bit = 0x08;

} // namespace

win32::DWORD ata_pass_through_handler(Machine& m, const Disk& disk, std::uint8_t* buffer,
                                      win32::DWORD inBytes, win32::DWORD outBytes,
                                      win32::DWORD& bytesReturned, std::string& request,
                                      std::string& result) {
    if (inBytes < kRecordBytes || outBytes < kRecordBytes) {
        return ERROR_INVALID_PARAMETER;
    }
    const std::uint16_t recordLength = read_le16(buffer, kLength);
    const std::uint16_t flags = read_le16(buffer, kAtaFlags);
    const std::uint32_t length = read_le32(buffer, kDataTransferLength);
    const std::uint32_t timeout = read_le32(buffer, kTimeOutValue);
    auto* data = reinterpret_cast<std::uint8_t*>(
        static_cast<std::uintptr_t>(read_le64(buffer, kDataBuffer)));
    std::uint8_t* previous = buffer + kPreviousTaskFile;
    std::uint8_t* current = buffer + kCurrentTaskFile;

    request += "length=" + std::to_string(recordLength) + " flags=" + hex8(flags) +
               " address=" + std::to_string(buffer[kPathId]) + ":" +
               std::to_string(buffer[kTargetId]) + ":" + std::to_string(buffer[kLun]) +
               " data=" + std::to_string(length) + (data == nullptr ? "(null)" : "") +
               " timeout=" + std::to_string(timeout) + " previous=" + hex_bytes(previous, 8) +
               " current=" + hex_bytes(current, 8);

    const bool in = (flags & kFlagDataIn) != 0;
    const bool out = (flags & kFlagDataOut) != 0;
    if (recordLength != kRecordBytes || (in && out) || timeout == 0 || flags > 0x3F ||
        ((in || out) && length != 0 && data == nullptr) ||
        (disk_transfer_limit(disk) != 0 && length > disk_transfer_limit(disk))) {
        return ERROR_INVALID_PARAMETER;
    }
    const DataPhase phase = length == 0 ? DataPhase::None
                            : in        ? DataPhase::In
                            : out       ? DataPhase::Out
                                        : DataPhase::None;

    AtaCommand command;
    command.features = current[0];
    command.count = current[1];
    command.lbaLow = current[2];
    command.lbaMid = current[3];
    command.lbaHigh = current[4];
    command.device = current[5];
    command.command = current[6];
    command.ext48 = (flags & kFlag48Bit) != 0;
    if (command.ext48) {
        command.featuresExt = previous[0];
        command.countExt = previous[1];
        command.lbaLowExt = previous[2];
        command.lbaMidExt = previous[3];
        command.lbaHighExt = previous[4];
    }

    const AtaOutcome outcome = run_ata_command(m, disk.driveId, command, phase,
                                               phase == DataPhase::None ? nullptr : data, length);
    if (outcome.timedOut) {
        return time_out(m, timeout);
    }
    current[0] = outcome.error;
    current[1] = outcome.count;
    current[2] = outcome.lbaLow;
    current[3] = outcome.lbaMid;
    current[4] = outcome.lbaHigh;
    current[5] = outcome.device;
    current[6] = outcome.status;
    write_le32(buffer, kDataTransferLength, outcome.bytesMoved);
    bytesReturned = kRecordBytes;
    result =
        "task-file=" + hex_bytes(current, 8) + " transferred=" + std::to_string(outcome.bytesMoved);
    return ERROR_SUCCESS;
}

} // namespace sim
