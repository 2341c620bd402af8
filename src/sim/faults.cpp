#include "sim/faults.hpp"

namespace sim {

namespace {

bool fires(std::uint32_t nth, bool onward, std::uint32_t seen) {
    if (nth == 0) {
        return true;
    }
    return onward ? seen >= nth : seen == nth;
}

bool can_fail(const std::string& function) {
    return function == "CreateFileW" || function == "DeviceIoControl" ||
           function == "CloseHandle" || function == "CommandLineToArgvW";
}

} // namespace

const CallFault* take_call_fault(Faults& faults, const std::string& function,
                                 win32::DWORD ioControlCode, std::uint64_t sequence) {
    const CallFault* firing = nullptr;
    if (!can_fail(function)) {
        return nullptr;
    }
    for (CallFault& fault : faults.calls) {
        if (!fault.function.empty() && fault.function != function) {
            continue;
        }
        if (fault.ioControlCode != 0 &&
            (function != "DeviceIoControl" || fault.ioControlCode != ioControlCode)) {
            continue;
        }
        ++fault.seen;
        bool now = false;
        if (fault.call != 0) {
            now = fault.onward ? sequence >= fault.call : sequence == fault.call;
        } else {
            now = fires(fault.nth, fault.onward, fault.seen);
        }
        if (now && firing == nullptr) {
            firing = &fault;
        }
    }
    return firing;
}

const CommandFault* take_command_fault(Faults& faults, const std::string& driveId,
                                       const AtaCommand& command) {
    const CommandFault* firing = nullptr;
    for (CommandFault& fault : faults.commands) {
        if (fault.command != command.command ||
            (fault.features && *fault.features != command.features) ||
            (!fault.drive.empty() && fault.drive != driveId)) {
            continue;
        }
        ++fault.seen;
        if (fires(fault.nth, fault.onward, fault.seen) && firing == nullptr) {
            firing = &fault;
        }
    }
    return firing;
}

} // namespace sim
