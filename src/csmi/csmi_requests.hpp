// The CSMI request records, laid out as the CSMI headers publish them (natural alignment, the
// structures the controller's driver casts the IOCTL_SCSI_MINIPORT buffer to). Each buffer is
// the 28-byte SRB_IO_CONTROL followed by the request's own fields; the asserts below hold the
// offsets the drivers read, in the Linux and the Windows build alike.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/win32.hpp"

// Control codes, carried in SRB_IO_CONTROL::ControlCode.
constexpr win32::ULONG CC_CSMI_SAS_GET_DRIVER_INFO = 1;
constexpr win32::ULONG CC_CSMI_SAS_GET_CNTLR_CONFIG = 2;
constexpr win32::ULONG CC_CSMI_SAS_GET_PHY_INFO = 20;
constexpr win32::ULONG CC_CSMI_SAS_SSP_PASSTHRU = 24;
constexpr win32::ULONG CC_CSMI_SAS_STP_PASSTHRU = 25;

// Seven characters and a NUL: the driver checks all eight bytes.
constexpr char kCsmiAllSignature[8] = "CSMIALL";
constexpr char kCsmiSasSignature[8] = "CSMISAS";

constexpr win32::ULONG kCsmiTimeoutSeconds = 60;

// Attached.bTargetPortProtocol bits.
constexpr std::uint8_t CSMI_SAS_PROTOCOL_SATA = 0x01;
constexpr std::uint8_t CSMI_SAS_PROTOCOL_SMP = 0x02;
constexpr std::uint8_t CSMI_SAS_PROTOCOL_STP = 0x04;
constexpr std::uint8_t CSMI_SAS_PROTOCOL_SSP = 0x08;

constexpr std::uint8_t CSMI_SAS_LINK_RATE_NEGOTIATED = 0x00;
constexpr std::uint8_t CSMI_SAS_IGNORE_PORT = 0xFF;

constexpr win32::ULONG CSMI_SAS_STP_READ = 0x01;
constexpr win32::ULONG CSMI_SAS_STP_WRITE = 0x02;
constexpr win32::ULONG CSMI_SAS_STP_PIO = 0x10;
constexpr win32::ULONG CSMI_SAS_SSP_READ = 0x01;

constexpr std::size_t kCsmiMaxPhys = 32;
constexpr std::size_t kFisBytes = 20;

struct CSMI_SAS_DRIVER_INFO {
    std::uint8_t szName[81];
    std::uint8_t szDescription[81];
    std::uint16_t usMajorRevision;
    std::uint16_t usMinorRevision;
    std::uint16_t usBuildRevision;
    std::uint16_t usReleaseRevision;
    std::uint16_t usCSMIMajorRevision;
    std::uint16_t usCSMIMinorRevision;
    std::uint8_t bReserved[2];
};

struct CSMI_SAS_DRIVER_INFO_BUFFER {
    win32::SRB_IO_CONTROL IoctlHeader;
    CSMI_SAS_DRIVER_INFO Information;
};

struct CSMI_SAS_IO_BUS_ADDRESS {
    std::uint8_t bBusNumber;
    std::uint8_t bDeviceNumber;
    std::uint8_t bFunctionNumber;
    std::uint8_t bReserved[29];
};

struct CSMI_SAS_CNTLR_CONFIG {
    std::uint32_t uBaseIoAddress;
    std::uint32_t uBaseMemoryAddressLow;
    std::uint32_t uBaseMemoryAddressHigh;
    std::uint32_t uBoardID;
    std::uint16_t usSlotNumber;
    std::uint8_t bControllerClass;
    std::uint8_t bIoBusType;
    CSMI_SAS_IO_BUS_ADDRESS BusAddress;
    std::uint8_t szSerialNumber[81];
    std::uint16_t usMajorRevision;
    std::uint16_t usMinorRevision;
    std::uint16_t usBuildRevision;
    std::uint16_t usReleaseRevision;
    std::uint16_t usBIOSMajorRevision;
    std::uint16_t usBIOSMinorRevision;
    std::uint16_t usBIOSBuildRevision;
    std::uint16_t usBIOSReleaseRevision;
    std::uint32_t uControllerFlags;
    std::uint16_t usRromMajorRevision;
    std::uint16_t usRromMinorRevision;
    std::uint16_t usRromBuildRevision;
    std::uint16_t usRromReleaseRevision;
    std::uint16_t usRromBIOSMajorRevision;
    std::uint16_t usRromBIOSMinorRevision;
    std::uint16_t usRromBIOSBuildRevision;
    std::uint16_t usRromBIOSReleaseRevision;
    std::uint8_t bReserved[7];
};

