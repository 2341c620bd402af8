// The call log: every call across the Win32 seam, in order, with what crossed it decoded. Its
// text form is deterministic (no pointers, no wall-clock time) so that golden transcripts can
// compare it byte for byte.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/win32.hpp"
#include "sim/ata_command.hpp"

namespace sim {

// One ATA command that reached a drive during a call.
struct AtaRecord {
    std::string driveId;
    AtaCommand command;
    DataPhase phase = DataPhase::None;
    std::uint32_t length = 0;
    AtaOutcome outcome;
    std::string note; // what the drive made of it
    bool injected = false;
};

struct CallRecord {
    std::uint64_t sequence = 0;
    std::string function;
    std::string request; // the decoded arguments
    std::vector<AtaRecord> ata;
    std::string result; // the decoded outcome
    bool injected = false;
    win32::DWORD ioControlCode = 0;
    bool succeeded = true;
    win32::DWORD error = 0; // the error a failed call set
};

std::string call_line(const CallRecord& record);
std::string call_log_text(const std::vector<CallRecord>& log);

std::string control_code_name(win32::DWORD code);
// "ERROR_FILE_NOT_FOUND" for 2; empty for a number without a name here.
std::string error_name(win32::DWORD error);
// The error number of a name error_name gives; false when unknown.
bool error_from_name(const std::string& name, win32::DWORD& error);
// CTRL_C_EVENT and the other console-control events by name, and back.
std::string console_event_name(win32::DWORD event);
bool console_event_from_name(const std::string& name, win32::DWORD& event);
std::string ata_command_name(const AtaCommand& command);

std::string hex_bytes(const std::uint8_t* bytes, std::size_t count);
std::string hex8(unsigned value);
// Text in double quotes; control characters shown as \xNN so that each call stays one line.
std::string quote_text(const std::string& utf8);

} // namespace sim
