#include "drive/download_firmware.hpp"

#include <ostream>
#include <string>

#include "drive/firmware_image.hpp"
#include "drive/progress_line.hpp"
#include "drive/transfer_plan.hpp"
#include "platform/console.hpp"
#include "platform/interrupts.hpp"
#include "transport/transport.hpp"

namespace {

constexpr std::uint8_t kDownloadMicrocode = 0x92;
constexpr std::uint8_t kDeviceLba = 0x40;

void print_plan(const TransferPlan& plan, std::uint8_t downloadMode, std::uint32_t imageBytes) {
    std::ostream& out = console::out();
    out << "  ----------------------- " << std::endl;
    out << "   Downloading Code " << std::endl;
    // Upper-case hexadecimal stays on for later output; only the base goes back to decimal.
    out << "  Mode : "
        << "0x0" << std::hex << std::uppercase << unsigned{downloadMode} << std::endl;
    out << std::dec;
    out << "  File Size: " << imageBytes << std::endl;
    out << "  Number of Xfers: " << plan.transferCount << std::endl;
    out << "  Sectors Xfered with Each Xfer: " << static_cast<std::uint16_t>(plan.blocksPerTransfer)
        << std::endl;
    out << "  Data in Bytes per Xfer: " << plan.transferBytes << std::endl;
    out << "  Remainder Bytes to Xfer: " << plan.remainderBytes << std::endl;
    out << "  -----------------------\n\n" << std::endl;
}

void set_block_offset(AtaRegisters& registers, std::uint16_t blockOffset) {
    registers.lbaMid = static_cast<std::uint8_t>(blockOffset & 0xFF);
    registers.lbaHigh = static_cast<std::uint8_t>(blockOffset >> 8);
}

void set_block_count(AtaRegisters& registers, std::uint32_t blocks) {
    registers.count = static_cast<std::uint8_t>(blocks & 0xFF);
    registers.lbaLow = static_cast<std::uint8_t>((blocks >> 8) & 0xFF);
}

// The long time-out belongs to DOWNLOAD MICROCODE alone: the commands after the call keep theirs.
struct AfterDownload {
    DeviceContext& context;
    ~AfterDownload() {
        context.timeoutSeconds = kAfterDownloadTimeoutSeconds;
        context.registersRequested = false;
    }
};

// One DOWNLOAD MICROCODE of the plan. The last one asks for the drive's registers, whose Count
// says whether the drive took the image. A command that timed out leaves the drive's state
// unknown: it may still be writing its flash.
Status send_transfer(DeviceContext& context, DownloadRecord& record, bool last) {
    // Between two commands an interrupt stops the download; the one with the drive completes.
    if (interrupts::pending()) {
        return Status::Interrupted;
    }
    context.registersRequested = last;
    ++record.transfersSent;
    interrupts::command_with_drive(true);
    const Status status = send_ata_command(context);
    interrupts::command_with_drive(false);
    record.countReturned = context.returned.valid;
    record.count = context.returned.count;
    if (status != Status::Success && context.lastError == ERROR_SEM_TIMEOUT) {
        record.timedOut = true;
        return Status::TimedOut;
    }
    return status;
}

// After the last command of a download the drive says in Count whether it still waits for data.
// A Count equal to the block count just sent may be the drive leaving the register as it was
// written, so it tells nothing.
Status judge_last_transfer(const DeviceContext& context, const DownloadRecord& record) {
    if (!record.countReturned || record.count != kDownloadMoreDataExpected ||
        context.registers.count == kDownloadMoreDataExpected) {
        return Status::Success;
    }
    const console::Message message(console::Severity::Error);
    console::err() << "The drive did not take the image: after the last DOWNLOAD MICROCODE ("
                   << record.transfersSent << " of " << record.transfersPlanned
                   << ") it reports in Count 01h that it expects more data." << std::endl;
    return Status::DeviceError;
}

} // namespace

