#include "sim/machine.hpp"

#include <algorithm>

#include <cstdint>
#include <utility>

namespace sim {

Machine& machine() {
    static Machine instance;
    return instance;
}

bool (*attach_real_console_events)(win32::PHANDLER_ROUTINE routine) = nullptr;

std::atomic<win32::PHANDLER_ROUTINE>& console_handler() {
    static std::atomic<win32::PHANDLER_ROUTINE> routine{nullptr};
    return routine;
}

void reset_machine() {
    machine() = Machine{};
    console_handler() = nullptr;
}

void set_command_line(std::vector<std::wstring> arguments) {
    machine().commandLine = std::move(arguments);
}

Drive* find_drive(Machine& m, const std::string& id) {
    for (Drive& drive : m.drives) {
        if (drive.id == id) {
            return &drive;
        }
    }
    return nullptr;
}

win32::HANDLE handle_value(std::size_t slot) {
    return reinterpret_cast<win32::HANDLE>(static_cast<std::uintptr_t>(4 * (slot + 1)));
}

OpenHandle* find_open_handle(Machine& m, win32::HANDLE handle) {
    const auto value = reinterpret_cast<std::uintptr_t>(handle);
    if (value == 0 || value % 4 != 0 || value / 4 > m.handles.size()) {
        return nullptr;
    }
    OpenHandle& entry = m.handles[value / 4 - 1];
    return entry.open ? &entry : nullptr;
}

std::uint32_t disk_transfer_limit(const Disk& disk) {
    constexpr std::uint64_t kPageBytes = 4096;
    std::uint64_t limit = disk.maxTransferBytes;
    if (disk.maxPhysicalPages != 0) {
        const std::uint64_t pages = (std::uint64_t{disk.maxPhysicalPages} - 1) * kPageBytes;
        // A limit of 0 bytes still refuses every data phase; keep it apart from "no limit".
        limit = limit == 0 ? std::max<std::uint64_t>(pages, 1)
                           : std::min(limit, std::max<std::uint64_t>(pages, 1));
    }
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(limit, 0xFFFFFFFF));
}

win32::DWORD time_out(Machine& m, std::uint32_t timeoutSeconds) {
    m.clockMs += std::uint64_t{timeoutSeconds} * 1000;
    return ERROR_SEM_TIMEOUT;
}

std::size_t open_handle_count(const Machine& m) {
    std::size_t count = 0;
    for (const OpenHandle& entry : m.handles) {
        count += entry.open ? 1 : 0;
    }
    return count;
}

} // namespace sim
