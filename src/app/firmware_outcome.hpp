// What a run sent to the drive and what the drive answered, and the lines that end a run that
// did not go as planned: a DOWNLOAD MICROCODE that timed out, an interrupt.
#pragma once

#include <cstdint>

#include "drive/download_firmware.hpp"
#include "drive/drive_info.hpp"
#include "transport/status.hpp"

struct FirmwareProgress {
    std::int32_t attempts;   // download attempts begun
    Status downloadStatus;   // of the last attempt
    DownloadRecord download; // of the last attempt
    bool activationBegun;    // the activation call was made (it may have sent nothing)
    Status activationStatus;
    DownloadRecord activation;
    bool interruptKeptBack; // an interrupt kept back a firmware command the run would send
};

FirmwareProgress make_firmware_progress();

// Whether any DOWNLOAD MICROCODE reached the drive; whether the activation did, and whether the
// drive completed it.
bool firmware_command_sent(const FirmwareProgress& progress);
bool activation_sent(const FirmwareProgress& progress);
bool activation_completed(const FirmwareProgress& progress);

// One line on standard error: the command that timed out, and the revision the closing IDENTIFY
// DEVICE read (identified is its status).
void print_timeout_outcome(const DownloadRecord& record, Status identified,
                           const DriveInfo& driveInfo);

// One line on standard error: what the drive holds after an interrupt, from what was sent and
// what the drive answered. identified is the status of the closing IDENTIFY DEVICE; a run that
// stopped before any firmware command passes Status::Failed and the drive as first identified.
void print_interrupt_outcome(const FirmwareProgress& progress, Status identified,
                             const DriveInfo& driveInfo);
