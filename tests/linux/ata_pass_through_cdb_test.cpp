#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "platform/linux/ata_pass_through_cdb.hpp"

namespace {

using linux_backend::AtaPassThroughCdb;
using linux_backend::build_ata_pass_through_cdb;
using linux_backend::DataPhase;

std::uint8_t buffer[512];

win32::ATA_PASS_THROUGH_DIRECT request(win32::USHORT flags, win32::ULONG length,
                                       std::vector<std::uint8_t> current,
                                       std::vector<std::uint8_t> previous = {}) {
    win32::ATA_PASS_THROUGH_DIRECT r;
    std::memset(&r, 0, sizeof r);
    r.Length = sizeof r;
    r.AtaFlags = flags;
    r.DataTransferLength = length;
    r.DataBuffer = length != 0 ? buffer : nullptr;
    r.TimeOutValue = 5;
    std::copy(current.begin(), current.end(), r.CurrentTaskFile);
    std::copy(previous.begin(), previous.end(), r.PreviousTaskFile);
    return r;
}

win32::ATA_PASS_THROUGH_DIRECT with_length_field(win32::USHORT length) {
    win32::ATA_PASS_THROUGH_DIRECT r = request(0x03, 512, {0, 1, 0, 0, 0, 0, 0xEC});
    r.Length = length;
    return r;
}

win32::ATA_PASS_THROUGH_DIRECT without_buffer() {
    win32::ATA_PASS_THROUGH_DIRECT r = request(0x05, 512, {0x07, 1, 0, 0, 0, 0x40, 0x92});
    r.DataBuffer = nullptr;
    return r;
}

struct CdbCase {
    const char* name;
    win32::ATA_PASS_THROUGH_DIRECT request;
    std::vector<std::uint8_t> cdb; // empty: nothing may be built from the request
    DataPhase phase;
};

class AtaPassThroughCdb16 : public testing::TestWithParam<CdbCase> {};

TEST_P(AtaPassThroughCdb16, CarriesTheTaskFileWithCheckConditionOrNothing) {
    const CdbCase& c = GetParam();
    AtaPassThroughCdb cdb;
    ASSERT_EQ(build_ata_pass_through_cdb(c.request, cdb), !c.cdb.empty());
    if (!c.cdb.empty()) {
        EXPECT_EQ(std::vector<std::uint8_t>(cdb.bytes, cdb.bytes + 16), c.cdb);
        EXPECT_EQ(cdb.phase, c.phase);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Requests, AtaPassThroughCdb16,
    testing::Values(
        // PIO Data-In, T_DIR, BYT_BLOK, T_LENGTH in Count, CK_COND.
        CdbCase{"IdentifyDevice",
                request(0x03, 512, {0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0xEC}),
                {0x85, 0x08, 0x2E, 0, 0, 0, 0x01, 0, 0, 0, 0, 0, 0, 0, 0xEC, 0},
                DataPhase::In},
        // A 28-bit command sends no high bytes, whatever PreviousTaskFile holds.
        CdbCase{"TwentyEightBitIgnoresPreviousTaskFile",
                request(0x03, 512, {0x0B, 0x01, 0xDB, 0x97, 0x20, 0x00, 0xEC},
                        {0xFF, 0xFF, 0xFF, 0xFF, 0xFF}),
                {0x85, 0x08, 0x2E, 0, 0x0B, 0, 0x01, 0, 0xDB, 0, 0x97, 0, 0x20, 0, 0xEC, 0},
                DataPhase::In},
        CdbCase{
            "ReadLogExtPairsHighAndLowBytes",
            request(0x0B, 512, {0x00, 0x01, 0x30, 0x03, 0x00, 0x00, 0x2F},
                    {0xA1, 0xA2, 0xA3, 0xA4, 0xA5}),
            {0x85, 0x09, 0x2E, 0xA1, 0, 0xA2, 0x01, 0xA3, 0x30, 0xA4, 0x03, 0xA5, 0, 0, 0x2F, 0},
            DataPhase::In},
        // PIO Data-Out, no T_DIR.
        CdbCase{"DownloadMicrocodeSegment",
                request(0x05, 32768, {0x03, 0x40, 0x00, 0x40, 0x00, 0x40, 0x92}),
                {0x85, 0x0A, 0x26, 0, 0x03, 0, 0x40, 0, 0x00, 0, 0x40, 0, 0x00, 0x40, 0x92, 0},
                DataPhase::Out},
        // Non-data protocol, no length at all.
        CdbCase{"ActivateWithoutData",
                request(0x01, 0, {0x0F, 0x00, 0x10, 0x00, 0x00, 0x40, 0x92}),
                {0x85, 0x06, 0x20, 0, 0x0F, 0, 0x00, 0, 0x10, 0, 0, 0, 0, 0x40, 0x92, 0},
                DataPhase::None},
        CdbCase{"WrongLength", with_length_field(40), {}, {}},
        CdbCase{"BothDirections", request(0x07, 512, {0, 1, 0, 0, 0, 0, 0xEC}), {}, {}},
        // ATA_FLAGS_USE_DMA: this backend sends PIO only.
        CdbCase{"DmaFlag", request(0x13, 512, {0, 1, 0, 0, 0, 0, 0xC8}), {}, {}},
        CdbCase{"UnknownFlag", request(0x41, 0, {0, 0, 0, 0, 0, 0, 0xE5}), {}, {}},
        CdbCase{"DataInWithoutLength", request(0x03, 0, {0, 1, 0, 0, 0, 0, 0xEC}), {}, {}},
        CdbCase{"DataOutWithoutBuffer", without_buffer(), {}, {}},
        CdbCase{"LengthWithoutDirection", request(0x01, 512, {0, 1, 0, 0, 0, 0, 0xEC}), {}, {}}),
    [](const testing::TestParamInfo<CdbCase>& info) { return info.param.name; });

} // namespace
