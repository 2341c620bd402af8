// The simulated machine: its drives, the physical disks and controller ports through which the
// program reaches them, the open handles, the last-error value, the virtual clock, the injected
// faults and the call log. One machine per process; the seam's functions work on it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/win32.hpp"
#include "sim/call_log.hpp"
#include "sim/csmi_controller.hpp"
#include "sim/drive.hpp"
#include "sim/faults.hpp"

namespace sim {

struct ScsiAddress {
    std::uint8_t port = 0, path = 0, target = 0, lun = 0;
};

// A device path (\\.\PhysicalDrive0) and the driver stack behind it.
struct Disk {
    std::wstring path;
    std::string driveId;
    ScsiAddress address;
    bool scsiPassThrough = true;      // a SAT bridge behind IOCTL_SCSI_PASS_THROUGH_DIRECT
    bool ataPassThrough = true;       // IOCTL_ATA_PASS_THROUGH_DIRECT
    win32::DWORD getAddressError = 0; // not 0: IOCTL_SCSI_GET_ADDRESS fails with this error
    // The adapter's largest data phase; a longer pass-through fails with ERROR_INVALID_PARAMETER,
    // as the port driver refuses it. 0: no limit.
    std::uint32_t maxTransferBytes = 0;
    // The adapter's scatter-gather list in pages of 4096 bytes: a data phase may span at most
    // this many pages, (maxPhysicalPages - 1) x 4096 bytes of a buffer at any alignment. 0: not
    // limited, and not reported.
    std::uint32_t maxPhysicalPages = 0;
    // Whether the port driver answers IOCTL_STORAGE_QUERY_PROPERTY for the adapter; false: the
    // request fails with ERROR_INVALID_FUNCTION, as an old or filtering driver does.
    bool adapterQuery = true;
};

// The largest data phase the disk's adapter carries, from maxTransferBytes and
// maxPhysicalPages; 0 when neither limits it.
std::uint32_t disk_transfer_limit(const Disk& disk);

struct Machine;

// A pass-through whose command outlived its time-out: the clock moves on by the time-out and the
// request fails with ERROR_SEM_TIMEOUT, as the port driver fails it after resetting the link.
win32::DWORD time_out(Machine& machine, std::uint32_t timeoutSeconds);

struct OpenHandle {
    std::wstring path;
    int disk = -1;       // index into Machine::disks, or -1
    int controller = -1; // index into Machine::controllers, or -1
    win32::DWORD access = 0;
    win32::DWORD share = 0;
    bool open = true;
};

// Arrays handed out by CommandLineToArgvW, kept for the life of the machine.
struct ArgumentBlock {
    std::vector<std::wstring> texts;
    std::vector<wchar_t*> pointers;
};

struct Machine {
    std::vector<Drive> drives;
    std::vector<Disk> disks;
    std::vector<CsmiController> controllers;
    Faults faults;
    std::vector<CallRecord> log;
    std::uint64_t clockMs = 0;

    // Handle value 4 * (index + 1); a closed handle keeps its slot, so no value is reused.
    std::vector<OpenHandle> handles;
    win32::DWORD lastError = 0;
    std::uint64_t nextSequence = 1;
    // The call being served, which drive commands add their records to.
    CallRecord* current = nullptr;

    // Set by a test; otherwise the process's own arguments (the program name first).
    std::optional<std::vector<std::wstring>> commandLine;
    std::wstring commandLineText;
    std::vector<std::unique_ptr<ArgumentBlock>> argumentBlocks;

    // The machine file as loaded: the drives' state is written back into it.
    nlohmann::json document;
};

Machine& machine();
// The routine the program registered with SetConsoleCtrlHandler; null when none. Apart from the
// machine, as real events (quenmark-sim on a real console) reach it from a thread of their own.
std::atomic<win32::PHANDLER_ROUTINE>& console_handler();
// quenmark-sim passes a registration on to the real console events too, so that a real Ctrl-C or
// signal reaches the run as it reaches the product; in-process tests leave it unset.
extern bool (*attach_real_console_events)(win32::PHANDLER_ROUTINE routine);
// An empty machine: no drives, no disks, no faults, an empty log, the clock at 0.
void reset_machine();
// Replaces the machine with the one the JSON text describes; files it names are relative to
// baseDir. On failure the machine is left empty and error says what is wrong, and where.
bool load_machine(const std::string& json, const std::string& baseDir, std::string& error);
// The command line GetCommandLineW and CommandLineToArgvW see, program name first.
void set_command_line(std::vector<std::wstring> arguments);

Drive* find_drive(Machine& machine, const std::string& id);
// The handle value CreateFileW gave for a slot, and back.
win32::HANDLE handle_value(std::size_t slot);
OpenHandle* find_open_handle(Machine& machine, win32::HANDLE handle);
std::size_t open_handle_count(const Machine& machine);

} // namespace sim
