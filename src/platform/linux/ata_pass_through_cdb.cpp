#include "platform/linux/ata_pass_through_cdb.hpp"

#include <cstring>

namespace linux_backend {
namespace {

constexpr std::uint8_t kAtaPassThrough16 = 0x85;
constexpr std::uint8_t kProtocolNonData = 3;
constexpr std::uint8_t kProtocolPioDataIn = 4;
constexpr std::uint8_t kProtocolPioDataOut = 5;
constexpr std::uint8_t kExtend = 0x01;
constexpr std::uint8_t kCheckCondition = 0x20; // CK_COND: return the registers in any case
constexpr std::uint8_t kTransferFromDevice = 0x08;
constexpr std::uint8_t kLengthInBlocks = 0x04;
constexpr std::uint8_t kLengthInCount = 0x02;

constexpr win32::USHORT kCarriedFlags =
    ATA_FLAGS_DRDY_REQUIRED | ATA_FLAGS_DATA_IN | ATA_FLAGS_DATA_OUT | ATA_FLAGS_48BIT_COMMAND;

} // namespace

bool build_ata_pass_through_cdb(const win32::ATA_PASS_THROUGH_DIRECT& request,
                                AtaPassThroughCdb& cdb) {
    const win32::USHORT flags = request.AtaFlags;
    const bool dataIn = (flags & ATA_FLAGS_DATA_IN) != 0;
    const bool dataOut = (flags & ATA_FLAGS_DATA_OUT) != 0;
    const bool extended = (flags & ATA_FLAGS_48BIT_COMMAND) != 0;
    const bool hasData = request.DataTransferLength != 0;

    if (request.Length != sizeof(win32::ATA_PASS_THROUGH_DIRECT) || (flags & ~kCarriedFlags) != 0 ||
        (dataIn && dataOut)) {
        return false;
    }
    if ((dataIn || dataOut) != hasData || (hasData && request.DataBuffer == nullptr)) {
        return false;
    }

    std::memset(cdb.bytes, 0, sizeof cdb.bytes);
    std::uint8_t protocol = kProtocolNonData;
    cdb.phase = DataPhase::None;
    cdb.bytes[2] = kCheckCondition;
    if (dataIn) {
        protocol = kProtocolPioDataIn;
        cdb.phase = DataPhase::In;
        cdb.bytes[2] |= kTransferFromDevice | kLengthInBlocks | kLengthInCount;
    } else if (dataOut) {
        protocol = kProtocolPioDataOut;
        cdb.phase = DataPhase::Out;
        cdb.bytes[2] |= kLengthInBlocks | kLengthInCount;
    }

    const win32::UCHAR* current = request.CurrentTaskFile;
    const win32::UCHAR* previous = request.PreviousTaskFile;
    cdb.bytes[0] = kAtaPassThrough16;
    cdb.bytes[1] = static_cast<std::uint8_t>(protocol << 1) | (extended ? kExtend : 0);
    // Bytes 3 to 14 pair each register's high byte (48-bit commands only) with its low byte.
    if (extended) {
        cdb.bytes[3] = previous[0];  // Features (15:8)
        cdb.bytes[5] = previous[1];  // Count (15:8)
        cdb.bytes[7] = previous[2];  // LBA (31:24)
        cdb.bytes[9] = previous[3];  // LBA (39:32)
        cdb.bytes[11] = previous[4]; // LBA (47:40)
    }
    cdb.bytes[4] = current[0];  // Features (7:0)
    cdb.bytes[6] = current[1];  // Count (7:0)
    cdb.bytes[8] = current[2];  // LBA (7:0)
    cdb.bytes[10] = current[3]; // LBA (15:8)
    cdb.bytes[12] = current[4]; // LBA (23:16)
    cdb.bytes[13] = current[5]; // Device
    cdb.bytes[14] = current[6]; // Command
    return true;
}

} // namespace linux_backend
