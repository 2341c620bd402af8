// The simulated machine's view of one ATA command at the drive, whichever wire carried it
// (the SAT bridge, the ATA pass-through handler, a CSMI controller's STP pass-through). Each
// wire decodes its own request bytes into this record and encodes the outcome back.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace sim {

struct AtaCommand {
    std::uint8_t features = 0, featuresExt = 0;
    std::uint8_t count = 0, countExt = 0;
    std::uint8_t lbaLow = 0, lbaLowExt = 0;
    std::uint8_t lbaMid = 0, lbaMidExt = 0;
    std::uint8_t lbaHigh = 0, lbaHighExt = 0;
    std::uint8_t device = 0;
    std::uint8_t command = 0;
    bool ext48 = false; // the Ext registers were sent
};

enum class DataPhase { None, In, Out };

// The drive's output task file and how many bytes of the data phase moved.
struct AtaOutcome {
    std::uint8_t status = 0x50;
    std::uint8_t error = 0;
    std::uint8_t count = 0;
    std::uint8_t lbaLow = 0, lbaMid = 0, lbaHigh = 0;
    std::uint8_t device = 0;
    std::uint32_t bytesMoved = 0;
    // The host gave up waiting: the wire fails the request as a port driver does when a
    // command outlives its time-out (ERROR_SEM_TIMEOUT), whatever the drive did.
    bool timedOut = false;
    // An injected fault that the SAT bridge reports as this SCSI status and sense data instead
    // of translating the ATA registers; the other wires ignore it.
    bool scsiOverride = false;
    std::uint8_t scsiStatus = 0;
    std::vector<std::uint8_t> sense;
    bool ok() const { return status == 0x50; }
};

struct Machine;

// Runs one command on the drive named driveId: the drive model, with the machine's injected
// drive faults applied. data points at length bytes: written for DataPhase::In, read for Out.
AtaOutcome run_ata_command(Machine& machine, const std::string& driveId, const AtaCommand& command,
                           DataPhase phase, std::uint8_t* data, std::uint32_t length);

} // namespace sim
