#include <cstring>

#include "platform/console.hpp"
#include "transport/transport.hpp"

namespace {

constexpr std::uint32_t kDefaultTimeoutSeconds = 5;
constexpr std::uint8_t kStatusReadyComplete = 0x50; // DRDY and bit 4, nothing else
constexpr std::uint8_t kErrorCrcAbort = 0x84;       // interface CRC error with abort

// CurrentTaskFile as the driver returns it.
enum TaskFileOut {
    OutError = 0,
    OutCount = 1,
    OutLbaLow = 2,
    OutLbaMid = 3,
    OutLbaHigh = 4,
    OutDevice = 5,
    OutStatus = 6
};

void print_register_dump(const win32::ATA_PASS_THROUGH_DIRECT& request, win32::DWORD bytesReturned,
                         std::uint32_t requested) {
    const auto* taskFile = request.CurrentTaskFile;
    console::printf(" Status = 0x%x", taskFile[OutStatus]);
    console::printf(" Error = 0x%x", taskFile[OutError]);
    console::printf(" SC = 0x%x", taskFile[OutCount]);
    console::printf(" LBA Low = 0x%x", taskFile[OutLbaLow]);
    console::printf(" LBA Mid = 0x%x", taskFile[OutLbaMid]);
    console::printf(" LBA Hi = 0x%x\n", taskFile[OutLbaHigh]);
    console::printf(" Data Transfered = %d [io=%d, req=%d]\n",
                    static_cast<int>(request.DataTransferLength), static_cast<int>(bytesReturned),
                    static_cast<int>(requested));
}

} // namespace

Status ata_pass_through(DeviceContext& context) {
    win32::ATA_PASS_THROUGH_DIRECT request;
    std::memset(&request, 0, sizeof request);
    request.Length = sizeof request;
    request.AtaFlags = ATA_FLAGS_DRDY_REQUIRED;
    Status result = Status::Success;

    switch (context.dataDirection) {
    case NoData:
        break;
    case DataIn:
        request.AtaFlags = ATA_FLAGS_DRDY_REQUIRED | ATA_FLAGS_DATA_IN;
        request.DataTransferLength = context.transferLength;
        request.DataBuffer = context.dataBuffer;
        break;
    case DataOut:
        request.AtaFlags = ATA_FLAGS_DRDY_REQUIRED | ATA_FLAGS_DATA_OUT;
        request.DataTransferLength = context.transferLength;
        request.DataBuffer = context.dataBuffer;
        break;
    default: {
        // Still sent, without a data phase; a drive that accepts it does not make it right.
        const console::Message message(console::Severity::Error);
        console::out() << "No valid data direction set " << context.dataDirection << std::endl;
        result = Status::Failed;
        break;
    }
    }

    request.PathId = context.pathId;
    request.TargetId = context.targetId;
    request.Lun = context.lun;
    request.TimeOutValue =
        context.timeoutSeconds != 0 ? context.timeoutSeconds : kDefaultTimeoutSeconds;

    const AtaRegisters& r = context.registers;
    request.CurrentTaskFile[0] = r.features;
    request.CurrentTaskFile[1] = r.count;
    request.CurrentTaskFile[2] = r.lbaLow;
    request.CurrentTaskFile[3] = r.lbaMid;
    request.CurrentTaskFile[4] = r.lbaHigh;
    request.CurrentTaskFile[5] = r.device;
    request.CurrentTaskFile[6] = r.command;
    if (context.commandWidth == Ata48) {
        request.PreviousTaskFile[0] = r.featuresExt;
        request.PreviousTaskFile[1] = r.countExt;
        request.PreviousTaskFile[2] = r.lbaLowExt;
        request.PreviousTaskFile[3] = r.lbaMidExt;
        request.PreviousTaskFile[4] = r.lbaHighExt;
        request.AtaFlags |= ATA_FLAGS_48BIT_COMMAND;
    }

    context.returned = AtaReturnedRegisters{};
    win32::SetLastError(0);
    win32::DWORD bytesReturned = 0;
    const win32::BOOL sent =
        win32::DeviceIoControl(context.handle, IOCTL_ATA_PASS_THROUGH_DIRECT, &request,
                               sizeof request, &request, sizeof request, &bytesReturned, nullptr);
    context.lastError = win32::GetLastError();

    if (!sent) {
        if (context.verbose != 0) {
            const console::Message message(console::Severity::Error);
            console::printf(" WinIoStatus = 0x%x", context.lastError);
        }
        return context.lastError == ERROR_INVALID_FUNCTION ? Status::InterfaceNotSupported
                                                           : Status::Failed;
    }

    const std::uint8_t* taskFile = request.CurrentTaskFile;
    context.returned = AtaReturnedRegisters{true,
                                            taskFile[OutStatus],
                                            taskFile[OutError],
                                            taskFile[OutCount],
                                            taskFile[OutLbaLow],
                                            taskFile[OutLbaMid],
                                            taskFile[OutLbaHigh],
                                            taskFile[OutDevice]};
    if (taskFile[OutStatus] == kStatusReadyComplete) {
        return result;
    }
    if (taskFile[OutError] == kErrorCrcAbort) {
        return Status::CrcAbort;
    }
    // A data-in command whose whole length arrived is forgiven its Status: some bridges leave
    // DRQ set after good data.
    if (context.dataDirection == DataIn && request.DataTransferLength == context.transferLength) {
        return result;
    }
    if (context.verbose == 0) {
        return Status::DeviceError;
    }
    const console::Message message(console::Severity::Error);
    print_register_dump(request, bytesReturned, context.transferLength);
    return Status::DeviceError;
}