struct CSMI_SAS_CNTLR_CONFIG_BUFFER {
    win32::SRB_IO_CONTROL IoctlHeader;
    CSMI_SAS_CNTLR_CONFIG Configuration;
};

struct CSMI_SAS_IDENTIFY {
    std::uint8_t bDeviceType;
    std::uint8_t bRestricted;
    std::uint8_t bInitiatorPortProtocol;
    std::uint8_t bTargetPortProtocol;
    std::uint8_t bRestricted2[8];
    std::uint8_t bSASAddress[8]; // most significant byte first
    std::uint8_t bPhyIdentifier;
    std::uint8_t bSignalClass;
    std::uint8_t bReserved[6];
};

struct CSMI_SAS_PHY_ENTITY {
    CSMI_SAS_IDENTIFY Identify; // the controller's own side of the link
    std::uint8_t bPortIdentifier;
    std::uint8_t bNegotiatedLinkRate;
    std::uint8_t bMinimumLinkRate;
    std::uint8_t bMaximumLinkRate;
    std::uint8_t bPhyChangeCount;
    std::uint8_t bAutoDiscover;
    std::uint8_t bPhyFeatures;
    std::uint8_t bReserved;
    CSMI_SAS_IDENTIFY Attached; // the device at the other end
};

struct CSMI_SAS_PHY_INFO {
    std::uint8_t bNumberOfPhys;
    std::uint8_t bReserved[3];
    CSMI_SAS_PHY_ENTITY Phy[kCsmiMaxPhys];
};

struct CSMI_SAS_PHY_INFO_BUFFER {
    win32::SRB_IO_CONTROL IoctlHeader;
    CSMI_SAS_PHY_INFO Information;
};

struct CSMI_SAS_STP_PASSTHRU {
    std::uint8_t bPhyIdentifier;
    std::uint8_t bPortIdentifier;
    std::uint8_t bConnectionRate;
    std::uint8_t bReserved;
    std::uint8_t bDestinationSASAddress[8];
    std::uint8_t bReserved2[4];
    std::uint8_t bCommandFIS[kFisBytes];
    std::uint32_t uFlags;
    std::uint32_t uDataLength;
};

struct CSMI_SAS_STP_PASSTHRU_STATUS {
    std::uint8_t bConnectionStatus;
    std::uint8_t bReserved[3];
    std::uint8_t bStatusFIS[kFisBytes];
    std::uint32_t uSCR[16];
    std::uint32_t uDataBytes;
};

// The data follow the fixed part at bDataBuffer; the record's size (168) is the buffer of a
// command without data.
struct CSMI_SAS_STP_PASSTHRU_BUFFER {
    win32::SRB_IO_CONTROL IoctlHeader;
    CSMI_SAS_STP_PASSTHRU Parameters;
    CSMI_SAS_STP_PASSTHRU_STATUS Status;
    std::uint8_t bDataBuffer[1];
};

struct CSMI_SAS_SSP_PASSTHRU {
    std::uint8_t bPhyIdentifier;
    std::uint8_t bPortIdentifier;
    std::uint8_t bConnectionRate;
    std::uint8_t bReserved;
    std::uint8_t bDestinationSASAddress[8];
    std::uint8_t bLun[8];
    std::uint8_t bCDBLength;
    std::uint8_t bAdditionalCDBLength;
    std::uint8_t bReserved2[2];
    std::uint8_t bCDB[16];
    std::uint32_t uFlags;
    std::uint8_t bAdditionalCDB[24];
    std::uint32_t uDataLength;
};

struct CSMI_SAS_SSP_PASSTHRU_STATUS {
    std::uint8_t bConnectionStatus;
    std::uint8_t bSSPStatus;
    std::uint8_t bReserved[2];
    std::uint8_t bDataPresent;
    std::uint8_t bStatus;
    std::uint8_t bResponseLength[2];
    std::uint8_t bResponse[256];
    std::uint32_t uDataBytes;
};

// Fixed part of 372 bytes; the probe's INQUIRY data land at bDataBuffer.
struct CSMI_SAS_SSP_PASSTHRU_BUFFER {
    win32::SRB_IO_CONTROL IoctlHeader;
    CSMI_SAS_SSP_PASSTHRU Parameters;
    CSMI_SAS_SSP_PASSTHRU_STATUS Status;
    std::uint8_t bDataBuffer[1];
};

// Buffer sizes of the requests, header included.
constexpr std::size_t kStpFixedBytes = sizeof(CSMI_SAS_STP_PASSTHRU_BUFFER);
constexpr std::size_t kStpDataOffset = offsetof(CSMI_SAS_STP_PASSTHRU_BUFFER, bDataBuffer);
constexpr std::size_t kSspInquiryDataBytes = 96;
constexpr std::size_t kSspRequestBytes =
    sizeof(CSMI_SAS_SSP_PASSTHRU_BUFFER) + kSspInquiryDataBytes;

