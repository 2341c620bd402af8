// CSMI: drives behind a SAS/SATA controller, reached through its SCSI port.
#pragma once

#include <cstdint>

#include "csmi/csmi_requests.hpp"
#include "csmi/scan_record.hpp"
#include "transport/device_context.hpp"
#include "transport/status.hpp"

static_assert(sizeof(CSMI_SAS_PHY_ENTITY) == kPhyEntityBytes,
              "the context keeps one whole phy entry of the controller's table");

// "\\.\SCSI": the path of port n is this prefix, n in decimal and a colon.
extern const wchar_t kScsiPortPrefix[];

// The transport entry of send_ata_command (declared in transport/transport.hpp):
// issue_csmi_command(context).

// Carries the ATA command in the context's registers to the drive its phyEntity names.
Status issue_stp_passthru(DeviceContext& context);

// SCSI INQUIRY to the SAS target of the phy entry. False when the operating system refused the
// request, with its last-error value in error; the driver's answer is not examined.
bool send_ssp_inquiry(win32::HANDLE port, const CSMI_SAS_PHY_ENTITY& phyEntity,
                      std::uint32_t& error);

// Opens the controller's port and selects the phy of a SATA or STP drive by number or, with a
// negative phyNumber, by the attached SAS address (the found phy is written back).
Status open_csmi_device(DeviceContext& context, const wchar_t* devicePath, std::int32_t& phyNumber,
                        const std::uint8_t (&sasAddress)[8]);

// Lists the controllers of ports 0 to 14 and the SATA drives behind them, and keeps what it
// lists in record. Returns 0.
int scan_csmi_devices(std::int32_t verbose, ScanRecord& record);

// The /vv diagnostics.
void dump_fis(const std::uint8_t* fis);
void dump_sas_identify(const CSMI_SAS_IDENTIFY& identify);
void dump_stp_request(const CSMI_SAS_STP_PASSTHRU_BUFFER& request);
