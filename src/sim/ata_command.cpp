#include "sim/ata_command.hpp"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "sim/drive_model.hpp"
#include "sim/machine.hpp"

namespace sim {

namespace {
constexpr std::uint8_t kDownloadMicrocode = 0x92;
} // namespace

AtaOutcome run_ata_command(Machine& m, const std::string& driveId, const AtaCommand& command,
                           DataPhase phase, std::uint8_t* data, std::uint32_t length) {
    if (phase == DataPhase::None || data == nullptr) {
        phase = DataPhase::None;
        length = 0;
    }
    AtaRecord record;
    record.driveId = driveId;
    record.command = command;
    record.phase = phase;
    record.length = length;

    // The drive works on its own copy, so that it can never reach past the host's length; the
    // copy also touches every byte of the host buffer, as a driver's probe of it would.
    std::vector<std::uint8_t> buffer(data, data + length);
    AtaOutcome outcome;
    Drive* drive = find_drive(m, driveId);
    const CommandFault* fault =
        drive != nullptr ? take_command_fault(m.faults, driveId, command) : nullptr;
    if (drive == nullptr) {
        outcome.status = 0x51;
        outcome.error = 0x04;
        record.note = "aborted: no drive \"" + driveId + "\"";
    } else if (fault == nullptr || fault->execute) {
        outcome = execute_on_drive(*drive, command, phase, buffer.data(), length, record.note);
        if (command.command == kDownloadMicrocode && drive->downloadDelayMs != 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(drive->downloadDelayMs));
            m.clockMs += drive->downloadDelayMs;
        }
    }
    if (fault != nullptr) {
        record.injected = true;
        const std::uint32_t carried = fault->execute ? outcome.bytesMoved : 0;
        outcome.status = fault->status;
        outcome.error = fault->error;
        outcome.count = command.count;
        outcome.lbaLow = command.lbaLow;
        outcome.lbaMid = command.lbaMid;
        outcome.lbaHigh = command.lbaHigh;
        outcome.device = command.device;
        outcome.bytesMoved = fault->moved ? std::min(*fault->moved, length) : carried;
        outcome.timedOut = fault->timeout;
        if (fault->scsiStatus) {
            outcome.scsiOverride = true;
            outcome.scsiStatus = *fault->scsiStatus;
            outcome.sense = fault->sense;
        }
        if (!fault->execute) {
            record.note = "not carried out";
        }
    }
    if (phase == DataPhase::In && outcome.bytesMoved != 0) {
        std::memcpy(data, buffer.data(), outcome.bytesMoved);
    }
    record.outcome = outcome;
    if (m.current != nullptr) {
        m.current->ata.push_back(record);
    }
    return outcome;
}

} // namespace sim
