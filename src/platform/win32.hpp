// The program's only door to the operating system: the Win32 calls it makes, with their
// handle and integer types, the control codes and error numbers it tests, and the request
// records the storage drivers read. On Windows the records are the SDK's own; elsewhere they
// are declared here with the same layout, and the static_asserts below hold in both builds.
//
// Each executable links exactly one definition of the functions: kernel32 (Quenmark.exe),
// SG_IO (quenmark) or the simulated machine (quenmark-sim and the tests).
#pragma once

#include <cstddef>
#include <cstdint>

#ifdef _WIN32
#include <windows.h>
#include <winioctl.h>
// winioctl.h must precede ntddscsi.h
#include <ntddscsi.h>
#endif

namespace win32 {

#ifdef _WIN32
using ::BOOL;
using ::DWORD;
using ::HANDLE;
using ::LPCWSTR;
using ::LPWSTR;
using ::PHANDLER_ROUTINE;
using ::UCHAR;
using ::ULONG;
using ::USHORT;

using ::ATA_PASS_THROUGH_DIRECT;
using ::PropertyStandardQuery;
using ::SCSI_ADDRESS;
using ::SCSI_PASS_THROUGH_DIRECT;
using ::SRB_IO_CONTROL;
using ::STORAGE_ADAPTER_DESCRIPTOR;
using ::STORAGE_PROPERTY_ID;
using ::STORAGE_PROPERTY_QUERY;
using ::STORAGE_QUERY_TYPE;
using ::StorageAdapterProperty;
#else
using BOOL = int;
using DWORD = std::uint32_t;
using HANDLE = void*;
using PHANDLER_ROUTINE = BOOL (*)(DWORD);
using LPCWSTR = const wchar_t*;
using LPWSTR = wchar_t*;
using UCHAR = std::uint8_t;
using ULONG = std::uint32_t;
using USHORT = std::uint16_t;

struct SCSI_ADDRESS {
    ULONG Length;
    UCHAR PortNumber;
    UCHAR PathId;
    UCHAR TargetId;
    UCHAR Lun;
};

struct SCSI_PASS_THROUGH_DIRECT {
    USHORT Length;
    UCHAR ScsiStatus;
    UCHAR PathId;
    UCHAR TargetId;
    UCHAR Lun;
    UCHAR CdbLength;
    UCHAR SenseInfoLength;
    UCHAR DataIn;
    ULONG DataTransferLength;
    ULONG TimeOutValue;
    void* DataBuffer;
    ULONG SenseInfoOffset;
    UCHAR Cdb[16];
};

struct ATA_PASS_THROUGH_DIRECT {
    USHORT Length;
    USHORT AtaFlags;
    UCHAR PathId;
    UCHAR TargetId;
    UCHAR Lun;
    UCHAR ReservedAsUchar;
    ULONG DataTransferLength;
    ULONG TimeOutValue;
    ULONG ReservedAsUlong;
    void* DataBuffer;
    UCHAR PreviousTaskFile[8];
    UCHAR CurrentTaskFile[8];
};

struct SRB_IO_CONTROL {
    ULONG HeaderLength;
    UCHAR Signature[8];
    ULONG Timeout;
    ULONG ControlCode;
    ULONG ReturnCode;
    ULONG Length;
};

// IOCTL_STORAGE_QUERY_PROPERTY's input. PropertyId and QueryType are enumerations, 4 bytes each.
enum STORAGE_PROPERTY_ID { StorageDeviceProperty = 0, StorageAdapterProperty = 1 };
enum STORAGE_QUERY_TYPE { PropertyStandardQuery = 0, PropertyExistsQuery = 1 };

struct STORAGE_PROPERTY_QUERY {
    STORAGE_PROPERTY_ID PropertyId;
    STORAGE_QUERY_TYPE QueryType;
    UCHAR AdditionalParameters[1];
};

// What the storage port driver reports of the adapter that carries the drive's requests.
struct STORAGE_ADAPTER_DESCRIPTOR {
    DWORD Version;
    DWORD Size;
    DWORD MaximumTransferLength;
    DWORD MaximumPhysicalPages;
    DWORD AlignmentMask;
    UCHAR AdapterUsesPio;
    UCHAR AdapterScansDown;
    UCHAR CommandQueueing;
    UCHAR AcceleratedTransfer;
    UCHAR BusType;
    USHORT BusMajorVersion;
    USHORT BusMinorVersion;
    UCHAR SrbType;
    UCHAR AddressType;
};
#endif

// The calls, with the Win32 signatures the program uses.
HANDLE CreateFileW(LPCWSTR fileName, DWORD desiredAccess, DWORD shareMode, void* securityAttributes,
                   DWORD creationDisposition, DWORD flagsAndAttributes, HANDLE templateFile);
BOOL DeviceIoControl(HANDLE device, DWORD ioControlCode, void* inBuffer, DWORD inBufferSize,
                     void* outBuffer, DWORD outBufferSize, DWORD* bytesReturned, void* overlapped);
BOOL CloseHandle(HANDLE object);
DWORD GetLastError();
void SetLastError(DWORD errorCode);
// Ends early once an interrupt has come, on the backends that can wait for one.
void Sleep(DWORD milliseconds);
// Registers (add TRUE) or removes the routine that console-control events reach: Ctrl-C,
// Ctrl-Break, a closed console, logoff, shutdown. Off Windows SIGINT, SIGHUP and SIGTERM arrive
// as CTRL_C_EVENT, CTRL_CLOSE_EVENT and CTRL_SHUTDOWN_EVENT, on a thread of their own, and
// SIGPIPE is ignored from then on.
BOOL SetConsoleCtrlHandler(PHANDLER_ROUTINE routine, BOOL add);
LPWSTR GetCommandLineW();
// The array stays allocated until the process ends, as the run never needs it freed.
LPWSTR* CommandLineToArgvW(LPCWSTR commandLine, int* argumentCount);

// Which backend answers these calls, for the record of a run: "windows", "linux" or "simulated".
// Each backend defines it.
extern const char* const kBackendName;

} // namespace win32

