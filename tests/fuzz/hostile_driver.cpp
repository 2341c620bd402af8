#include "hostile_driver.hpp"

#include <sanitizer/asan_interface.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "platform/console.hpp"
#include "platform/win32.hpp"

namespace hostile {

namespace {

constexpr std::uintptr_t kHandle = 0x40;

struct State {
    fuzz::Input* input = nullptr;
    bool overReport = true;
    bool open = false;
    win32::DWORD lastError = 0;
};

State& state() {
    static State instance;
    return instance;
}

fuzz::Input& input() {
    static fuzz::Input empty(nullptr, 0);
    return state().input != nullptr ? *state().input : empty;
}

win32::DWORD pick_error(std::uint8_t choice) {
    static const win32::DWORD errors[] = {ERROR_INVALID_FUNCTION,
                                          ERROR_GEN_FAILURE,
                                          ERROR_INVALID_PARAMETER,
                                          ERROR_IO_DEVICE,
                                          ERROR_ACCESS_DENIED,
                                          ERROR_SEM_TIMEOUT,
                                          ERROR_BUSY,
                                          ERROR_NOT_SUPPORTED};
    return errors[choice % (sizeof errors / sizeof errors[0])];
}

// The region a request hands to the driver must be the program's own memory, all of it.
void check_owned(const void* buffer, std::uint32_t length, const char* what) {
    if (length == 0) {
        return;
    }
    if (buffer == nullptr) {
        std::fprintf(stderr, "%s: %u data bytes described at a null DataBuffer\n", what, length);
        fuzz::fail("a request describes a data phase without a buffer");
    }
    if (const void* bad = __asan_region_is_poisoned(const_cast<void*>(buffer), length)) {
        std::fprintf(stderr,
                     "%s: DataTransferLength %u, but only %zu bytes at DataBuffer are the "
                     "program's\n",
                     what, length,
                     static_cast<std::size_t>(static_cast<const std::uint8_t*>(bad) -
                                              static_cast<const std::uint8_t*>(buffer)));
        fuzz::fail("a request describes more data than its buffer holds");
    }
}

// A field of the request record in the system buffer.
template <typename T>
T field(const std::uint8_t* bytes, std::size_t offset) {
    T value{};
    std::memcpy(&value, bytes + offset, sizeof value);
    return value;
}

void write32(std::uint8_t* bytes, std::size_t offset, std::uint32_t value) {
    std::memcpy(bytes + offset, &value, sizeof value);
}

using Sptd = win32::SCSI_PASS_THROUGH_DIRECT;
using Aptd = win32::ATA_PASS_THROUGH_DIRECT;

// Data-in bytes from the input into the request's buffer, never more than it asked for.
std::uint32_t move_data_in(void* buffer, std::uint32_t requested) {
    const std::vector<std::uint8_t> bytes = input().rest(input().u16());
    const auto moved = static_cast<std::uint32_t>(std::min<std::size_t>(bytes.size(), requested));
    if (moved != 0) {
        std::memcpy(buffer, bytes.data(), moved);
    }
    return moved;
}

// The transfer length the answer gives, when it gives one; else the bytes moved.
std::uint32_t reported_length(bool lengthGiven, std::uint32_t requested, std::uint32_t moved) {
    if (!lengthGiven) {
        return moved;
    }
    const std::uint32_t claimed = input().u32();
    return state().overReport ? claimed : std::min(claimed, requested);
}

// SCSI_PASS_THROUGH_DIRECT in the system buffer; returns the bytes the driver fills.
win32::DWORD scsi_pass_through(bool lengthGiven, std::uint8_t* system, win32::DWORD inBytes,
                               win32::DWORD outBytes) {
    constexpr std::size_t kRecord = sizeof(Sptd);
    if (inBytes < kRecord || outBytes < kRecord) {
        return 0;
    }
    const std::uint8_t dataIn = system[offsetof(Sptd, DataIn)];
    const auto requested = field<std::uint32_t>(system, offsetof(Sptd, DataTransferLength));
    void* data = field<void*>(system, offsetof(Sptd, DataBuffer));
    const auto senseOffset = field<std::uint32_t>(system, offsetof(Sptd, SenseInfoOffset));
    const std::uint8_t senseRoom = system[offsetof(Sptd, SenseInfoLength)];
    check_owned(data, requested, "SCSI pass-through");

    system[offsetof(Sptd, ScsiStatus)] = input().u8();
    const std::vector<std::uint8_t> sense = input().rest(input().u8());
    std::size_t senseLength = std::min<std::size_t>(sense.size(), senseRoom);
    if (senseOffset < kRecord || senseOffset > outBytes) {
        senseLength = 0;
    }
    senseLength = std::min<std::size_t>(senseLength, outBytes - std::min(senseOffset, outBytes));
    if (senseLength != 0) {
        std::memcpy(system + senseOffset, sense.data(), senseLength);
    }
    system[offsetof(Sptd, SenseInfoLength)] = static_cast<std::uint8_t>(senseLength);

    // Data out: the driver takes what it was given.
    const std::uint32_t moved =
        dataIn == SCSI_IOCTL_DATA_IN ? move_data_in(data, requested) : requested;
    write32(system, offsetof(Sptd, DataTransferLength),
            reported_length(lengthGiven, requested, moved));
    return static_cast<win32::DWORD>(senseLength != 0 ? senseOffset + senseLength : kRecord);
}

win32::DWORD ata_pass_through(bool lengthGiven, std::uint8_t* system, win32::DWORD inBytes,
                              win32::DWORD outBytes) {
    constexpr std::size_t kRecord = sizeof(Aptd);
    if (inBytes < kRecord || outBytes < kRecord) {
        return 0;
    }
    const auto flags = field<std::uint16_t>(system, offsetof(Aptd, AtaFlags));
    const auto requested = field<std::uint32_t>(system, offsetof(Aptd, DataTransferLength));
    void* data = field<void*>(system, offsetof(Aptd, DataBuffer));
    const bool moves = (flags & (ATA_FLAGS_DATA_IN | ATA_FLAGS_DATA_OUT)) != 0;
    check_owned(data, moves ? requested : 0, "ATA pass-through");

    input().bytes(system + offsetof(Aptd, CurrentTaskFile), 8);
    input().bytes(system + offsetof(Aptd, PreviousTaskFile), 8);
    const std::uint32_t moved = (flags & ATA_FLAGS_DATA_IN) != 0 ? move_data_in(data, requested)
                                : moves                          ? requested
                                                                 : 0;
    write32(system, offsetof(Aptd, DataTransferLength),
            reported_length(lengthGiven, requested, moved));
    return static_cast<win32::DWORD>(kRecord);
}

} // namespace

void begin(fuzz::Input& source) {
    State& s = state();
    s.input = &source;
    s.open = false;
    s.lastError = 0;
}

void set_over_report(bool allowed) {
    state().overReport = allowed;
}

} // namespace hostile

