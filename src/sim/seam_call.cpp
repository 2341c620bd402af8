#include "sim/seam_call.hpp"

#include <utility>

namespace sim {

SeamCall::SeamCall(Machine& machine, const char* function) : machine_(machine) {
    record.sequence = machine_.nextSequence++;
    record.function = function;
    machine_.current = &record;
}

SeamCall::~SeamCall() {
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
