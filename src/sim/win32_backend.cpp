// The seam's device calls on the simulated machine: opening disks and controller ports, the
// control codes their driver stacks answer, closing, the last-error value and the clock.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwctype>
#include <string>
#include <vector>

#include "platform/win32.hpp"
#include "sim/ata_pass_through_handler.hpp"
#include "sim/byte_order.hpp"
#include "sim/machine.hpp"
#include "sim/sat_bridge.hpp"
#include "sim/seam_call.hpp"
#include "sim/storage_query.hpp"
#include "sim/text_encoding.hpp"

namespace sim {

namespace {

constexpr win32::DWORD kGenericRead = 0x80000000u;
constexpr win32::DWORD kGenericWrite = 0x40000000u;
constexpr win32::DWORD kGenericAll = 0x10000000u;
constexpr win32::DWORD kFileReadData = 0x0001u;
constexpr win32::DWORD kFileWriteData = 0x0002u;
constexpr win32::DWORD kShareRead = 0x0001u;
constexpr win32::DWORD kShareWrite = 0x0002u;

bool same_path(const std::wstring& a, const std::wstring& b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (std::towupper(static_cast<std::wint_t>(a[i])) !=
            std::towupper(static_cast<std::wint_t>(b[i]))) {
            return false;
        }
    }
    return true;
}

// \\.\SCSI<port>: names a controller's SCSI port; -1 when the path is not of that form.
int scsi_port_of(const std::wstring& path) {
    const std::wstring prefix = L"\\\\.\\SCSI";
    if (path.size() < prefix.size() + 2 || !same_path(path.substr(0, prefix.size()), prefix) ||
        path.back() != L':') {
        return -1;
    }
    int port = 0;
    for (std::size_t i = prefix.size(); i + 1 < path.size(); ++i) {
        if (path[i] < L'0' || path[i] > L'9' || port > 9999) {
            return -1;
        }
        port = port * 10 + (path[i] - L'0');
    }
    return port;
}

bool reads(win32::DWORD access) {
    return (access & (kGenericRead | kGenericAll | kFileReadData)) != 0;
}

bool writes(win32::DWORD access) {
    return (access & (kGenericWrite | kGenericAll | kFileWriteData)) != 0;
}

bool sharing_conflict(const OpenHandle& open, win32::DWORD access, win32::DWORD share) {
    return (reads(access) && (open.share & kShareRead) == 0) ||
           (writes(access) && (open.share & kShareWrite) == 0) ||
           (reads(open.access) && (share & kShareRead) == 0) ||
           (writes(open.access) && (share & kShareWrite) == 0);
}

std::string hex32(win32::DWORD value) {
    char text[16];
    std::snprintf(text, sizeof text, "%08x", static_cast<unsigned>(value));
    return text;
}

std::string handle_text(win32::HANDLE handle) {
    if (handle == INVALID_HANDLE_VALUE) {
        return "INVALID_HANDLE_VALUE";
    }
    return std::to_string(reinterpret_cast<std::uintptr_t>(handle));
}

win32::DWORD get_address(const Disk& disk, std::uint8_t* buffer, win32::DWORD outBytes,
                         win32::DWORD& bytesReturned, std::string& result) {
    if (disk.getAddressError != 0) {
        return disk.getAddressError;
    }
    if (outBytes < 8) {
        return ERROR_INVALID_PARAMETER;
    }
    write_le32(buffer, 0, 8);
    buffer[4] = disk.address.port;
    buffer[5] = disk.address.path;
    buffer[6] = disk.address.target;
    buffer[7] = disk.address.lun;
    bytesReturned = 8;
    result = "address=" + std::to_string(disk.address.port) + ":" +
             std::to_string(disk.address.path) + ":" + std::to_string(disk.address.target) + ":" +
             std::to_string(disk.address.lun);
    return ERROR_SUCCESS;
}

win32::DWORD miniport(Machine& m, CsmiController& controller, std::uint8_t* buffer,
                      win32::DWORD inBytes, win32::DWORD outBytes, win32::DWORD& bytesReturned,
                      std::string& request, std::string& result) {
    if (inBytes >= 28) {
        std::string signature;
        for (std::size_t i = 4; i < 12 && buffer[i] != 0; ++i) {
            signature += static_cast<char>(buffer[i]);
        }
        request += "srb-signature=" + quote_text(signature) +
                   " srb-control=" + hex32(read_le32(buffer, 16)) +
                   " srb-length=" + std::to_string(read_le32(buffer, 24));
    }
    win32::DWORD returned = 0;
    const win32::DWORD error = csmi_miniport(m, controller, buffer, inBytes, outBytes, &returned);
    if (error == ERROR_SUCCESS) {
        bytesReturned = std::min(returned, outBytes);
        if (bytesReturned >= 24) {
            result = "srb-return-code=" + std::to_string(read_le32(buffer, 20));
        }
    }
    return error;
}

} // namespace

} // namespace sim

