#include "drive/download_firmware.hpp"

#include <ostream>

#include "drive/firmware_image.hpp"
#include "drive/progress_line.hpp"
#include "drive/transfer_plan.hpp"
#include "platform/console.hpp"
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

} // namespace

Status download_firmware(DeviceContext& context, DownloadRequest request) {
    FirmwareImage image;
    const Status readStatus = read_firmware_image(request.fileName, context.verbose, image);
    if (readStatus != Status::Success) {
        return readStatus;
    }

    // An empty file holds no firmware: sending nothing and reporting success would tell the user
    // the drive was updated. Refused in every mode, the activation included.
    if (image.size == 0) {
        print_image_refusal("is empty", request.fileName);
        return Status::BadFirmwareFile;
    }
    TransferPlan plan = plan_transfers(image.size, request.downloadMode, request.segmentBlocks);

    const bool activation = request.downloadMode == kModeActivate;
    AtaRegisters& registers = context.registers;
    registers.command = kDownloadMicrocode;
    registers.device = kDeviceLba;
    registers.features = request.downloadMode;
    set_block_count(registers, plan.blocksPerTransfer);
    context.commandWidth = Ata28;
    context.timeoutSeconds =
        request.timeoutSeconds != 0 ? request.timeoutSeconds : kDefaultDownloadTimeoutSeconds;
    context.dataDirection = activation ? NoData : DataOut;
    context.transferLength = plan.transferBytes;

    if (context.verbose != 0) {
        print_plan(plan, request.downloadMode, image.size);
    }
    console::out()
        << "\n\n\tPLEASE DO NOT CLOSE THIS WINDOW OR INTERRUPT THE FW DOWNLOAD PROCESS\n\n\n";

    for (std::uint32_t i = 0; i < plan.transferCount; ++i) {
        const std::uint32_t percent = transfer_percent(i, plan.transferCount);
        set_block_offset(registers, plan.blockOffset);
        // Sent in place: each transfer points into the one image buffer.
        context.dataBuffer = image.bytes.get() + static_cast<std::size_t>(i) * plan.transferBytes;

        const Status status = send_ata_command(context);
        if (status != Status::Success) {
            if (context.verbose != 0) {
                console::out() << " ^ ";
            }
            if (activation) {
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
    }

    if (plan.remainderBytes == 0) {
        return Status::Success;
    }
    context.transferLength = plan.remainderBytes;
    set_block_count(registers, plan.remainderBytes / kBlockBytes);
    set_block_offset(registers, plan.blockOffset);
    context.dataBuffer =
        image.bytes.get() + static_cast<std::size_t>(plan.transferCount) * plan.transferBytes;
    const Status status = send_ata_command(context);
    if (context.verbose != 0) {
        console::out() << (status == Status::Success ? " ! " : " !^ ");
    }
    return status;
}
