#include "sim/csmi_controller.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "sim/ata_command.hpp"
#include "sim/byte_order.hpp"
#include "sim/call_log.hpp"
#include "sim/machine.hpp"

namespace sim {

namespace {

// SRB_IO_CONTROL, the 28 bytes in front of every miniport request.
constexpr std::size_t kHeaderBytes = 28;
constexpr std::size_t kHeaderLength = 0;
constexpr std::size_t kSignature = 4;
constexpr std::size_t kTimeout = 12;
constexpr std::size_t kControlCode = 16;
constexpr std::size_t kReturnCode = 20;
constexpr std::size_t kLength = 24;

constexpr std::uint32_t kGetDriverInfo = 1;
constexpr std::uint32_t kGetCntlrConfig = 2;
constexpr std::uint32_t kGetPhyInfo = 20;
constexpr std::uint32_t kSspPassthru = 24;
constexpr std::uint32_t kStpPassthru = 25;

// The driver's answers in ReturnCode.
constexpr std::uint32_t kStatusSuccess = 0;
constexpr std::uint32_t kStatusFailed = 1;
constexpr std::uint32_t kStatusBadControlCode = 2;
constexpr std::uint32_t kStatusInvalidParameter = 3;

// What the port driver answers before the miniport sees the request.
constexpr win32::DWORD kErrorInvalidParameter = 87;
constexpr win32::DWORD kErrorRevisionMismatch = 1306;

// Bytes each reply needs after the header (the published Length of the request).
constexpr std::uint32_t kDriverInfoLength = 176;
constexpr std::uint32_t kCntlrConfigLength = 180;
constexpr std::uint32_t kPhyInfoLength = 2052;
constexpr std::uint32_t kSspFixedLength = 372 - 28;
constexpr std::uint32_t kStpFixedLength = 164 - 28;

// Driver information, from the start of the buffer.
constexpr std::size_t kDriverName = 28;
constexpr std::size_t kDriverDescription = 109;
constexpr std::size_t kDriverRevisions = 190;
constexpr std::size_t kNameBytes = 81;

// Controller configuration.
constexpr std::size_t kBoardId = 40;
constexpr std::size_t kControllerSerial = 80;
constexpr std::size_t kControllerFlags = 180;

// Phy information.
constexpr std::size_t kNumberOfPhys = 28;
constexpr std::size_t kPhyTable = 32;
constexpr std::size_t kPhyEntryBytes = 64;

// STP pass-through.
constexpr std::size_t kStpPhyIdentifier = 28;
constexpr std::size_t kStpPortIdentifier = 29;
constexpr std::size_t kStpConnectionRate = 30;
constexpr std::size_t kStpDestination = 32;
constexpr std::size_t kStpCommandFis = 44;
constexpr std::size_t kStpFlags = 64;
constexpr std::size_t kStpDataLength = 68;
constexpr std::size_t kStpConnectionStatus = 72;
constexpr std::size_t kStpStatusFis = 76;
constexpr std::size_t kStpDataBytes = 160;
constexpr std::size_t kStpData = 164;
constexpr std::uint32_t kStpRead = 0x01;
constexpr std::uint32_t kStpWrite = 0x02;

// SSP pass-through.
constexpr std::size_t kSspPhyIdentifier = 28;
constexpr std::size_t kSspPortIdentifier = 29;
constexpr std::size_t kSspDestination = 32;
constexpr std::size_t kSspCdbLength = 48;
constexpr std::size_t kSspCdb = 52;
constexpr std::size_t kSspFlags = 68;
constexpr std::size_t kSspDataLength = 96;
constexpr std::size_t kSspStatus = 100;
constexpr std::size_t kSspDataBytesOffset = 364;
constexpr std::size_t kSspData = 368;

constexpr std::uint8_t kProtocolSata = 0x01;
constexpr std::uint8_t kProtocolStp = 0x04;
constexpr std::uint8_t kProtocolSsp = 0x08;

constexpr std::uint8_t kFisRegisterHostToDevice = 0x27;
constexpr std::uint8_t kFisRegisterDeviceToHost = 0x34;

std::string hex32_text(std::uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof text, "%x", static_cast<unsigned>(value));
    return text;
}

std::string code_name(std::uint32_t code) {
    switch (code) {
    case kGetDriverInfo:
        return "GET_DRIVER_INFO";
    case kGetCntlrConfig:
        return "GET_CNTLR_CONFIG";
    case kGetPhyInfo:
        return "GET_PHY_INFO";
    case kSspPassthru:
        return "SSP_PASSTHRU";
    case kStpPassthru:
        return "STP_PASSTHRU";
    default:
        return std::to_string(code);
    }
}

// Adds to the log line of the DeviceIoControl being served.
void note(Machine& m, const std::string& text) {
    if (m.current != nullptr) {
        m.current->request += (m.current->request.empty() ? "" : " ") + text;
    }
}

const CsmiFault* take_fault(CsmiController& controller, std::uint32_t code) {
    const CsmiFault* fired = nullptr;
    for (CsmiFault& fault : controller.faults) {
        if (fault.controlCode != 0 && fault.controlCode != code) {
            continue;
        }
        ++fault.seen;
        const bool fires =
            fault.nth == 0 || fault.seen == fault.nth || (fault.onward && fault.seen > fault.nth);
        if (fires && fired == nullptr) {
            fired = &fault;
        }
    }
    return fired;
}

void write_text_field(std::uint8_t* buffer, std::size_t offset, const std::string& text) {
    std::memcpy(buffer + offset, text.data(), std::min(text.size(), kNameBytes));
}

void write_link_end(std::uint8_t* entry, const CsmiLinkEnd& end) {
    entry[0] = end.deviceType;
    entry[1] = end.restricted;
    entry[2] = end.initiatorProtocol;
    entry[3] = end.targetProtocol;
    std::memcpy(entry + 12, end.sasAddress.data(), end.sasAddress.size());
    entry[20] = end.phyIdentifier;
    entry[21] = end.signalClass;
}

std::uint32_t answer_driver_info(const CsmiController& controller, std::uint8_t* buffer) {
    std::memset(buffer + kHeaderBytes, 0, kDriverInfoLength);
    write_text_field(buffer, kDriverName, controller.driverName);
    write_text_field(buffer, kDriverDescription, controller.driverDescription);
    const std::uint16_t revisions[] = {controller.majorRevision,     controller.minorRevision,
                                       controller.buildRevision,     controller.releaseRevision,
                                       controller.csmiMajorRevision, controller.csmiMinorRevision};
    for (std::size_t i = 0; i < 6; ++i) {
        write_le16(buffer, kDriverRevisions + 2 * i, revisions[i]);
    }
    return kStatusSuccess;
}

std::uint32_t answer_cntlr_config(const CsmiController& controller, std::uint8_t* buffer) {
    std::memset(buffer + kHeaderBytes, 0, kCntlrConfigLength);
    write_le32(buffer, kBoardId, controller.boardId);
    write_text_field(buffer, kControllerSerial, controller.serialNumber);
    write_le32(buffer, kControllerFlags, controller.controllerFlags);
    return kStatusSuccess;
}

std::uint32_t answer_phy_info(const CsmiController& controller, std::uint8_t* buffer) {
    std::memset(buffer + kHeaderBytes, 0, kPhyInfoLength);
    buffer[kNumberOfPhys] = controller.numberOfPhys;
    for (std::size_t i = 0; i < controller.phys.size(); ++i) {
        const CsmiPhy& phy = controller.phys[i];
        std::uint8_t* entry = buffer + kPhyTable + kPhyEntryBytes * i;
        write_link_end(entry, phy.identify);
        entry[28] = phy.portIdentifier;
        entry[29] = phy.negotiatedLinkRate;
        entry[30] = phy.minimumLinkRate;
        entry[31] = phy.maximumLinkRate;
        entry[32] = phy.phyChangeCount;
        entry[33] = phy.autoDiscover;
        entry[34] = phy.phyFeatures;
        write_link_end(entry + 36, phy.attached);
    }
    return kStatusSuccess;
}

// The phy whose attached device has this address and speaks one of the protocols; the first
// of a wide port.
const CsmiPhy* phy_at_address(const CsmiController& controller, const std::uint8_t* address,
                              std::uint8_t protocols) {
    for (const CsmiPhy& phy : controller.phys) {
        if (phy.identify.deviceType != 0 && phy.attached.deviceType != 0 &&
            (phy.attached.targetProtocol & protocols) != 0 &&
            std::memcmp(phy.attached.sasAddress.data(), address, 8) == 0) {
            return &phy;
        }
    }
    return nullptr;
}

std::uint32_t answer_stp(Machine& m, const CsmiController& controller, std::uint8_t* buffer,
                         std::size_t requestBytes) {
    const std::uint8_t* fis = buffer + kStpCommandFis;
    const std::uint32_t flags = read_le32(buffer, kStpFlags);
    const std::uint32_t dataLength = read_le32(buffer, kStpDataLength);
    note(m, "stp phy=" + hex8(buffer[kStpPhyIdentifier]) + " port=" +
                hex8(buffer[kStpPortIdentifier]) + " rate=" + hex8(buffer[kStpConnectionRate]) +
                " destination=" + hex_bytes(buffer + kStpDestination, 8) +
                " fis=" + hex_bytes(fis, 20) + " flags=" + hex32_text(flags) +
                " data-length=" + std::to_string(dataLength));

    const std::uint32_t direction = flags & (kStpRead | kStpWrite);
    if (direction == (kStpRead | kStpWrite) ||
        kStpData + std::uint64_t{dataLength} > requestBytes ||
        (direction == 0 && dataLength != 0)) {
        return kStatusInvalidParameter;
    }
    // Only a register FIS with the C bit opens a command; port multipliers are not supported.
    if (fis[0] != kFisRegisterHostToDevice || (fis[1] & 0x80) == 0 || (fis[1] & 0x0F) != 0) {
        return kStatusInvalidParameter;
    }
    const CsmiPhy* phy =
        phy_at_address(controller, buffer + kStpDestination, kProtocolSata | kProtocolStp);
    if (phy == nullptr || phy->driveId.empty()) {
        return kStatusFailed;
    }

    AtaCommand command;
    command.command = fis[2];
    command.features = fis[3];
    command.lbaLow = fis[4];
    command.lbaMid = fis[5];
    command.lbaHigh = fis[6];
    command.device = fis[7];
    command.lbaLowExt = fis[8];
    command.lbaMidExt = fis[9];
    command.lbaHighExt = fis[10];
    command.featuresExt = fis[11];
    command.count = fis[12];
    command.countExt = fis[13];
    command.ext48 = true; // a FIS always carries every register
    const DataPhase phase = direction == kStpRead    ? DataPhase::In
                            : direction == kStpWrite ? DataPhase::Out
                                                     : DataPhase::None;
    const AtaOutcome outcome =
        run_ata_command(m, phy->driveId, command, phase, buffer + kStpData, dataLength);

    // The drive's ending status comes back as a register device-to-host FIS; ReturnCode only
    // tells that the FIS exchange took place.
    std::uint8_t* status = buffer + kStpStatusFis;
    std::memset(status, 0, 20);
    if (!controller.statusFis) {
        buffer[kStpConnectionStatus] = 0;
        write_le32(buffer, kStpDataBytes, outcome.bytesMoved);
        return kStatusSuccess;
    }
    status[0] = kFisRegisterDeviceToHost;
    status[1] = 0x40; // interrupt
    status[2] = outcome.status;
    status[3] = outcome.error;
    status[4] = outcome.lbaLow;
    status[5] = outcome.lbaMid;
    status[6] = outcome.lbaHigh;
    status[7] = outcome.device;
    status[12] = outcome.count;
    buffer[kStpConnectionStatus] = 0; // open accepted
    write_le32(buffer, kStpDataBytes, outcome.bytesMoved);
    return kStatusSuccess;
}

std::uint32_t answer_ssp(Machine& m, const CsmiController& controller, std::uint8_t* buffer,
                         std::size_t requestBytes) {
    const std::uint8_t cdbLength = buffer[kSspCdbLength];
    const std::uint32_t dataLength = read_le32(buffer, kSspDataLength);
    note(m, "ssp phy=" + hex8(buffer[kSspPhyIdentifier]) +
                " port=" + hex8(buffer[kSspPortIdentifier]) +
                " destination=" + hex_bytes(buffer + kSspDestination, 8) +
                " cdb=" + hex_bytes(buffer + kSspCdb, std::min<std::size_t>(cdbLength, 16)) +
                " flags=" + hex32_text(read_le32(buffer, kSspFlags)) +
                " data-length=" + std::to_string(dataLength));
    if (cdbLength == 0 || cdbLength > 16 || kSspData + std::uint64_t{dataLength} > requestBytes) {
        return kStatusInvalidParameter;
    }
    if (phy_at_address(controller, buffer + kSspDestination, kProtocolSsp) == nullptr) {
        return kStatusFailed;
    }
    // GOOD status with no sense; the target's INQUIRY data are not modelled.
    std::memset(buffer + kSspStatus, 0, kSspData - kSspStatus);
    write_le32(buffer, kSspDataBytesOffset, 0);
    return kStatusSuccess;
}

} // namespace

