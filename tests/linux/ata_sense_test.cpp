#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "platform/linux/ata_sense.hpp"

namespace {

using linux_backend::AtaSenseVerdict;
using linux_backend::read_ata_sense;

// Sense buffers as SG_IO hands them back: `written` valid bytes, then filler that must never be
// read as a register.
std::vector<std::uint8_t> with_filler(std::vector<std::uint8_t> bytes) {
    bytes.resize(64, 0xEE);
    return bytes;
}

struct TaskFileCase {
    const char* name;
    std::vector<std::uint8_t> sense;
    std::size_t written;
    // Error, Count, LBA (7:0), LBA (15:8), LBA (23:16), Device, Status
    std::uint8_t current[7];
    std::uint8_t previous[5]; // 0, Count (15:8), LBA (31:24), LBA (39:32), LBA (47:40)
};

class TaskFileFromSense : public testing::TestWithParam<TaskFileCase> {};

TEST_P(TaskFileFromSense, RegistersStandWhereTheTranslatorPutThem) {
    const TaskFileCase& c = GetParam();
    const std::vector<std::uint8_t> sense = with_filler(c.sense);
    const auto reading = read_ata_sense(sense.data(), c.written);
    ASSERT_EQ(reading.verdict, AtaSenseVerdict::TaskFile);
    for (int i = 0; i < 7; ++i) {
        EXPECT_EQ(reading.current[i], c.current[i]) << "CurrentTaskFile[" << i << "]";
    }
    EXPECT_EQ(reading.current[7], 0);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(reading.previous[i], c.previous[i]) << "PreviousTaskFile[" << i << "]";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Formats, TaskFileFromSense,
    testing::Values(
        // VALID set: Error, Status, Device and Count in the INFORMATION field, LBA (7:0) to
        // (23:16) in bytes 9 to 11.
        TaskFileCase{
            "SatFixedFormatWithValid",
            {0xF0, 0, 0x0B, 0x04, 0x51, 0x40, 0x40, 0x0A, 0x00, 0x12, 0x34, 0x56, 0, 0, 0, 0, 0, 0},
            18,
            {0x04, 0x40, 0x12, 0x34, 0x56, 0x40, 0x51},
            {}},
        // A drive with the Sense Data Reporting feature set reports its own sense data for the
        // abort; libata keeps it beside the registers. The key is the drive's, not a refusal.
        TaskFileCase{"DrivesOwnIllegalRequestWithRegisters",
                     {0xF0, 0, 0x05, 0x04, 0x51, 0x40, 0x01, 0x0A, 0x00, 0x00, 0x00, 0x00, 0x24, 0,
                      0, 0, 0, 0},
                     18,
                     {0x04, 0x01, 0x00, 0x00, 0x00, 0x40, 0x51},
                     {}},
        // Success with CK_COND: RECOVERED ERROR, 00/1D, the ATA Status Return descriptor.
        TaskFileCase{"DescriptorFormat28Bit",
                     {0x72, 0x01, 0x00, 0x1D, 0,    0,    0,    0x0E, 0x09, 0x0C, 0x00,
                      0x00, 0xAA, 0x01, 0xBB, 0x02, 0xCC, 0x03, 0xDD, 0x04, 0xE0, 0x50},
                     22,
                     {0x00, 0x01, 0x02, 0x03, 0x04, 0xE0, 0x50},
                     {}},
        TaskFileCase{"DescriptorFormat48BitKeepsTheHighBytes",
                     {0x72, 0x01, 0x00, 0x1D, 0,    0,    0,    0x0E, 0x09, 0x0C, 0x01,
                      0x00, 0x11, 0x01, 0x22, 0x02, 0x33, 0x03, 0x44, 0x04, 0x40, 0x50},
                     22,
                     {0x00, 0x01, 0x02, 0x03, 0x04, 0x40, 0x50},
                     {0, 0x11, 0x22, 0x33, 0x44}},
        // The ATA descriptor need not come first, and it is the outcome whatever the key.
        TaskFileCase{"DescriptorAfterAnotherUnderIllegalRequest",
                     {0x72, 0x05, 0x24, 0x00, 0, 0, 0, 0x1A, 0x00, 0x0A, 0x80, 0,
                      0,    0,    0,    0,    0, 0, 0, 0,    0x09, 0x0C, 0x00, 0x04,
                      0x00, 0x40, 0,    0,    0, 0, 0, 0,    0x40, 0x41},
                     34,
                     {0x04, 0x40, 0x00, 0, 0, 0x40, 0x41},
                     {}}),
    [](const testing::TestParamInfo<TaskFileCase>& info) { return info.param.name; });

struct VerdictCase {
    const char* name;
    std::vector<std::uint8_t> sense;
    std::size_t written;
    AtaSenseVerdict verdict;
};

class VerdictFromSense : public testing::TestWithParam<VerdictCase> {};

TEST_P(VerdictFromSense, SenseWithoutRegistersIsNeverReadAsATaskFile) {
    const VerdictCase& c = GetParam();
    const std::vector<std::uint8_t> sense = with_filler(c.sense);
    EXPECT_EQ(read_ata_sense(sense.data(), c.written).verdict, c.verdict);
}

INSTANTIATE_TEST_SUITE_P(
    Verdicts, VerdictFromSense,
    testing::Values(
        // QEMU's scsi-hd: ATA PASS-THROUGH is an unknown operation code.
        VerdictCase{"ScsiDiskInvalidOperationCode",
                    {0x70, 0, 0x05, 0, 0, 0, 0, 0x0A, 0, 0, 0, 0, 0x20, 0x00, 0, 0, 0, 0},
                    18,
                    AtaSenseVerdict::CommandRefused},
        VerdictCase{"InvalidOperationCodeInDescriptorFormat",
                    {0x72, 0x05, 0x20, 0x00, 0, 0, 0, 0x00},
                    8,
                    AtaSenseVerdict::CommandRefused},
        // libata refusing a CDB field: VALID clear, the drive saw nothing.
        VerdictCase{"InvalidFieldInCdb",
                    {0x70, 0, 0x05, 0, 0, 0, 0, 0x0A, 0, 0, 0, 0, 0x24, 0x00, 0, 0, 0, 0},
                    18,
                    AtaSenseVerdict::FieldRefused},
        // A descriptor list whose ATA descriptor is cut off by the written length.
        VerdictCase{"TruncatedAtaDescriptor",
                    {0x72, 0x01, 0x00, 0x1D, 0,    0,    0,    0x0E, 0x09, 0x0C, 0x00,
                     0x00, 0xAA, 0x01, 0xBB, 0x02, 0xCC, 0x03, 0xDD, 0x04, 0xE0, 0x50},
                    21,
                    AtaSenseVerdict::NoTaskFile},
        VerdictCase{"DescriptorFormatWithoutAtaDescriptor",
                    {0x72, 0x06, 0x29, 0x00, 0, 0, 0, 0x00},
                    8,
                    AtaSenseVerdict::NoTaskFile},
        // A deferred error belongs to an earlier command.
        VerdictCase{"DeferredFixedFormat",
                    {0x71, 0, 0x0B, 0, 0, 0, 0, 0x0A, 0x04, 0x51, 0x40, 0x01, 0, 0, 0, 0, 0, 0},
                    18,
                    AtaSenseVerdict::NoTaskFile},
        VerdictCase{"DeferredDescriptorFormat",
                    {0x73, 0x01, 0x00, 0x1D, 0, 0, 0, 0x0E, 0x09, 0x0C, 0x00,
                     0x00, 0,    0x01, 0,    0, 0, 0, 0,    0,    0x40, 0x50},
                    22,
                    AtaSenseVerdict::NoTaskFile},
        VerdictCase{"FixedFormatTooShortForRegisters",
                    {0x70, 0, 0x0B, 0, 0, 0, 0, 0x0A, 0x04, 0x41, 0x40},
                    11,
                    AtaSenseVerdict::NoTaskFile},
        VerdictCase{"VendorSpecificResponseCode",
                    {0x7F, 0, 0, 0, 0, 0, 0, 0, 0x50},
                    9,
                    AtaSenseVerdict::NoTaskFile},
        VerdictCase{"NothingWritten", {}, 0, AtaSenseVerdict::NoTaskFile}),
    [](const testing::TestParamInfo<VerdictCase>& info) { return info.param.name; });

TEST(AtaSense, FixedFormatNeverReadsPastTheWrittenLength) {
    // Twelve bytes hold the four registers of the older layout; the LBA bytes were not written.
    const std::vector<std::uint8_t> sense =
        with_filler({0x70, 0, 0x0B, 0, 0, 0, 0, 0x0A, 0x04, 0x41, 0x40, 0x01});
    const auto reading = read_ata_sense(sense.data(), 12);
    ASSERT_EQ(reading.verdict, AtaSenseVerdict::TaskFile);
    EXPECT_EQ(reading.current[6], 0x41);
    EXPECT_EQ(reading.current[2], 0);
    EXPECT_EQ(reading.current[3], 0);
    EXPECT_EQ(reading.current[4], 0);
}

TEST(AtaSense, DescriptorListEndsAtTheAdditionalLength) {
    // The ATA descriptor stands past what the additional length announces.
    std::vector<std::uint8_t> sense =
        with_filler({0x72, 0x01, 0x00, 0x1D, 0, 0, 0, 0x00, 0x09, 0x0C, 0x00,
                     0x00, 0,    0x01, 0,    0, 0, 0, 0,    0,    0x40, 0x50});
    EXPECT_EQ(read_ata_sense(sense.data(), 22).verdict, AtaSenseVerdict::NoTaskFile);
}

} // namespace
