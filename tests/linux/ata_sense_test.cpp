// The sense parser: where each translator puts the drive's registers, sense data that carry none,
// and what Debian 12's kernel (6.1) and Debian 13's (6.12) really wrote back for the /T:
// commands, byte for byte: the QEMU suite's sense captures (tests/qemu/expected/sense-*; a
// kernel's own file where it answered differently).
#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/ata_sense.hpp"

namespace {

using sat::AtaSenseVerdict;
constexpr AtaSenseVerdict kTaskFile = AtaSenseVerdict::TaskFile;
constexpr AtaSenseVerdict kNone = AtaSenseVerdict::NoTaskFile;

struct SenseCase {
    std::string name;
    std::vector<std::uint8_t> sense; // the bytes written; filler follows, never to be read
    AtaSenseVerdict verdict;
    // Error, Count, LBA (7:0), LBA (15:8), LBA (23:16), Device, Status; for a 48-bit answer then
    // Count (15:8), LBA (31:24), LBA (39:32), LBA (47:40).
    std::vector<std::uint8_t> registers = {};
    std::string scsiStatus = {};     // a capture's SCSI status as written
    const char* expectedStatus = ""; // and as it must be
    // RECOVERED ERROR, ATA PASS-THROUGH INFORMATION AVAILABLE: a completed command, not a failure.
    bool completed = false;
};

// The line "identify status=02 host=0000 driver=0008 resid=0 sense=70 00 0b ..." of a capture;
// a command that appears twice gives its first line.
SenseCase captured(const char* kernel, const char* capture, const char* command,
                   const char* expectedStatus, AtaSenseVerdict verdict,
                   std::vector<std::uint8_t> registers) {
    SenseCase c{std::string(capture) + "_" + command + "_" + kernel,
                {},
                verdict,
                std::move(registers),
                "(no line)",
                expectedStatus};
    for (char& ch : c.name) {
        ch = (ch == '-' || ch == '.') ? '_' : ch;
    }
    const std::string base = std::string(QUENMARK_QEMU_EXPECTED) + "/" + capture + "/";
    std::ifstream file(base + kernel + "/stdout");
    if (!file) {
        file.open(base + "stdout");
    }
    for (std::string line; std::getline(file, line);) {
        if (line.rfind(std::string(command) + " status=", 0) == 0) {
            c.scsiStatus = line.substr(line.find('=') + 1, 2);
            std::istringstream bytes(line.substr(line.find("sense=") + 6));
            for (unsigned byte = 0; bytes >> std::hex >> byte;) {
                c.sense.push_back(static_cast<std::uint8_t>(byte));
            }
            break;
        }
    }
    return c;
}

class AtaSense : public testing::TestWithParam<SenseCase> {};

TEST_P(AtaSense, RegistersStandWhereTheTranslatorPutThem) {
    const SenseCase& c = GetParam();
    EXPECT_EQ(c.scsiStatus, c.expectedStatus);
    std::vector<std::uint8_t> sense = c.sense;
    sense.resize(64, 0xEE);
    const auto reading = sat::read_ata_sense(sense.data(), c.sense.size());
    ASSERT_EQ(reading.verdict, c.verdict);
    if (c.verdict == kTaskFile) {
        std::vector<std::uint8_t> expected = c.registers;
        expected.resize(11, 0);
        expected.insert(expected.begin() + 7, {0, 0});
        expected.insert(expected.end(), {0, 0, 0});
        std::vector<std::uint8_t> got(reading.current, reading.current + 8);
        got.insert(got.end(), reading.previous, reading.previous + 8);
        EXPECT_EQ(got, expected);
    }
    // A GOOD status hides a failed command when the sense data show ERR or DF.
    const bool failed = c.verdict == kTaskFile && (c.registers.at(6) & 0x21) != 0;
    EXPECT_EQ(sat::sense_shows_ata_error(sense.data(), c.sense.size()), failed);
    EXPECT_EQ(sat::sense_reports_ata_information(sense.data(), c.sense.size()), c.completed);
}

const SenseCase kWritten[] = {
    // VALID clear, the older layout: Error, Status, Device, Count in bytes 8 to 11. Twelve bytes
    // written: the LBA bytes were not.
    {"FixedFormatNeverReadsPastTheWrittenLength",
     {0x70, 0, 0x0B, 0, 0, 0, 0, 0x0A, 0x04, 0x41, 0x40, 0x01},
     kTaskFile,
     {0x04, 0x01, 0, 0, 0, 0x40, 0x41}},
    // Success with CK_COND: RECOVERED ERROR, 00/1D, the ATA Status Return descriptor.
    {"DescriptorFormat28Bit",
     {0x72, 0x01, 0x00, 0x1D, 0,    0,    0,    0x0E, 0x09, 0x0C, 0x00,
      0x00, 0xAA, 0x01, 0xBB, 0x02, 0xCC, 0x03, 0xDD, 0x04, 0xE0, 0x50},
     kTaskFile,
     {0x00, 0x01, 0x02, 0x03, 0x04, 0xE0, 0x50},
     {},
     "",
     true},
    {"DescriptorFormat48BitKeepsTheHighBytes",
     {0x72, 0x01, 0x00, 0x1D, 0,    0,    0,    0x0E, 0x09, 0x0C, 0x01,
      0x00, 0x11, 0x01, 0x22, 0x02, 0x33, 0x03, 0x44, 0x04, 0x40, 0x50},
     kTaskFile,
     {0x00, 0x01, 0x02, 0x03, 0x04, 0x40, 0x50, 0x11, 0x22, 0x33, 0x44},
     {},
     "",
     true},
    // The same in fixed format, where a translator keeps D_SENSE clear: VALID, the registers in
    // the INFORMATION field (Count 03h: the drive saved the image for activation).
    {"FixedFormatCompletedWithRegisters",
     {0xF0, 0, 0x01, 0x00, 0x50, 0x40, 0x03, 0x0A, 0, 0x00, 0xC0, 0x00, 0x00, 0x1D, 0, 0, 0, 0},
     kTaskFile,
     {0x00, 0x03, 0x00, 0xC0, 0x00, 0x40, 0x50},
     {},
     "",
     true},
    // Fixed format cut before the ASC: the completion cannot be told.
    {"FixedFormatCutBeforeTheAsc",
     {0xF0, 0, 0x01, 0x00, 0x50, 0x40, 0x03, 0x0A, 0, 0x00, 0xC0, 0x00},
     kTaskFile,
     {0x00, 0x03, 0x00, 0xC0, 0x00, 0x40, 0x50}},
    // The ATA descriptor need not come first, and it is the outcome whatever the key.
    {"DescriptorAfterAnotherUnderIllegalRequest",
     {0x72, 0x05, 0x24, 0x00, 0,    0,    0,    0x1A, 0x00, 0x0A, 0x80, 0, 0, 0, 0, 0,    0,
      0,    0,    0,    0x09, 0x0C, 0x00, 0x04, 0x00, 0x40, 0,    0,    0, 0, 0, 0, 0x40, 0x41},
     kTaskFile,
     {0x04, 0x40, 0x00, 0, 0, 0x40, 0x41}},
    // QEMU's scsi-hd: ATA PASS-THROUGH is an unknown operation code.
    {"ScsiDiskInvalidOperationCode",
     {0x70, 0, 0x05, 0, 0, 0, 0, 0x0A, 0, 0, 0, 0, 0x20, 0x00, 0, 0, 0, 0},
     AtaSenseVerdict::CommandRefused},
    {"InvalidOperationCodeInDescriptorFormat",
     {0x72, 0x05, 0x20, 0x00, 0, 0, 0, 0x00},
     AtaSenseVerdict::CommandRefused},
    // libata refusing a CDB field: VALID clear, the drive saw nothing.
    {"InvalidFieldInCdb",
     {0x70, 0, 0x05, 0, 0, 0, 0, 0x0A, 0, 0, 0, 0, 0x24, 0x00, 0, 0, 0, 0},
     AtaSenseVerdict::FieldRefused},
    // The ATA descriptor cut off by the written length, or standing past the additional length.
    {"TruncatedAtaDescriptor",
     {0x72, 0x01, 0x00, 0x1D, 0,    0,    0,    0x0E, 0x09, 0x0C, 0x00,
      0x00, 0xAA, 0x01, 0xBB, 0x02, 0xCC, 0x03, 0xDD, 0x04, 0xE0},
     kNone,
     {},
     {},
     "",
     true},
    {"DescriptorListEndsAtTheAdditionalLength",
     {0x72, 0x01, 0x00, 0x1D, 0, 0, 0, 0x00, 0x09, 0x0C, 0x00,
      0x00, 0,    0x01, 0,    0, 0, 0, 0,    0,    0x40, 0x50},
     kNone,
     {},
     {},
     "",
     true},
    {"DescriptorFormatWithoutAtaDescriptor", {0x72, 0x06, 0x29, 0x00, 0, 0, 0, 0x00}, kNone},
    // A deferred error belongs to an earlier command.
    {"DeferredFixedFormat",
     {0x71, 0, 0x0B, 0, 0, 0, 0, 0x0A, 0x04, 0x51, 0x40, 0x01, 0, 0, 0, 0, 0, 0},
     kNone},
    {"DeferredDescriptorFormat",
     {0x73, 0x01, 0x00, 0x1D, 0, 0, 0, 0x0E, 0x09, 0x0C, 0x00,
      0x00, 0,    0x01, 0,    0, 0, 0, 0,    0,    0x40, 0x50},
     kNone},
    {"FixedFormatTooShortForRegisters", {0x70, 0, 0x0B, 0, 0, 0, 0, 0x0A, 0x04, 0x41, 0x40}, kNone},
    {"VendorSpecificResponseCode", {0x7F, 0, 0, 0, 0, 0, 0, 0, 0x50}, kNone},
    {"NothingWritten", {}, kNone},
};

// 6.1 writes fixed-format sense with VALID clear: Error, Status, Device and Count in bytes 8 to
// 11. 6.12 sets VALID: Error, Status, Device and Count in the INFORMATION field, LBA (7:0) to
// (23:16) in bytes 9 to 11; the sense key may be the device's own, beside the registers.
const SenseCase kKernels[] = {
    // QEMU's AHCI quirk: IDENTIFY with CK_COND delivers its data but ends with DRQ set.
    captured("6.1", "sense-ahci-sda", "identify", "02", kTaskFile, {0, 1, 0, 0, 0, 0, 0x58}),
    captured("6.12", "sense-ahci-sda", "identify", "02", kTaskFile, {0, 1, 0, 0, 0, 0, 0x58}),
    // READ LOG EXT and DOWNLOAD MICROCODE aborted by the disk. 6.1 writes only LBA (7:0); 6.12
    // writes LBA (15:8) too (the page number, 3).
    captured("6.1", "sense-ahci-sda", "read-log", "02", kTaskFile, {4, 1, 0x30, 0, 0, 0, 0x41}),
    captured("6.12", "sense-ahci-sda", "read-log", "02", kTaskFile, {4, 1, 0x30, 3, 0, 0, 0x41}),
    captured("6.1", "sense-ahci-sda", "download", "02", kTaskFile, {4, 1, 0, 0, 0, 0x40, 0x41}),
    captured("6.12", "sense-ahci-sda", "download", "02", kTaskFile, {4, 1, 0, 0, 0, 0x40, 0x41}),
    // The ATAPI CD-ROM aborts IDENTIFY DEVICE and shows its signature in LBA (15:8) and (23:16);
    // 6.1 writes only LBA (7:0). 6.12 keeps the CD-ROM's own sense data, ILLEGAL REQUEST 24/00
    // left from the INQUIRY before, with VALID and the registers.
    captured("6.1", "sense-cd-sr0", "identify", "02", kTaskFile, {4, 1, 1, 0, 0, 0, 0x41}),
    captured("6.12", "sense-cd-sr0", "identify", "02", kTaskFile, {4, 1, 1, 0x14, 0xEB, 0, 0x41}),
    captured("6.1", "sense-cd-sr0", "download", "02", kTaskFile, {4, 1, 0, 0, 0, 0x40, 0x41}),
    captured("6.12", "sense-cd-sr0", "download", "02", kTaskFile, {4, 1, 0, 0, 0, 0x40, 0x41}),
    // IDENTIFY DEVICE without CK_COND, as the default interface sends it. When the drive aborts
    // it, 6.1 answers CHECK CONDITION; 6.12 answers GOOD with no data but writes the abort into
    // the sense data. A disk that completes the command writes no sense data.
    captured("6.12", "sense-cd-sr0", "identify-no-ck-cond", "00", kTaskFile,
             {4, 1, 1, 0x14, 0xEB, 0, 0x41}),
    captured("6.1", "sense-cd-sr0", "identify-no-ck-cond", "02", kTaskFile, {0, 0, 0, 0, 0, 0, 0}),
    captured("6.1", "sense-ahci-sda", "identify-no-ck-cond", "00", kNone, {}),
    captured("6.12", "sense-ahci-sda", "identify-no-ck-cond", "00", kNone, {}),
};

std::string case_name(const testing::TestParamInfo<SenseCase>& info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Written, AtaSense, testing::ValuesIn(kWritten), case_name);
INSTANTIATE_TEST_SUITE_P(Kernels, AtaSense, testing::ValuesIn(kKernels), case_name);

} // namespace
