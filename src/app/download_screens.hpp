// What a download or an activation must pass, beyond the security refusal, before its first
// command goes out. Each refusal prints one line on standard error at every verbose level, and
// no firmware command is sent.
#pragma once

#include "app/run_options.hpp"
#include "drive/drive_info.hpp"
#include "transport/device_context.hpp"
#include "transport/status.hpp"

// Status::NoDevice when the identification shows no ATA drive: IDENTIFY DEVICE word 0 with bit
// 15 set, or a model number and a serial number of nothing but NUL and blank characters (what a
// translator returns for a device that sent no IDENTIFY data). Status::Success otherwise.
Status screen_ata_device(const DriveInfo& driveInfo);

// What the adapter was asked about its largest data phase, and what it answered.
struct AdapterLimit {
    bool asked;
    bool answered;
    std::uint32_t bytes;
};

// Status::BadFirmwareFile when the download's largest data phase exceeds what the adapter carries
// in one command; the line names the data phase, the limit and the segment size that fits.
// Status::Success otherwise, also when the driver does not tell its limit or the file's size
// cannot be read (the download then fails on its own terms). Not asked behind a CSMI
// controller, whose limit no request reports.
Status screen_transfer_limit(DeviceContext& context, const RunOptions& options,
                             AdapterLimit& limit);
