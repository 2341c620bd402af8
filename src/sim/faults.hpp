// Injected faults: platform calls that fail with a Windows error, drive commands that end with
// a chosen ATA Status and Error (or SCSI status and sense, or a short transfer).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/win32.hpp"
#include "sim/ata_command.hpp"

namespace sim {

// Fails a platform call. Matching: function (empty: any call that can fail, that is CreateFileW,
// DeviceIoControl, CloseHandle, CommandLineToArgvW), control code (DeviceIoControl; 0: any).
// Firing: with call set, the run's call of that sequence number (as the call log numbers it);
// else with nth set, the nth matching call; else every matching call. onward extends call or
// nth to every matching call after it.
struct CallFault {
    std::string function;
    win32::DWORD ioControlCode = 0;
    std::uint32_t nth = 0;
    std::uint64_t call = 0;
    bool onward = false;
    win32::DWORD error = 31; // ERROR_GEN_FAILURE
    std::uint32_t seen = 0;  // matching calls so far
};

// Ends a drive command with a chosen outcome. Matching: opcode, optionally Features, optionally
// one drive. Firing: the nth matching command (0: every one), onward as for CallFault.
// Without execute the drive does not carry the command out (no state changes, no data);
// with execute it does, and only the reported outcome is replaced.
struct CommandFault {
    std::uint8_t command = 0;
    std::optional<std::uint8_t> features;
    std::string drive;
    std::uint32_t nth = 0;
    bool onward = false;
    bool execute = false;
    bool timeout = false; // the host's time-out ends the command first (with execute: after the
                          // drive carried it out)
    std::uint8_t status = 0x51;
    std::uint8_t error = 0x04;
    std::optional<std::uint32_t> moved; // bytes of the data phase reported moved
    // SAT bridge only: answer with this SCSI status and sense data.
    std::optional<std::uint8_t> scsiStatus;
    std::vector<std::uint8_t> sense;
    std::uint32_t seen = 0;
};

// A console-control event (CTRL_C_EVENT, ...) delivered count times while the run's call of that
// sequence number is served: after a command reached the drive and before its answer returns,
// so a DOWNLOAD MICROCODE is interrupted while it is with the drive.
struct InterruptFault {
    win32::DWORD event = 0;
    std::uint64_t call = 0;
    std::uint32_t count = 1;
    bool delivered = false;
};

struct Faults {
    std::vector<CallFault> calls;
    std::vector<CommandFault> commands;
    std::vector<InterruptFault> interrupts;
};

// Counts the call against every fault that matches it and returns the first that fires.
const CallFault* take_call_fault(Faults& faults, const std::string& function,
                                 win32::DWORD ioControlCode, std::uint64_t sequence);
const CommandFault* take_command_fault(Faults& faults, const std::string& driveId,
                                       const AtaCommand& command);

} // namespace sim