win32::DWORD csmi_miniport(Machine& m, CsmiController& controller, std::uint8_t* buffer,
                           win32::DWORD inBytes, win32::DWORD outBytes,
                           win32::DWORD* bytesReturned) {
    if (bytesReturned != nullptr) {
        *bytesReturned = 0;
    }
    controller.lastRequest.assign(buffer, buffer + inBytes);

    // The SCSI port driver's checks of the SRB_IO_CONTROL header.
    if (inBytes < kHeaderBytes || outBytes < kHeaderBytes) {
        return kErrorInvalidParameter;
    }
    if (read_le32(buffer, kHeaderLength) != kHeaderBytes) {
        return kErrorRevisionMismatch;
    }
    const std::uint32_t length = read_le32(buffer, kLength);
    if (kHeaderBytes + std::uint64_t{length} > std::min(inBytes, outBytes)) {
        return kErrorInvalidParameter;
    }
    if (!controller.csmi) {
        return controller.noCsmiError;
    }

    const std::uint32_t code = read_le32(buffer, kControlCode);
    const bool all = std::memcmp(buffer + kSignature, "CSMIALL\0", 8) == 0;
    const bool sas = std::memcmp(buffer + kSignature, "CSMISAS\0", 8) == 0;
    note(m, "csmi=" + code_name(code) + " timeout=" + std::to_string(read_le32(buffer, kTimeout)));
    if (!all && !sas) {
        return ERROR_INVALID_FUNCTION; // a signature the miniport does not own
    }

    const CsmiFault* fault = take_fault(controller, code);
    if (fault != nullptr && fault->error != 0) {
        note(m, "csmi-fault=" + std::to_string(fault->error));
        return fault->error;
    }

    const std::size_t requestBytes = kHeaderBytes + length;
    std::uint32_t returnCode = kStatusSuccess;
    if (fault == nullptr || fault->execute) {
        const auto needs = [&](bool signatureOk, std::uint32_t minimum) {
            if (!signatureOk) {
                return kStatusBadControlCode;
            }
            return length < minimum ? kStatusInvalidParameter : kStatusSuccess;
        };
        switch (code) {
        case kGetDriverInfo:
            returnCode = needs(all, kDriverInfoLength);
            if (returnCode == kStatusSuccess) {
                returnCode = answer_driver_info(controller, buffer);
            }
            break;
        case kGetCntlrConfig:
            returnCode = needs(all, kCntlrConfigLength);
            if (returnCode == kStatusSuccess) {
                returnCode = answer_cntlr_config(controller, buffer);
            }
            break;
        case kGetPhyInfo:
            returnCode = needs(sas, kPhyInfoLength);
            if (returnCode == kStatusSuccess) {
                returnCode = answer_phy_info(controller, buffer);
            }
            break;
        case kSspPassthru:
            returnCode = needs(sas, kSspFixedLength);
            if (returnCode == kStatusSuccess) {
                returnCode = answer_ssp(m, controller, buffer, requestBytes);
            }
            break;
        case kStpPassthru:
            returnCode = needs(sas, kStpFixedLength);
            if (returnCode == kStatusSuccess) {
                returnCode = answer_stp(m, controller, buffer, requestBytes);
            }
            break;
        default:
            returnCode = kStatusBadControlCode;
            break;
        }
    }
    if (fault != nullptr) {
        returnCode = fault->returnCode;
        note(m, "csmi-fault=return-code");
    }
    write_le32(buffer, kReturnCode, returnCode);
    if (bytesReturned != nullptr) {
        *bytesReturned = static_cast<win32::DWORD>(requestBytes);
    }
    return ERROR_SUCCESS;
}

} // namespace sim