#ifndef _WIN32
// The SDK's own names and values, for the builds that have no SDK.
#define INVALID_HANDLE_VALUE (reinterpret_cast<win32::HANDLE>(static_cast<std::intptr_t>(-1)))
#define GENERIC_READ 0x80000000u
#define GENERIC_WRITE 0x40000000u
#define FILE_SHARE_READ 0x00000001u
#define FILE_SHARE_WRITE 0x00000002u
#define OPEN_EXISTING 3u

#define ERROR_SUCCESS 0u
#define ERROR_INVALID_FUNCTION 1u
#define ERROR_FILE_NOT_FOUND 2u
#define ERROR_PATH_NOT_FOUND 3u
#define ERROR_ACCESS_DENIED 5u
#define ERROR_INVALID_HANDLE 6u
#define ERROR_NOT_ENOUGH_MEMORY 8u
#define ERROR_GEN_FAILURE 31u
#define ERROR_SHARING_VIOLATION 32u
#define ERROR_NOT_SUPPORTED 50u
#define ERROR_INVALID_PARAMETER 87u
#define ERROR_SEM_TIMEOUT 121u
#define ERROR_BUSY 170u
#define ERROR_IO_DEVICE 1117u

#define IOCTL_SCSI_GET_ADDRESS 0x00041018u
#define IOCTL_SCSI_PASS_THROUGH_DIRECT 0x0004D014u
#define IOCTL_ATA_PASS_THROUGH_DIRECT 0x0004D030u
#define IOCTL_SCSI_MINIPORT 0x0004D008u
#define IOCTL_STORAGE_QUERY_PROPERTY 0x002D1400u

#define SCSI_IOCTL_DATA_OUT 0
#define SCSI_IOCTL_DATA_IN 1
#define SCSI_IOCTL_DATA_UNSPECIFIED 2

#define ATA_FLAGS_DRDY_REQUIRED 0x01
#define ATA_FLAGS_DATA_IN 0x02
#define ATA_FLAGS_DATA_OUT 0x04
#define ATA_FLAGS_48BIT_COMMAND 0x08

#define CTRL_C_EVENT 0u
#define CTRL_BREAK_EVENT 1u
#define CTRL_CLOSE_EVENT 2u
#define CTRL_LOGOFF_EVENT 5u
#define CTRL_SHUTDOWN_EVENT 6u
#endif