static_assert(sizeof(win32::SRB_IO_CONTROL) == 28, "SRB_IO_CONTROL");

static_assert(sizeof(CSMI_SAS_DRIVER_INFO_BUFFER) == 204, "CSMI_SAS_DRIVER_INFO_BUFFER");
static_assert(offsetof(CSMI_SAS_DRIVER_INFO_BUFFER, Information.szName) == 28, "szName");
static_assert(offsetof(CSMI_SAS_DRIVER_INFO_BUFFER, Information.szDescription) == 109, "szDesc");
static_assert(offsetof(CSMI_SAS_DRIVER_INFO_BUFFER, Information.usMajorRevision) == 190, "rev");
static_assert(offsetof(CSMI_SAS_DRIVER_INFO_BUFFER, Information.usMinorRevision) == 192, "rev");
static_assert(offsetof(CSMI_SAS_DRIVER_INFO_BUFFER, Information.usBuildRevision) == 194, "rev");
static_assert(offsetof(CSMI_SAS_DRIVER_INFO_BUFFER, Information.usReleaseRevision) == 196, "rev");
static_assert(offsetof(CSMI_SAS_DRIVER_INFO_BUFFER, Information.usCSMIMajorRevision) == 198,
              "CSMI rev");
static_assert(offsetof(CSMI_SAS_DRIVER_INFO_BUFFER, Information.usCSMIMinorRevision) == 200,
              "CSMI rev");

static_assert(sizeof(CSMI_SAS_CNTLR_CONFIG_BUFFER) == 208, "CSMI_SAS_CNTLR_CONFIG_BUFFER");
static_assert(offsetof(CSMI_SAS_CNTLR_CONFIG_BUFFER, Configuration.uBoardID) == 40, "uBoardID");
static_assert(offsetof(CSMI_SAS_CNTLR_CONFIG_BUFFER, Configuration.szSerialNumber) == 80,
              "szSerialNumber");
static_assert(offsetof(CSMI_SAS_CNTLR_CONFIG_BUFFER, Configuration.usMajorRevision) == 162,
              "usMajorRevision");
static_assert(offsetof(CSMI_SAS_CNTLR_CONFIG_BUFFER, Configuration.uControllerFlags) == 180,
              "uControllerFlags");

static_assert(sizeof(CSMI_SAS_IDENTIFY) == 28, "CSMI_SAS_IDENTIFY");
static_assert(offsetof(CSMI_SAS_IDENTIFY, bInitiatorPortProtocol) == 2, "CSMI_SAS_IDENTIFY");
static_assert(offsetof(CSMI_SAS_IDENTIFY, bTargetPortProtocol) == 3, "CSMI_SAS_IDENTIFY");
static_assert(offsetof(CSMI_SAS_IDENTIFY, bRestricted2) == 4, "CSMI_SAS_IDENTIFY");
static_assert(offsetof(CSMI_SAS_IDENTIFY, bSASAddress) == 12, "CSMI_SAS_IDENTIFY");
static_assert(offsetof(CSMI_SAS_IDENTIFY, bPhyIdentifier) == 20, "CSMI_SAS_IDENTIFY");
static_assert(offsetof(CSMI_SAS_IDENTIFY, bSignalClass) == 21, "CSMI_SAS_IDENTIFY");
static_assert(offsetof(CSMI_SAS_IDENTIFY, bReserved) == 22, "CSMI_SAS_IDENTIFY");

static_assert(sizeof(CSMI_SAS_PHY_ENTITY) == 64, "CSMI_SAS_PHY_ENTITY");
static_assert(offsetof(CSMI_SAS_PHY_ENTITY, bPortIdentifier) == 28, "CSMI_SAS_PHY_ENTITY");
static_assert(offsetof(CSMI_SAS_PHY_ENTITY, bNegotiatedLinkRate) == 29, "CSMI_SAS_PHY_ENTITY");
static_assert(offsetof(CSMI_SAS_PHY_ENTITY, bMinimumLinkRate) == 30, "CSMI_SAS_PHY_ENTITY");
static_assert(offsetof(CSMI_SAS_PHY_ENTITY, bMaximumLinkRate) == 31, "CSMI_SAS_PHY_ENTITY");
static_assert(offsetof(CSMI_SAS_PHY_ENTITY, bPhyChangeCount) == 32, "CSMI_SAS_PHY_ENTITY");
static_assert(offsetof(CSMI_SAS_PHY_ENTITY, bAutoDiscover) == 33, "CSMI_SAS_PHY_ENTITY");
static_assert(offsetof(CSMI_SAS_PHY_ENTITY, bPhyFeatures) == 34, "CSMI_SAS_PHY_ENTITY");
static_assert(offsetof(CSMI_SAS_PHY_ENTITY, Attached) == 36, "CSMI_SAS_PHY_ENTITY");

