// A simulated SAS/SATA controller behind \\.\SCSIn:, answering CSMI requests carried by
// IOCTL_SCSI_MINIPORT.
#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/win32.hpp"

namespace sim {

struct Machine;

struct CsmiController {
    int port = 0; // opened as \\.\SCSI<port>:
};

// From the machine file's description of one controller; false with a reason on a bad one.
bool csmi_controller_from_json(const nlohmann::json& description, CsmiController& controller,
                               std::string& error);

// One IOCTL_SCSI_MINIPORT request on the controller's port, decoded from the raw buffer.
// Returns ERROR_SUCCESS or the Windows error the call fails with.
win32::DWORD csmi_miniport(Machine& machine, CsmiController& controller, std::uint8_t* buffer,
                           win32::DWORD inBytes, win32::DWORD outBytes,
                           win32::DWORD* bytesReturned);

} // namespace sim