// The values the drivers and the simulated machine rely on, checked in every build.
static_assert(IOCTL_SCSI_GET_ADDRESS == 0x41018, "IOCTL_SCSI_GET_ADDRESS");
static_assert(IOCTL_SCSI_PASS_THROUGH_DIRECT == 0x4D014, "IOCTL_SCSI_PASS_THROUGH_DIRECT");
static_assert(IOCTL_ATA_PASS_THROUGH_DIRECT == 0x4D030, "IOCTL_ATA_PASS_THROUGH_DIRECT");
static_assert(IOCTL_SCSI_MINIPORT == 0x4D008, "IOCTL_SCSI_MINIPORT");
static_assert(IOCTL_STORAGE_QUERY_PROPERTY == 0x2D1400, "IOCTL_STORAGE_QUERY_PROPERTY");
static_assert(win32::StorageAdapterProperty == 1 && win32::PropertyStandardQuery == 0,
              "STORAGE_PROPERTY_QUERY values");
static_assert((GENERIC_READ | GENERIC_WRITE) == 0xC0000000u, "GENERIC_READ | GENERIC_WRITE");
static_assert(CTRL_C_EVENT == 0 && CTRL_BREAK_EVENT == 1 && CTRL_CLOSE_EVENT == 2 &&
                  CTRL_LOGOFF_EVENT == 5 && CTRL_SHUTDOWN_EVENT == 6,
              "console-control events");
static_assert(OPEN_EXISTING == 3 && FILE_SHARE_READ == 1 && FILE_SHARE_WRITE == 2, "share");
static_assert(ERROR_INVALID_FUNCTION == 1 && ERROR_FILE_NOT_FOUND == 2 && ERROR_ACCESS_DENIED == 5,
              "error numbers");
static_assert(ERROR_SHARING_VIOLATION == 32 && ERROR_IO_DEVICE == 1117, "error numbers");
static_assert(SCSI_IOCTL_DATA_OUT == 0 && SCSI_IOCTL_DATA_IN == 1 &&
                  SCSI_IOCTL_DATA_UNSPECIFIED == 2,
              "DataIn values");
static_assert(ATA_FLAGS_DRDY_REQUIRED == 1 && ATA_FLAGS_DATA_IN == 2 && ATA_FLAGS_DATA_OUT == 4 &&
                  ATA_FLAGS_48BIT_COMMAND == 8,
              "AtaFlags bits");

static_assert(sizeof(win32::SCSI_ADDRESS) == 8, "SCSI_ADDRESS");
static_assert(offsetof(win32::SCSI_ADDRESS, PortNumber) == 4, "SCSI_ADDRESS");
static_assert(offsetof(win32::SCSI_ADDRESS, Lun) == 7, "SCSI_ADDRESS");

static_assert(sizeof(win32::SCSI_PASS_THROUGH_DIRECT) == 56, "SCSI_PASS_THROUGH_DIRECT");
static_assert(offsetof(win32::SCSI_PASS_THROUGH_DIRECT, ScsiStatus) == 2, "SPTD");
static_assert(offsetof(win32::SCSI_PASS_THROUGH_DIRECT, PathId) == 3, "SPTD");
static_assert(offsetof(win32::SCSI_PASS_THROUGH_DIRECT, TargetId) == 4, "SPTD");
static_assert(offsetof(win32::SCSI_PASS_THROUGH_DIRECT, Lun) == 5, "SPTD");
static_assert(offsetof(win32::SCSI_PASS_THROUGH_DIRECT, CdbLength) == 6, "SPTD");
static_assert(offsetof(win32::SCSI_PASS_THROUGH_DIRECT, SenseInfoLength) == 7, "SPTD");
static_assert(offsetof(win32::SCSI_PASS_THROUGH_DIRECT, DataIn) == 8, "SPTD");
static_assert(offsetof(win32::SCSI_PASS_THROUGH_DIRECT, DataTransferLength) == 12, "SPTD");
static_assert(offsetof(win32::SCSI_PASS_THROUGH_DIRECT, TimeOutValue) == 16, "SPTD");
static_assert(offsetof(win32::SCSI_PASS_THROUGH_DIRECT, DataBuffer) == 24, "SPTD");
static_assert(offsetof(win32::SCSI_PASS_THROUGH_DIRECT, SenseInfoOffset) == 32, "SPTD");
static_assert(offsetof(win32::SCSI_PASS_THROUGH_DIRECT, Cdb) == 36, "SPTD");