Status download_firmware(DeviceContext& context, DownloadRequest request, DownloadRecord& record) {
    // An interrupt before the call keeps the record of the attempt before it.
    if (interrupts::pending()) {
        return Status::Interrupted;
    }
    const bool activation = request.downloadMode == kModeActivate;
    record = DownloadRecord{};
    record.mode = request.downloadMode;
    record.timeoutSeconds =
        request.timeoutSeconds != 0 ? request.timeoutSeconds : kDefaultDownloadTimeoutSeconds;

    FirmwareImage image;
    const Status readStatus = read_firmware_image(request.fileName, context.verbose, image);
    if (readStatus != Status::Success) {
        return readStatus;
    }
    record.imageRead = true;
    record.imageBytes = image.size;
    if (request.digestImage) {
        record.imageSha256 = sha256(image.bytes.get(), image.size);
    }

    // An empty file holds no firmware: sending nothing and reporting success would tell the user
    // the drive was updated. Refused in every mode, the activation included.
    if (image.size == 0) {
        print_image_refusal("is empty", request.fileName);
        return Status::BadFirmwareFile;
    }
    // The block count of each command is rounded down and the SAT layer moves whole blocks only:
    // the last bytes of such an image never reach the drive.
    if (image.size % kBlockBytes != 0) {
        const std::string why = "is " + std::to_string(image.size) + " bytes, not a multiple of " +
                                std::to_string(kBlockBytes);
        print_image_refusal(why.c_str(), request.fileName);
        return Status::BadFirmwareFile;
    }
    TransferPlan plan = plan_transfers(image.size, request.downloadMode, request.segmentBlocks);
    record.transfersPlanned = plan.transferCount + (plan.remainderBytes != 0 ? 1u : 0u);

    const AfterDownload restore{context};
    AtaRegisters& registers = context.registers;
    registers.command = kDownloadMicrocode;
    registers.device = kDeviceLba;
    registers.features = request.downloadMode;
    set_block_count(registers, plan.blocksPerTransfer);
    context.commandWidth = Ata28;
    context.timeoutSeconds = record.timeoutSeconds;
    context.dataDirection = activation ? NoData : DataOut;
    context.transferLength = plan.transferBytes;

    if (context.verbose != 0) {
        print_plan(plan, request.downloadMode, image.size);
    }
    {
        const console::Message message(console::Severity::Warning);
        console::out()
            << "\n\n\tPLEASE DO NOT CLOSE THIS WINDOW OR INTERRUPT THE FW DOWNLOAD PROCESS\n\n\n";
    }

    for (std::uint32_t i = 0; i < plan.transferCount; ++i) {
        const std::uint32_t percent = transfer_percent(i, plan.transferCount);
        set_block_offset(registers, plan.blockOffset);
        // Sent in place: each transfer points into the one image buffer.
        context.dataBuffer = image.bytes.get() + static_cast<std::size_t>(i) * plan.transferBytes;

        const bool last = !activation && record.transfersSent + 1 == record.transfersPlanned;
        const Status status = send_transfer(context, record, last);
        if (status == Status::Interrupted) {
            return status;
        }
        if (status != Status::Success) {
            if (context.verbose != 0) {
                console::out() << " ^ ";
            }
            if (activation) {
                const console::Message message(console::Severity::Error);
                console::out() << "Failed to Activate ..." << std::endl;
            }
            return status;
        }

        plan.blockOffset = static_cast<std::uint16_t>(plan.blockOffset + plan.blocksPerTransfer);
        if (activation) {
            console::out() << "Activate Completed ..." << std::endl;
        } else {
            draw_progress_line(percent);
        }
        if (last) {
            return judge_last_transfer(context, record);
        }
    }

    if (plan.remainderBytes == 0) {
        return Status::Success;
    }
    context.transferLength = plan.remainderBytes;
    set_block_count(registers, plan.remainderBytes / kBlockBytes);
    set_block_offset(registers, plan.blockOffset);
    context.dataBuffer =
        image.bytes.get() + static_cast<std::size_t>(plan.transferCount) * plan.transferBytes;
    const Status status = send_transfer(context, record, !activation);
    if (status == Status::Interrupted) {
        return status;
    }
    if (context.verbose != 0) {
        console::out() << (status == Status::Success ? " ! " : " !^ ");
    }
    if (status != Status::Success || activation) {
        return status;
    }
    return judge_last_transfer(context, record);
}