namespace win32 {

HANDLE CreateFileW(LPCWSTR fileName, DWORD, DWORD, void*, DWORD, DWORD, HANDLE) {
    hostile::State& s = hostile::state();
    if (fileName == nullptr || s.open) {
        s.lastError = fileName == nullptr ? ERROR_INVALID_PARAMETER : ERROR_SHARING_VIOLATION;
        return INVALID_HANDLE_VALUE;
    }
    s.open = true;
    s.lastError = ERROR_SUCCESS;
    return reinterpret_cast<HANDLE>(hostile::kHandle);
}

BOOL DeviceIoControl(HANDLE device, DWORD ioControlCode, void* inBuffer, DWORD inBufferSize,
                     void* outBuffer, DWORD outBufferSize, DWORD* bytesReturned, void*) {
    using namespace hostile;
    State& s = state();
    if (bytesReturned != nullptr) {
        *bytesReturned = 0;
    }
    if (!s.open || reinterpret_cast<std::uintptr_t>(device) != kHandle) {
        s.lastError = ERROR_INVALID_HANDLE;
        return 0;
    }
    if ((inBuffer == nullptr && inBufferSize != 0) ||
        (outBuffer == nullptr && outBufferSize != 0) || bytesReturned == nullptr) {
        s.lastError = ERROR_INVALID_PARAMETER;
        return 0;
    }
    // The I/O manager reads the whole input and may write the whole output.
    check_owned(inBuffer, inBufferSize, "DeviceIoControl input");
    check_owned(outBuffer, outBufferSize, "DeviceIoControl output");

    const std::uint8_t how = input().u8();
    if ((how & 0x01) != 0) {
        s.lastError = pick_error(input().u8());
        return 0;
    }
    const bool lengthGiven = (how & 0x02) != 0;

    std::vector<std::uint8_t> system(std::max(inBufferSize, outBufferSize), 0);
    if (inBufferSize != 0) {
        std::memcpy(system.data(), inBuffer, inBufferSize);
    }
    DWORD returned = 0;
    switch (ioControlCode) {
    case IOCTL_SCSI_PASS_THROUGH_DIRECT:
        returned = scsi_pass_through(lengthGiven, system.data(), inBufferSize, outBufferSize);
        break;
    case IOCTL_ATA_PASS_THROUGH_DIRECT:
        returned = ata_pass_through(lengthGiven, system.data(), inBufferSize, outBufferSize);
        break;
    case IOCTL_SCSI_GET_ADDRESS:       // 8 bytes
    case IOCTL_STORAGE_QUERY_PROPERTY: // any adapter descriptor, of any length
        returned = std::min<DWORD>(outBufferSize, ioControlCode == IOCTL_SCSI_GET_ADDRESS ? 8 : 32);
        input().bytes(system.data(), returned);
        break;
    case IOCTL_SCSI_MINIPORT: {
        const std::vector<std::uint8_t> reply = input().rest(input().u16());
        returned = static_cast<DWORD>(std::min<std::size_t>(reply.size(), system.size()));
        if (returned != 0) {
            std::memcpy(system.data(), reply.data(), returned);
        }
        break;
    }
    default:
        s.lastError = ERROR_INVALID_FUNCTION;
        return 0;
    }
    if ((how & 0x04) != 0) { // the bytes returned are given
        returned = input().u16();
    }
    returned = std::min(returned, outBufferSize);
    if (returned != 0) {
        std::memcpy(outBuffer, system.data(), returned);
    }
    *bytesReturned = returned;
    return 1;
}

BOOL CloseHandle(HANDLE object) {
    hostile::State& s = hostile::state();
    if (!s.open || reinterpret_cast<std::uintptr_t>(object) != hostile::kHandle) {
        s.lastError = ERROR_INVALID_HANDLE;
        return 0;
    }
    s.open = false;
    return 1;
}

DWORD GetLastError() {
    return hostile::state().lastError;
}

void SetLastError(DWORD errorCode) {
    hostile::state().lastError = errorCode;
}

void Sleep(DWORD) {}

BOOL SetConsoleCtrlHandler(PHANDLER_ROUTINE, BOOL) {
    return 1;
}

LPWSTR GetCommandLineW() {
    static wchar_t line[] = L"quenmark";
    return line;
}

LPWSTR* CommandLineToArgvW(LPCWSTR, int* argumentCount) {
    static wchar_t name[] = L"quenmark";
    static LPWSTR arguments[] = {name, nullptr};
    if (argumentCount != nullptr) {
        *argumentCount = 1;
    }
    return arguments;
}

} // namespace win32

// A Windows console, as the transcripts the seeds come from.
const char* const console::kHorizontalLine = "\xC4";