static_assert(sizeof(win32::ATA_PASS_THROUGH_DIRECT) == 48, "ATA_PASS_THROUGH_DIRECT");
static_assert(offsetof(win32::ATA_PASS_THROUGH_DIRECT, AtaFlags) == 2, "APTD");
static_assert(offsetof(win32::ATA_PASS_THROUGH_DIRECT, PathId) == 4, "APTD");
static_assert(offsetof(win32::ATA_PASS_THROUGH_DIRECT, TargetId) == 5, "APTD");
static_assert(offsetof(win32::ATA_PASS_THROUGH_DIRECT, Lun) == 6, "APTD");
static_assert(offsetof(win32::ATA_PASS_THROUGH_DIRECT, ReservedAsUchar) == 7, "APTD");
static_assert(offsetof(win32::ATA_PASS_THROUGH_DIRECT, DataTransferLength) == 8, "APTD");
static_assert(offsetof(win32::ATA_PASS_THROUGH_DIRECT, TimeOutValue) == 12, "APTD");
static_assert(offsetof(win32::ATA_PASS_THROUGH_DIRECT, ReservedAsUlong) == 16, "APTD");
static_assert(offsetof(win32::ATA_PASS_THROUGH_DIRECT, DataBuffer) == 24, "APTD");
static_assert(offsetof(win32::ATA_PASS_THROUGH_DIRECT, PreviousTaskFile) == 32, "APTD");
static_assert(offsetof(win32::ATA_PASS_THROUGH_DIRECT, CurrentTaskFile) == 40, "APTD");

static_assert(sizeof(win32::SRB_IO_CONTROL) == 28, "SRB_IO_CONTROL");
static_assert(offsetof(win32::SRB_IO_CONTROL, Signature) == 4, "SRB_IO_CONTROL");
static_assert(offsetof(win32::SRB_IO_CONTROL, Timeout) == 12, "SRB_IO_CONTROL");
static_assert(offsetof(win32::SRB_IO_CONTROL, ControlCode) == 16, "SRB_IO_CONTROL");
static_assert(offsetof(win32::SRB_IO_CONTROL, ReturnCode) == 20, "SRB_IO_CONTROL");
static_assert(offsetof(win32::SRB_IO_CONTROL, Length) == 24, "SRB_IO_CONTROL");

static_assert(sizeof(win32::STORAGE_PROPERTY_QUERY) == 12, "STORAGE_PROPERTY_QUERY");
static_assert(offsetof(win32::STORAGE_PROPERTY_QUERY, QueryType) == 4, "STORAGE_PROPERTY_QUERY");
static_assert(offsetof(win32::STORAGE_PROPERTY_QUERY, AdditionalParameters) == 8,
              "STORAGE_PROPERTY_QUERY");

static_assert(sizeof(win32::STORAGE_ADAPTER_DESCRIPTOR) == 32, "STORAGE_ADAPTER_DESCRIPTOR");
static_assert(offsetof(win32::STORAGE_ADAPTER_DESCRIPTOR, Size) == 4, "STORAGE_ADAPTER_DESCRIPTOR");
static_assert(offsetof(win32::STORAGE_ADAPTER_DESCRIPTOR, MaximumTransferLength) == 8,
              "STORAGE_ADAPTER_DESCRIPTOR");
static_assert(offsetof(win32::STORAGE_ADAPTER_DESCRIPTOR, MaximumPhysicalPages) == 12,
              "STORAGE_ADAPTER_DESCRIPTOR");
static_assert(offsetof(win32::STORAGE_ADAPTER_DESCRIPTOR, AlignmentMask) == 16,
              "STORAGE_ADAPTER_DESCRIPTOR");
static_assert(offsetof(win32::STORAGE_ADAPTER_DESCRIPTOR, AdapterUsesPio) == 20,
              "STORAGE_ADAPTER_DESCRIPTOR");
static_assert(offsetof(win32::STORAGE_ADAPTER_DESCRIPTOR, BusType) == 24,
              "STORAGE_ADAPTER_DESCRIPTOR");
static_assert(offsetof(win32::STORAGE_ADAPTER_DESCRIPTOR, BusMajorVersion) == 26,
              "STORAGE_ADAPTER_DESCRIPTOR");
static_assert(offsetof(win32::STORAGE_ADAPTER_DESCRIPTOR, BusMinorVersion) == 28,
              "STORAGE_ADAPTER_DESCRIPTOR");
