#include <cstring>

#include "drive/identify.hpp"
#include "platform/console.hpp"
#include "transport/transport.hpp"

namespace {

constexpr std::uint8_t kIdentifyDevice = 0xEC;
constexpr std::uint8_t kReadLogExt = 0x2F;
constexpr std::uint8_t kIdentifyDeviceDataLog = 0x30;
constexpr std::uint8_t kSupportedCapabilitiesPage = 0x03;
constexpr std::uint32_t kSectorBytes = 512;
constexpr std::uint8_t kVendorFeatures = 0x0B;
constexpr std::uint8_t kVendorLbaLow = 0xDB;
constexpr std::uint8_t kVendorLbaMid = 0x97;
constexpr std::uint8_t kVendorLbaHigh = 0x20;

std::uint16_t word_at(const std::uint8_t* data, int word) {
    return static_cast<std::uint16_t>(data[2 * word] | (data[2 * word + 1] << 8));
}

std::uint64_t qword_at(const std::uint8_t* data, int index) {
    std::uint64_t value = 0;
    for (int i = 7; i >= 0; --i) {
        value = (value << 8) | data[8 * index + i];
    }
    return value;
}

// The fields every identify command of this drive shares; the rest of the registers keep what
// the previous command left.
void prepare_data_in(DeviceContext& context, std::uint8_t* buffer, std::uint32_t width) {
    context.commandWidth = width;
    context.dataDirection = DataIn;
    context.transferLength = kSectorBytes;
    context.dataBuffer = buffer;
}

} // namespace

Status identify_device(DeviceContext& context, DriveInfo& driveInfo) {
    std::uint8_t data[kSectorBytes] = {};
    context.registers.command = kIdentifyDevice;
    context.registers.count = 1;
    prepare_data_in(context, data, Ata28);

    const Status status = send_ata_command(context);
    if (status != Status::Success) {
        if (context.verbose != 0) {
            const console::Message message(console::Severity::Error);
            console::printf("ATA IDENTIFY (0xEC) command failed [0x%x]\n", context.lastError);
        }
        return status;
    }

    driveInfo.serialNumber = ata_string_to_text(data + 20, 20);
    driveInfo.modelNumber = ata_string_to_text(data + 54, 40);
    driveInfo.firmwareRevision = ata_string_to_text(data + 46, 8);

    driveInfo.generalConfiguration = word_at(data, 0);
    driveInfo.securityWord = word_at(data, 128);
    const std::uint16_t commandSets = word_at(data, 83);
    driveInfo.dmSupported = (commandSets & 0xC000) == 0x4000 && (commandSets & 1) != 0;
    driveInfo.dmDmaSupported = (word_at(data, 69) >> 8) & 1;
    driveInfo.dmMode3Supported = (word_at(data, 119) >> 4) & 1;
    driveInfo.dmMinBlocks = word_at(data, 234);
    driveInfo.dmMaxBlocks = word_at(data, 235);

    static const char* const versionLabels[] = {"ATA8-ACS ", "ACS-2 ", "ACS-3 ", "ACS-4 "};
    const std::uint16_t majorVersion = word_at(data, 80);
    for (int bit = 8; bit <= 11; ++bit) {
        if ((majorVersion >> bit) & 1) {
            driveInfo.ataVersions.emplace_back(versionLabels[bit - 8]);
        }
    }

    driveInfo.securityState = security_state_from_word(driveInfo.securityWord);
    read_dm_capabilities(context, driveInfo);
    return Status::Success;
}

void read_dm_capabilities(DeviceContext& context, DriveInfo& driveInfo) {
    std::uint8_t page[kSectorBytes] = {};
    context.registers.command = kReadLogExt;
    context.registers.count = 1;
    context.registers.lbaLow = kIdentifyDeviceDataLog;
    context.registers.lbaMid = kSupportedCapabilitiesPage;
    prepare_data_in(context, page, Ata48);

    if (send_ata_command(context) != Status::Success) {
        return;
    }
    // Bit 63 of the page header says the page holds valid data.
    if ((qword_at(page, 0) >> 63) == 0) {
        return;
    }
    const std::uint64_t capabilities = qword_at(page, 2);
    if ((capabilities >> 35) & 1) {
        driveInfo.dmClearsNonactivatedDeferredData = 1;
    }
    if ((capabilities >> 34) & 1) {
        driveInfo.dmOffsetsDeferredSupported = 1;
    }
}

Status vendor_identify(DeviceContext& context) {
    std::uint8_t data[kSectorBytes] = {};
    context.registers.command = kIdentifyDevice;
    context.registers.features = kVendorFeatures;
    context.registers.count = 1;
    context.registers.lbaLow = kVendorLbaLow;
    context.registers.lbaMid = kVendorLbaMid;
    context.registers.lbaHigh = kVendorLbaHigh;
    prepare_data_in(context, data, Ata28);
    return send_ata_command(context);
}

bool is_vendor_identify(const AtaRegisters& registers) {
    return registers.features == kVendorFeatures && registers.lbaLow == kVendorLbaLow &&
           registers.lbaMid == kVendorLbaMid && registers.lbaHigh == kVendorLbaHigh;
}
