// CSMI: drives behind a SAS/SATA controller, reached through its SCSI port.
#pragma once

#include <cstdint>

#include "transport/device_context.hpp"
#include "transport/status.hpp"

Status issue_stp_passthru(DeviceContext& context);
Status open_csmi_device(DeviceContext& context, const wchar_t* devicePath, std::int32_t& phyNumber,
                        const std::uint8_t (&sasAddress)[8]);
int scan_csmi_devices(std::int32_t verbose);

// "\\.\SCSI": the path of port n is this prefix, n in decimal and a colon.
extern const wchar_t kScsiPortPrefix[];
