#include "app/firmware_outcome.hpp"

#include <cstdio>
#include <ostream>
#include <string>

#include "platform/console.hpp"
#include "platform/interrupts.hpp"

namespace {

std::string mode_text(std::uint8_t mode) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02X", unsigned{mode});
    return text;
}

// What the closing IDENTIFY DEVICE read.
std::string reported_revision(Status identified, const DriveInfo& driveInfo) {
    if (identified != Status::Success) {
        return "its firmware revision could not be read";
    }
    return "it reports firmware revision " + driveInfo.firmwareRevision;
}

bool whole_image_taken(const FirmwareProgress& progress) {
    const DownloadRecord& d = progress.download;
    return progress.downloadStatus == Status::Success && d.transfersPlanned != 0 &&
           d.transfersSent == d.transfersPlanned;
}

std::string drive_answer(Status status) {
    switch (status) {
    case Status::Success:
        return "the drive accepted it";
    case Status::TimedOut:
        return "it timed out";
    default:
        return "the drive refused it";
    }
}

} // namespace

FirmwareProgress make_firmware_progress() {
    return FirmwareProgress{0, Status::Success, {}, false, Status::Success, {}, false};
}

bool firmware_command_sent(const FirmwareProgress& progress) {
    return progress.download.transfersSent != 0 || activation_sent(progress);
}

bool activation_sent(const FirmwareProgress& progress) {
    return progress.activation.transfersSent != 0;
}

bool activation_completed(const FirmwareProgress& progress) {
    return progress.activationBegun && progress.activationStatus == Status::Success;
}

void print_timeout_outcome(const DownloadRecord& record, Status identified,
                           const DriveInfo& driveInfo) {
    const console::Message message(console::Severity::Error);
    std::ostream& err = console::err();
    err << "DOWNLOAD MICROCODE mode " << mode_text(record.mode) << " (" << record.transfersSent
        << " of " << record.transfersPlanned << ") timed out after " << record.timeoutSeconds
        << " s; nothing more was sent. ";
    if (identified == Status::Success) {
        err << "The drive reports firmware revision " << driveInfo.firmwareRevision << " now.";
    } else {
        err << "The firmware revision could not be read afterwards (IDENTIFY DEVICE failed).";
    }
    err << std::endl;
}

void print_interrupt_outcome(const FirmwareProgress& progress, Status identified,
                             const DriveInfo& driveInfo) {
    const console::Message message(console::Severity::Error);
    std::ostream& err = console::err();
    err << "Interrupted (" << interrupts::event_name(interrupts::first_event()) << ") ";
    const DownloadRecord& d = progress.download;
    if (!firmware_command_sent(progress)) {
        err << "before any firmware command: nothing was sent, and the drive keeps its firmware";
        if (!driveInfo.firmwareRevision.empty()) {
            err << " " << driveInfo.firmwareRevision;
        }
        err << ".";
    } else if (activation_sent(progress)) {
        err << "after the activation was sent: " << drive_answer(progress.activationStatus) << "; "
            << reported_revision(identified, driveInfo) << ".";
    } else if (!whole_image_taken(progress)) {
        err << "after " << d.transfersSent << " of " << d.transfersPlanned
            << " DOWNLOAD MICROCODE transfers in mode " << mode_text(d.mode)
            << (progress.downloadStatus != Status::Success &&
                        progress.downloadStatus != Status::Interrupted
                    ? ", the last one failed"
                    : "")
            << ": the drive discards an incomplete download and keeps its firmware; "
            << reported_revision(identified, driveInfo) << ".";
    } else if (d.mode == kModeDeferred) {
        err << "after the whole image was sent in mode " << mode_text(d.mode) << " ("
            << d.transfersSent << " of " << d.transfersPlanned
            << " transfers): the drive saved it, and it waits for activation or the next power "
               "cycle; "
            << reported_revision(identified, driveInfo) << ".";
    } else {
        err << "after the whole image was sent in mode " << mode_text(d.mode) << " ("
            << d.transfersSent << " of " << d.transfersPlanned << " transfers): the drive took it; "
            << reported_revision(identified, driveInfo) << ".";
    }
    err << std::endl;
}
