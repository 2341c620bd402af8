// Opening a physical drive and sending one ATA command through the transport the context names.
#pragma once

#include "transport/device_context.hpp"
#include "transport/status.hpp"

Status open_device(DeviceContext& context, const wchar_t* devicePath);

// Dispatches by interfaceKind in the fixed order SCSI pass-through, ATA pass-through, CSMI.
Status send_ata_command(DeviceContext& context);

Status scsi_pass_through(DeviceContext& context);
Status ata_pass_through(DeviceContext& context);
// Defined with the CSMI requests; declared here so that the dispatch needs no CSMI header.
Status issue_csmi_command(DeviceContext& context);
