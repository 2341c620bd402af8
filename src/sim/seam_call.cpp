#include "sim/seam_call.hpp"

#include <utility>

namespace sim {

SeamCall::SeamCall(Machine& machine, const char* function) : machine_(machine) {
    record.sequence = machine_.nextSequence++;
    record.function = function;
    machine_.current = &record;
}

SeamCall::~SeamCall() {
    deliver_interrupts();
    machine_.current = nullptr;
    machine_.log.push_back(std::move(record));
}

void SeamCall::fail(win32::DWORD error) {
    machine_.lastError = error;
    record.succeeded = false;
    record.error = error;
    const std::string name = error_name(error);
    const std::string value = record.function == "CreateFileW"          ? "INVALID_HANDLE_VALUE"
                              : record.function == "CommandLineToArgvW" ? "null"
                                                                        : "FALSE";
    record.result = value + " error=" + std::to_string(error) + (name.empty() ? "" : " " + name);
}

bool SeamCall::deliver_interrupts() {
    bool taken = false;
    for (InterruptFault& fault : machine_.faults.interrupts) {
        if (fault.delivered || fault.call != record.sequence) {
            continue;
        }
        fault.delivered = true;
        const win32::PHANDLER_ROUTINE routine = console_handler().load();
        record.result += " [" + console_event_name(fault.event);
        if (fault.count > 1) {
            record.result += " x" + std::to_string(fault.count);
        }
        // A process without a handler would end here; the machine only records the event.
        record.result += routine != nullptr ? "]" : ", no handler]";
        for (std::uint32_t n = 0; routine != nullptr && n < fault.count; ++n) {
            routine(fault.event);
        }
        taken = taken || routine != nullptr;
    }
    return taken;
}

bool SeamCall::injected_failure(win32::DWORD ioControlCode) {
    const CallFault* fault =
        take_call_fault(machine_.faults, record.function, ioControlCode, record.sequence);
    if (fault == nullptr) {
        return false;
    }
    record.injected = true;
    fail(fault->error);
    return true;
}

} // namespace sim
