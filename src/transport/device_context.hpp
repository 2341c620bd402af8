// The record every command travels in: the open handle, the drive's SCSI address, the data
// phase, the ATA registers, the transport and run flags, and the selected CSMI phy.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/win32.hpp"

// The ATA registers in the order of ATA PASS-THROUGH(16) CDB bytes 3 to 14, which the SAT
// transport copies byte for byte.
struct AtaRegisters {
    std::uint8_t featuresExt;
    std::uint8_t features;
    std::uint8_t countExt;
    std::uint8_t count;
    std::uint8_t lbaLowExt;
    std::uint8_t lbaLow;
    std::uint8_t lbaMidExt;
    std::uint8_t lbaMid;
    std::uint8_t lbaHighExt;
    std::uint8_t lbaHigh;
    std::uint8_t device;
    std::uint8_t command;
};
static_assert(sizeof(AtaRegisters) == 12, "AtaRegisters mirrors CDB bytes 3 to 14");

// Low bits of DeviceContext::interfaceKind: the transport.
enum InterfaceKind : std::uint64_t {
    ScsiPassThrough = 0x01,
    AtaPassThrough = 0x02,
    Csmi = 0x04,
};

// Bits 4 to 7 of DeviceContext::interfaceKind: what the command line asked the run to do.
enum RunFlags : std::uint64_t {
    ActivateRequested = 0x10,
    InfoRequested = 0x20,
    DownloadRequested = 0x40,
    ScanRequested = 0x80,
};

enum DataDirection : std::uint32_t {
    NoData = 0,
    DataIn = 1,  // drive to host
    DataOut = 2, // host to drive
};

enum CommandWidth : std::uint32_t {
    Ata28 = 1,
    Ata48 = 2,
};

constexpr std::size_t kPhyEntityBytes = 64;

// The drive's output registers at the end of a command, when the transport could read them: the
// ATA pass-through's task file, a CSMI status FIS, or the SAT layer's ATA Status Return sense
// data. DOWNLOAD MICROCODE reports in Count whether the drive took the image.
struct AtaReturnedRegisters {
    bool valid;
    std::uint8_t status;
    std::uint8_t error;
    std::uint8_t count;
    std::uint8_t lbaLow;
    std::uint8_t lbaMid;
    std::uint8_t lbaHigh;
    std::uint8_t device;
};

// The SCSI sense data of a command the SCSI pass-through ended with CHECK CONDITION: sense key,
// additional sense code and qualifier, in fixed or descriptor format.
struct ReturnedSense {
    bool valid;
    std::uint8_t key;
    std::uint8_t asc;
    std::uint8_t ascq;
};

struct DeviceContext {
    win32::HANDLE handle;
    // These five fields are the SCSI_ADDRESS record that IOCTL_SCSI_GET_ADDRESS fills in place.
    std::uint32_t scsiAddressLength;
    std::uint8_t portNumber;
    std::uint8_t pathId;
    std::uint8_t targetId;
    std::uint8_t lun;
    std::uint32_t dataDirection;
    void* dataBuffer; // not owned; read only together with a dataDirection set by the same builder
    std::uint32_t transferLength;
    std::uint32_t timeoutSeconds;
    std::int32_t verbose;
    std::uint64_t interfaceKind;
    std::uint64_t optionL;
    std::uint32_t lastError;
    std::uint32_t commandWidth;
    AtaRegisters registers;
    std::uint8_t phyEntity[kPhyEntityBytes]; // CSMI_SAS_PHY_ENTITY of the selected phy
    // Set by a builder that needs the registers its next commands end with: SCSI pass-through
    // then asks the SAT layer for them (CK_COND); the other transports always return them.
    bool registersRequested;
    AtaReturnedRegisters returned; // of the last command; valid false when none came back
    ReturnedSense sense;           // of the last command; valid false when none came back
};

static_assert(offsetof(DeviceContext, portNumber) == offsetof(DeviceContext, scsiAddressLength) +
                                                         offsetof(win32::SCSI_ADDRESS, PortNumber),
              "the SCSI address fields must be laid out as SCSI_ADDRESS");
static_assert(offsetof(DeviceContext, lun) ==
                  offsetof(DeviceContext, scsiAddressLength) + offsetof(win32::SCSI_ADDRESS, Lun),
              "the SCSI address fields must be laid out as SCSI_ADDRESS");

// A zeroed context with the default transport, as a run or a scan starts it.
DeviceContext make_device_context();
