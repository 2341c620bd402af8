#include "app/download_screens.hpp"

#include <algorithm>
#include <cstdio>
#include <ostream>

#include "drive/firmware_image.hpp"
#include "drive/identify.hpp"
#include "drive/transfer_plan.hpp"
#include "platform/console.hpp"
#include "transport/transport.hpp"

namespace {

constexpr std::uint16_t kNotAtaDevice = 0x8000;
constexpr std::uint32_t kMaxSegmentBlocks = 255;

// ata_string_to_text trims blanks from the ends but keeps NULs, so an empty IDENTIFY string
// comes back as NULs with blanks between them, or as nothing.
bool nothing_but_nul_and_blanks(const std::string& text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return c == '\0' || is_ata_blank(c); });
}

} // namespace

Status screen_ata_device(const DriveInfo& driveInfo) {
    const console::Message message(console::Severity::Error);
    if ((driveInfo.generalConfiguration & kNotAtaDevice) != 0) {
        char word[8];
        std::snprintf(word, sizeof word, "0x%04X", unsigned{driveInfo.generalConfiguration});
        console::err() << "Not an ATA drive: IDENTIFY DEVICE word 0 is " << word
                       << " (bit 15 set); no firmware command was sent." << std::endl;
        return Status::NoDevice;
    }
    if (nothing_but_nul_and_blanks(driveInfo.modelNumber) &&
        nothing_but_nul_and_blanks(driveInfo.serialNumber)) {
        console::err() << "Not an ATA drive: IDENTIFY DEVICE holds no model number and no serial "
                          "number; no firmware command was sent."
                       << std::endl;
        return Status::NoDevice;
    }
    return Status::Success;
}

Status screen_transfer_limit(DeviceContext& context, const RunOptions& options,
                             AdapterLimit& limit) {
    limit = AdapterLimit{false, false, 0};
    if ((context.interfaceKind & Csmi) != 0 || (context.interfaceKind & DownloadRequested) == 0) {
        return Status::Success; // an activation alone has no data phase
    }
    std::uint32_t imageBytes = 0;
    if (!measure_firmware_file(options.request.fileName, imageBytes) || imageBytes == 0) {
        return Status::Success;
    }
    std::uint32_t limitBytes = 0;
    limit.asked = true;
    if (!query_transfer_limit(context, limitBytes)) {
        return Status::Success;
    }
    limit.answered = true;
    limit.bytes = limitBytes;
    const DownloadRequest& request = options.request;
    const TransferPlan plan =
        plan_transfers(imageBytes, request.downloadMode, request.segmentBlocks);
    const std::uint32_t largest =
        std::max(plan.transferCount != 0 ? plan.transferBytes : 0u, plan.remainderBytes);
    if (largest <= limitBytes) {
        return Status::Success;
    }
    const console::Message message(console::Severity::Error);
    std::ostream& err = console::err();
    err << "Transfer too large for the adapter: one data phase of " << std::dec << largest
        << " bytes, the adapter carries at most " << limitBytes << "; ";
    const std::uint32_t fits = std::min(limitBytes / kBlockBytes, kMaxSegmentBlocks);
    if (fits == 0) {
        err << "not even one block of " << kBlockBytes << " bytes fits";
    } else {
        err << "use /s or /e with /g " << fits << " or less";
    }
    err << ". No firmware command was sent." << std::endl;
    return Status::BadFirmwareFile;
}
