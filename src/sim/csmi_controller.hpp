// A simulated SAS/SATA controller behind \\.\SCSIn:, answering CSMI requests carried by
// IOCTL_SCSI_MINIPORT: driver information, controller configuration, the phy table, STP
// pass-through to the attached drive models and SSP pass-through. Requests are decoded from the
// raw buffer at the published offsets; nothing of the program's CSMI records is shared.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/win32.hpp"

namespace sim {

struct Machine;

// One side of a phy link, as the 28-byte CSMI_SAS_IDENTIFY carries it.
struct CsmiLinkEnd {
    std::uint8_t deviceType = 0; // 0: nothing there
    std::uint8_t restricted = 0;
    std::uint8_t initiatorProtocol = 0;
    std::uint8_t targetProtocol = 0;
    std::array<std::uint8_t, 8> sasAddress{}; // most significant byte first
    std::uint8_t phyIdentifier = 0;
    std::uint8_t signalClass = 0;
};

struct CsmiPhy {
    CsmiLinkEnd identify; // the controller's own side
    std::uint8_t portIdentifier = 0;
    std::uint8_t negotiatedLinkRate = 0;
    std::uint8_t minimumLinkRate = 0;
    std::uint8_t maximumLinkRate = 0;
    std::uint8_t phyChangeCount = 0;
    std::uint8_t autoDiscover = 0;
    std::uint8_t phyFeatures = 0;
    CsmiLinkEnd attached;
    std::string driveId; // the drive model that STP pass-through reaches on this link; may be empty
};

// Fails or spoils one kind of CSMI request. Matching: the CSMI control code (0: any). Firing:
// the nth matching request (0: every one); onward extends nth to every later one. With error set
// the IOCTL itself fails with that Windows error; otherwise it completes with returnCode in the
// header. execute: the request is carried out first (an STP command reaches the drive and its
// data come back), and only the ReturnCode is spoiled.
struct CsmiFault {
    std::uint32_t controlCode = 0;
    std::uint32_t nth = 0;
    bool onward = false;
    win32::DWORD error = 0;
    std::uint32_t returnCode = 0;
    bool execute = false;
    std::uint32_t seen = 0;
};

struct CsmiController {
    int port = 0; // opened as \\.\SCSI<port>:
    // false: the port opens, but its miniport is no CSMI driver and fails every request with
    // noCsmiError.
    bool csmi = true;
    win32::DWORD noCsmiError = ERROR_INVALID_FUNCTION;
    // Whether the driver passes the drive's ending register FIS back in bStatusFIS; false: it
    // leaves those 20 bytes zero, as some drivers do.
    bool statusFis = true;

    // Driver information; the names are byte texts cut at 81 bytes (an 81-byte one has no NUL).
    std::string driverName;
    std::string driverDescription;
    std::uint16_t majorRevision = 0, minorRevision = 0, buildRevision = 0, releaseRevision = 0;
    std::uint16_t csmiMajorRevision = 0, csmiMinorRevision = 0;

    // Controller configuration.
    std::uint32_t boardId = 0;
    std::uint32_t controllerFlags = 0;
    std::string serialNumber;

    std::uint8_t numberOfPhys = 0;
    std::array<CsmiPhy, 32> phys{};

    std::vector<CsmiFault> faults;

    // The bytes of the last request as the driver received them, for tests that check what the
    // program put on the wire.
    std::vector<std::uint8_t> lastRequest;
};

// From the machine file's description of one controller; false with a reason on a bad one.
// Drive ids are checked against the drives already loaded into the machine.
bool csmi_controller_from_json(const nlohmann::json& description, CsmiController& controller,
                               std::string& error);

// One IOCTL_SCSI_MINIPORT request on the controller's port, decoded from the raw buffer.
// Returns ERROR_SUCCESS or the Windows error the call fails with.
win32::DWORD csmi_miniport(Machine& machine, CsmiController& controller, std::uint8_t* buffer,
                           win32::DWORD inBytes, win32::DWORD outBytes,
                           win32::DWORD* bytesReturned);

} // namespace sim
