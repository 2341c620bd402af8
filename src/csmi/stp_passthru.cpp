#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "csmi/csmi.hpp"
#include "platform/console.hpp"

namespace {

constexpr std::uint8_t kFisTypeRegisterHostToDevice = 0x27;
constexpr std::uint8_t kFisCommandBit = 0x80; // Command register written, port multiplier port 0
constexpr std::uint8_t kFisTypeRegisterDeviceToHost = 0x34;
constexpr std::uint8_t kStatusError = 0x01;
constexpr std::uint8_t kStatusDeviceFault = 0x20;

// The drive's ending status, when the driver passed on its register device-to-host FIS. A
// driver that leaves the FIS all zero tells nothing, and its ReturnCode stands alone.
bool status_fis_shows_error(const std::uint8_t (&fis)[kFisBytes]) {
    return fis[0] == kFisTypeRegisterDeviceToHost &&
           (fis[2] & (kStatusError | kStatusDeviceFault)) != 0;
}

// Serial ATA register host-to-device FIS. The controller forwards all twelve registers whatever
// the command's width; a 28-bit command's drive ignores the Ext bytes.
void build_command_fis(const AtaRegisters& registers, std::uint8_t (&fis)[kFisBytes]) {
    std::memset(fis, 0, sizeof fis);
    fis[0] = kFisTypeRegisterHostToDevice;
    fis[1] = kFisCommandBit;
    fis[2] = registers.command;
    fis[3] = registers.features;
    fis[4] = registers.lbaLow;
    fis[5] = registers.lbaMid;
    fis[6] = registers.lbaHigh;
    fis[7] = registers.device;
    fis[8] = registers.lbaLowExt;
    fis[9] = registers.lbaMidExt;
    fis[10] = registers.lbaHighExt;
    fis[11] = registers.featuresExt;
    fis[12] = registers.count;
    fis[13] = registers.countExt;
}

win32::ULONG stp_flags(std::uint32_t dataDirection) {
    // Every command goes as PIO: the drive's own protocol is the controller's business.
    switch (dataDirection) {
    case DataIn:
        return CSMI_SAS_STP_PIO | CSMI_SAS_STP_READ;
    case DataOut:
        return CSMI_SAS_STP_PIO | CSMI_SAS_STP_WRITE;
    default:
        return CSMI_SAS_STP_PIO;
    }
}

} // namespace

Status issue_stp_passthru(DeviceContext& context) {
    const std::uint32_t direction = context.dataDirection;
    if (direction != NoData && direction != DataIn && direction != DataOut) {
        return Status::NotIssued;
    }
    const bool hasData = direction != NoData;
    const std::uint8_t command = context.registers.command;

    const std::size_t dataBytes = hasData ? context.transferLength : 0;
    if (dataBytes != 0 && context.dataBuffer == nullptr) {
        return Status::NotIssued; // a data phase with nowhere to move the data
    }
    // A request longer than the DWORD lengths of DeviceIoControl can carry cannot be had.
    const std::size_t size = kStpFixedBytes + dataBytes;
    std::unique_ptr<std::uint8_t[]> buffer;
    if (size <= std::numeric_limits<win32::DWORD>::max()) {
        buffer.reset(new (std::nothrow) std::uint8_t[size]);
    }
    if (!buffer) {
        const console::Message message(console::Severity::Error);
        console::printf("Error allocating memory for stp command\n");
        return Status::NotIssued;
    }
    if (context.verbose >= 2) {
        console::printf("Allocated %d bytes for cmd 0x%x\n", static_cast<int>(size), command);
    }

    CSMI_SAS_STP_PASSTHRU_BUFFER request;
    std::memset(&request, 0, sizeof request);
    fill_csmi_header(request.IoctlHeader, kCsmiSasSignature, context.timeoutSeconds,
                     CC_CSMI_SAS_STP_PASSTHRU, size);
    const CSMI_SAS_PHY_ENTITY phy = phy_entity_from_bytes(context.phyEntity);
    std::memcpy(request.Parameters.bDestinationSASAddress, phy.Attached.bSASAddress,
                sizeof phy.Attached.bSASAddress);
    request.Parameters.uDataLength = static_cast<std::uint32_t>(dataBytes);
    request.Parameters.bPhyIdentifier = phy.Identify.bPhyIdentifier;
    request.Parameters.bPortIdentifier = phy.bPortIdentifier;
    request.Parameters.bConnectionRate = CSMI_SAS_LINK_RATE_NEGOTIATED;
    request.Parameters.uFlags = stp_flags(direction);
    build_command_fis(context.registers, request.Parameters.bCommandFIS);

    std::memset(buffer.get(), 0, size);
    std::memcpy(buffer.get(), &request, kStpDataOffset);
    if (direction == DataOut && dataBytes != 0) {
        std::memcpy(buffer.get() + kStpDataOffset, context.dataBuffer, dataBytes);
    }

    if (context.verbose >= 2) {
        console::printf("------\n\n");
        dump_stp_request(request);
        console::printf("------\n\n");
    }

    context.returned = AtaReturnedRegisters{};
    const bool sent = send_csmi_request(context.handle, buffer.get(), size);
    context.lastError = win32::GetLastError();
    std::memcpy(&request, buffer.get(), kStpDataOffset);
    const std::uint8_t* fis = request.Status.bStatusFIS;
    if (sent && request.IoctlHeader.ReturnCode == 0 && fis[0] == kFisTypeRegisterDeviceToHost) {
        // Register device-to-host FIS: Status 2, Error 3, LBA 4 to 6, Device 7, Count 12.
        context.returned =
            AtaReturnedRegisters{true, fis[2], fis[3], fis[12], fis[4], fis[5], fis[6], fis[7]};
    }

    Status status = Status::Success;
    if (!sent || request.IoctlHeader.ReturnCode != 0) {
        const console::Message message(console::Severity::Error);
        console::printf("%s: CMD=0x%x failed. ioret=%d GetLastErr=0x%x, "
                        "IoctlHeader->ReturnCode=%d\n",
                        "issue_stp_passthru", command, sent ? 1 : 0, context.lastError,
                        static_cast<int>(request.IoctlHeader.ReturnCode));
        status = Status::Failed;
    } else if (status_fis_shows_error(request.Status.bStatusFIS)) {
        // The controller carried the command, and the drive ended it with an error: a ReturnCode
        // of 0 says only that the FIS exchange took place.
        if (context.verbose != 0) {
            const console::Message message(console::Severity::Error);
            console::printf("%s: CMD=0x%x ended by the drive. Status=0x%02x Error=0x%02x\n",
                            "issue_stp_passthru", command, request.Status.bStatusFIS[2],
                            request.Status.bStatusFIS[3]);
        }
        status = Status::DeviceError;
    } else if (direction == DataIn && dataBytes != 0) {
        std::memcpy(context.dataBuffer, buffer.get() + kStpDataOffset, dataBytes);
    }

    if (context.verbose >= 2) {
        console::printf("Status ");
        dump_fis(request.Status.bStatusFIS);
    }
    return status;
}
