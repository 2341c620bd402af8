// One call across the seam as the machine serves it: numbered on entry, the drive commands it
// causes collected into its record, the record appended to the call log on exit.
#pragma once

#include <string>

#include "platform/win32.hpp"
#include "sim/machine.hpp"

namespace sim {

class SeamCall {
public:
    SeamCall(Machine& machine, const char* function);
    ~SeamCall();
    SeamCall(const SeamCall&) = delete;
    SeamCall& operator=(const SeamCall&) = delete;

    // Sets the last-error value and records the failure.
    void fail(win32::DWORD error);
    // True when an injected fault fails this call; it has then failed it.
    bool injected_failure(win32::DWORD ioControlCode = 0);
    // Delivers the interrupts set for this call to the registered console-control routine;
    // true when one reached it. The destructor delivers them too, if nothing did before.
    bool deliver_interrupts();

    CallRecord record;

private:
    Machine& machine_;
};

} // namespace sim