static_assert(sizeof(CSMI_SAS_PHY_INFO_BUFFER) == 2080, "CSMI_SAS_PHY_INFO_BUFFER");
static_assert(offsetof(CSMI_SAS_PHY_INFO_BUFFER, Information.bNumberOfPhys) == 28, "phys");
static_assert(offsetof(CSMI_SAS_PHY_INFO_BUFFER, Information.Phy) == 32, "phy table");

static_assert(kStpFixedBytes == 168, "CSMI_SAS_STP_PASSTHRU_BUFFER");
static_assert(offsetof(CSMI_SAS_STP_PASSTHRU_BUFFER, Parameters.bPhyIdentifier) == 28, "STP");
static_assert(offsetof(CSMI_SAS_STP_PASSTHRU_BUFFER, Parameters.bPortIdentifier) == 29, "STP");
static_assert(offsetof(CSMI_SAS_STP_PASSTHRU_BUFFER, Parameters.bConnectionRate) == 30, "STP");
static_assert(offsetof(CSMI_SAS_STP_PASSTHRU_BUFFER, Parameters.bDestinationSASAddress) == 32,
              "STP");
static_assert(offsetof(CSMI_SAS_STP_PASSTHRU_BUFFER, Parameters.bCommandFIS) == 44, "STP");
static_assert(offsetof(CSMI_SAS_STP_PASSTHRU_BUFFER, Parameters.uFlags) == 64, "STP");
static_assert(offsetof(CSMI_SAS_STP_PASSTHRU_BUFFER, Parameters.uDataLength) == 68, "STP");
static_assert(offsetof(CSMI_SAS_STP_PASSTHRU_BUFFER, Status.bConnectionStatus) == 72, "STP");
static_assert(offsetof(CSMI_SAS_STP_PASSTHRU_BUFFER, Status.bStatusFIS) == 76, "STP");
static_assert(offsetof(CSMI_SAS_STP_PASSTHRU_BUFFER, Status.uSCR) == 96, "STP");
static_assert(offsetof(CSMI_SAS_STP_PASSTHRU_BUFFER, Status.uDataBytes) == 160, "STP");
static_assert(kStpDataOffset == 164, "STP");

static_assert(sizeof(CSMI_SAS_SSP_PASSTHRU_BUFFER) == 372, "CSMI_SAS_SSP_PASSTHRU_BUFFER");
static_assert(kSspRequestBytes == 468, "SSP probe buffer");
static_assert(offsetof(CSMI_SAS_SSP_PASSTHRU_BUFFER, Parameters.bDestinationSASAddress) == 32,
              "SSP");
static_assert(offsetof(CSMI_SAS_SSP_PASSTHRU_BUFFER, Parameters.bLun) == 40, "SSP");
static_assert(offsetof(CSMI_SAS_SSP_PASSTHRU_BUFFER, Parameters.bCDBLength) == 48, "SSP");
static_assert(offsetof(CSMI_SAS_SSP_PASSTHRU_BUFFER, Parameters.bAdditionalCDBLength) == 49, "SSP");
static_assert(offsetof(CSMI_SAS_SSP_PASSTHRU_BUFFER, Parameters.bCDB) == 52, "SSP");
static_assert(offsetof(CSMI_SAS_SSP_PASSTHRU_BUFFER, Parameters.uFlags) == 68, "SSP");
static_assert(offsetof(CSMI_SAS_SSP_PASSTHRU_BUFFER, Parameters.bAdditionalCDB) == 72, "SSP");
static_assert(offsetof(CSMI_SAS_SSP_PASSTHRU_BUFFER, Parameters.uDataLength) == 96, "SSP");
static_assert(offsetof(CSMI_SAS_SSP_PASSTHRU_BUFFER, Status) == 100, "SSP");
static_assert(offsetof(CSMI_SAS_SSP_PASSTHRU_BUFFER, bDataBuffer) == 368, "SSP");

// Fills the common header: HeaderLength 28, the signature, the time-out, the control code, a
// ReturnCode of 0 and the length of what follows the header.
void fill_csmi_header(win32::SRB_IO_CONTROL& header, const char (&signature)[8],
                      win32::ULONG timeoutSeconds, win32::ULONG controlCode,
                      std::size_t bufferBytes);

// One IOCTL_SCSI_MINIPORT with the buffer as both input and output; the call's own result.
bool send_csmi_request(win32::HANDLE port, void* buffer, std::size_t bufferBytes);

// The 64 raw bytes of a context's phy entry as the published record.
CSMI_SAS_PHY_ENTITY phy_entity_from_bytes(const std::uint8_t* bytes);