namespace win32 {

HANDLE CreateFileW(LPCWSTR fileName, DWORD desiredAccess, DWORD shareMode, void* securityAttributes,
                   DWORD creationDisposition, DWORD flagsAndAttributes, HANDLE templateFile) {
    using namespace sim;
    Machine& m = machine();
    SeamCall call(m, "CreateFileW");
    const std::wstring path = fileName != nullptr ? fileName : L"";
    call.record.request = (fileName != nullptr ? quote_text(utf8_from_wide(path)) : "null") +
                          " access=" + hex32(desiredAccess) + " share=" + hex32(shareMode) +
                          " disposition=" + std::to_string(creationDisposition) +
                          " flags=" + hex32(flagsAndAttributes) +
                          (securityAttributes != nullptr ? " security-attributes" : "") +
                          (templateFile != nullptr ? " template" : "");
    if (call.injected_failure()) {
        return INVALID_HANDLE_VALUE;
    }
    if (fileName == nullptr) {
        call.fail(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    OpenHandle entry;
    entry.path = path;
    entry.access = desiredAccess;
    entry.share = shareMode;
    for (std::size_t i = 0; i < m.disks.size(); ++i) {
        if (same_path(m.disks[i].path, path)) {
            entry.disk = static_cast<int>(i);
        }
    }
    const int port = scsi_port_of(path);
    for (std::size_t i = 0; port >= 0 && i < m.controllers.size(); ++i) {
        if (m.controllers[i].port == port) {
            entry.controller = static_cast<int>(i);
        }
    }
    if (entry.disk < 0 && entry.controller < 0) {
        call.fail(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    for (const OpenHandle& open : m.handles) {
        const bool sameDevice = (entry.disk >= 0 && open.disk == entry.disk) ||
                                (entry.controller >= 0 && open.controller == entry.controller);
        if (open.open && sameDevice && sharing_conflict(open, desiredAccess, shareMode)) {
            call.fail(ERROR_SHARING_VIOLATION);
            return INVALID_HANDLE_VALUE;
        }
    }
    m.handles.push_back(entry);
    // kernel32 clears the last error when OPEN_EXISTING succeeds; callers that judge a later
    // request by GetLastError alone depend on it.
    m.lastError = ERROR_SUCCESS;
    const HANDLE handle = handle_value(m.handles.size() - 1);
    call.record.result = "handle=" + handle_text(handle);
    return handle;
}

BOOL DeviceIoControl(HANDLE device, DWORD ioControlCode, void* inBuffer, DWORD inBufferSize,
                     void* outBuffer, DWORD outBufferSize, DWORD* bytesReturned, void* overlapped) {
    using namespace sim;
    Machine& m = machine();
    SeamCall call(m, "DeviceIoControl");
    call.record.ioControlCode = ioControlCode;
    call.record.request = "handle=" + handle_text(device) + " " + control_code_name(ioControlCode) +
                          " in=" + std::to_string(inBufferSize) +
                          " out=" + std::to_string(outBufferSize) +
                          (overlapped != nullptr ? " overlapped" : "");
    if (call.injected_failure(ioControlCode)) {
        if (bytesReturned != nullptr) {
            *bytesReturned = 0;
        }
        return 0;
    }
    const auto failed = [&](DWORD error) {
        if (bytesReturned != nullptr) {
            *bytesReturned = 0;
        }
        call.fail(error);
        return 0;
    };
    OpenHandle* entry = find_open_handle(m, device);
    if (entry == nullptr) {
        return failed(ERROR_INVALID_HANDLE);
    }
    // The I/O manager checks the access the control code demands against the handle's.
    const DWORD required = ioControlCode >> 14 & 3;
    if (((required & 1) != 0 && !reads(entry->access)) ||
        ((required & 2) != 0 && !writes(entry->access))) {
        return failed(ERROR_ACCESS_DENIED);
    }
    if ((inBuffer == nullptr && inBufferSize != 0) ||
        (outBuffer == nullptr && outBufferSize != 0) ||
        (bytesReturned == nullptr && overlapped == nullptr)) {
        return failed(ERROR_INVALID_PARAMETER);
    }

    // METHOD_BUFFERED: the driver sees a system copy of the input, and only the bytes it
    // reports as returned are copied back to the output buffer.
    std::vector<std::uint8_t> system(std::max(inBufferSize, outBufferSize), 0);
    if (inBufferSize != 0) {
        std::memcpy(system.data(), inBuffer, inBufferSize);
    }
    Disk* disk = entry->disk >= 0 ? &m.disks[static_cast<std::size_t>(entry->disk)] : nullptr;
    CsmiController* controller = entry->controller >= 0
                                     ? &m.controllers[static_cast<std::size_t>(entry->controller)]
                                     : nullptr;
    DWORD returned = 0;
    std::string request;
    std::string result;
    DWORD error = ERROR_INVALID_FUNCTION;
    switch (ioControlCode) {
    case IOCTL_SCSI_GET_ADDRESS:
        if (disk != nullptr) {
            error = get_address(*disk, system.data(), outBufferSize, returned, result);
        }
        break;
    case IOCTL_SCSI_PASS_THROUGH_DIRECT:
        if (disk != nullptr && disk->scsiPassThrough) {
            error = sat_pass_through(m, *disk, system.data(), inBufferSize, outBufferSize, returned,
                                     request, result);
        }
        break;
    case IOCTL_ATA_PASS_THROUGH_DIRECT:
        if (disk != nullptr && disk->ataPassThrough) {
            error = ata_pass_through_handler(m, *disk, system.data(), inBufferSize, outBufferSize,
                                             returned, request, result);
        }
        break;
    case IOCTL_STORAGE_QUERY_PROPERTY:
        if (disk != nullptr) {
            error = storage_query_property(*disk, system.data(), inBufferSize, outBufferSize,
                                           returned, request, result);
        }
        break;
    case IOCTL_SCSI_MINIPORT:
        if (controller != nullptr) {
            error = miniport(m, *controller, system.data(), inBufferSize, outBufferSize, returned,
                             request, result);
        }
        break;
    default:
        break;
    }
    if (!request.empty()) {
        call.record.request += " " + request;
    }
    if (error != ERROR_SUCCESS) {
        return failed(error);
    }
    returned = std::min(returned, outBufferSize);
    if (returned != 0) {
        std::memcpy(outBuffer, system.data(), returned);
    }
    if (bytesReturned != nullptr) {
        *bytesReturned = returned;
    }
    call.record.result =
        "TRUE returned=" + std::to_string(returned) + (result.empty() ? "" : " " + result);
    return 1;
}

BOOL CloseHandle(HANDLE object) {
    using namespace sim;
    Machine& m = machine();
    SeamCall call(m, "CloseHandle");
    call.record.request = "handle=" + handle_text(object);
    if (call.injected_failure()) {
        return 0;
    }
    OpenHandle* entry = find_open_handle(m, object);
    if (entry == nullptr) {
        call.fail(ERROR_INVALID_HANDLE);
        return 0;
    }
    entry->open = false;
    call.record.result = "TRUE";
    return 1;
}

DWORD GetLastError() {
    sim::Machine& m = sim::machine();
    sim::SeamCall call(m, "GetLastError");
    call.record.result = std::to_string(m.lastError);
    return m.lastError;
}

void SetLastError(DWORD errorCode) {
    sim::Machine& m = sim::machine();
    sim::SeamCall call(m, "SetLastError");
    call.record.request = std::to_string(errorCode);
    m.lastError = errorCode;
}

namespace {
// A real event on its way to the routine the program registered with the simulated machine.
BOOL real_event(DWORD event) {
    const PHANDLER_ROUTINE routine = sim::console_handler().load();
    return routine != nullptr ? routine(event) : 0;
}
} // namespace

// An interrupt during the pause ends it at once, as the real backends' pause does.
void Sleep(DWORD milliseconds) {
    sim::Machine& m = sim::machine();
    sim::SeamCall call(m, "Sleep");
    call.record.request = std::to_string(milliseconds);
    if (call.deliver_interrupts()) {
        call.record.result =
            "clock=" + std::to_string(m.clockMs) + " cut short" + call.record.result;
        return;
    }
    m.clockMs += milliseconds;
    call.record.result = "clock=" + std::to_string(m.clockMs);
}

BOOL SetConsoleCtrlHandler(PHANDLER_ROUTINE routine, BOOL add) {
    sim::Machine& m = sim::machine();
    sim::SeamCall call(m, "SetConsoleCtrlHandler");
    call.record.request = add ? "add" : "remove";
    sim::console_handler() = add ? routine : nullptr;
    if (add != 0 && sim::attach_real_console_events != nullptr) {
        sim::attach_real_console_events(real_event);
    }
    call.record.result = "TRUE";
    return 1;
}

} // namespace win32
