// Opening a physical drive and sending one ATA command through the transport the context names.
#pragma once

#include "transport/device_context.hpp"
#include "transport/status.hpp"

Status open_device(DeviceContext& context, const wchar_t* devicePath);

// The largest data phase the adapter behind the open drive carries in one command, from
// IOCTL_STORAGE_QUERY_PROPERTY (StorageAdapterProperty): MaximumTransferLength, lowered to
// (MaximumPhysicalPages - 1) pages of 4096 bytes when the pages are reported. False, and
// limitBytes untouched, when the driver does not answer or reports no length. Prints nothing.
bool query_transfer_limit(DeviceContext& context, std::uint32_t& limitBytes);

// Dispatches by interfaceKind in the fixed order SCSI pass-through, ATA pass-through, CSMI.
Status send_ata_command(DeviceContext& context);

Status scsi_pass_through(DeviceContext& context);
Status ata_pass_through(DeviceContext& context);
// Defined with the CSMI requests; declared here so that the dispatch needs no CSMI header.
Status issue_csmi_command(DeviceContext& context);
