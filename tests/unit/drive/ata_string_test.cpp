#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "drive/identify.hpp"

namespace {

// Stores text the way a drive does: two characters per word, the first in the high byte.
std::vector<std::uint8_t> as_ata_field(const std::string& text) {
    std::vector<std::uint8_t> field(text.size());
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
        field[i] = static_cast<std::uint8_t>(text[i + 1]);
        field[i + 1] = static_cast<std::uint8_t>(text[i]);
    }
    return field;
}

struct AtaStringCase {
    const char* name;
    std::string stored; // in reading order, before the drive's byte swap
    std::string expected;
};

class AtaStringToText : public testing::TestWithParam<AtaStringCase> {};

TEST_P(AtaStringToText, SwapsEachWordAndTrimsBlanks) {
    const auto field = as_ata_field(GetParam().stored);
    EXPECT_EQ(ata_string_to_text(field.data(), static_cast<std::uint32_t>(field.size())),
              GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Fields, AtaStringToText,
    testing::Values(AtaStringCase{"LeadingAndTrailingBlanks", "  SERIAL12345       ",
                                  "SERIAL12345"},
                    AtaStringCase{"NulPaddingIsKept", std::string("FW01\0\0\0\0", 8),
                                  std::string("FW01\0\0\0\0", 8)},
                    AtaStringCase{"AllBlanksIsEmpty", "        ", ""},
                    AtaStringCase{"TabsAndLineEndsAreTrimmed", "\t\r\nMODEL X\v   ", "MODEL X"},
                    AtaStringCase{"InnerBlanksStay", "A B  C  ", "A B  C"},
                    AtaStringCase{"LeadingNulStopsTrimming", std::string("\0 AB    ", 8),
                                  std::string("\0 AB", 4)}),
    [](const testing::TestParamInfo<AtaStringCase>& info) { return info.param.name; });

TEST(AtaStringToText, ReadsTheHighByteOfEachWordFirst) {
    const std::uint8_t stored[] = {0x42, 0x41, 0x44, 0x43};
    EXPECT_EQ(ata_string_to_text(stored, 4), "ABCD");
}

TEST(AtaStringToTextDeathTest, OddLengthIsAProgrammingError) {
    const std::uint8_t stored[] = {0x42, 0x41, 0x44};
    EXPECT_DEATH(ata_string_to_text(stored, 3),
                 "0 != length && 0 == \\( length %2 \\) && NULL != source_buffer");
}

struct SecurityCase {
    std::uint16_t word;
    std::uint32_t state;
};

TEST(SecurityState, DerivedFromFrozenEnabledAndLockedBits) {
    const SecurityCase cases[] = {
        {0x0000, SEC1}, {0x0001, SEC1}, {0x0009, SEC2}, {0x0007, SEC4}, {0x0003, SEC5},
        {0x000B, SEC6}, {0x000F, SEC6}, {0x0021, SEC1}, {0x0029, SEC2}, {0x0004, SEC1},
    };
    for (const SecurityCase& c : cases) {
        EXPECT_EQ(security_state_from_word(c.word), c.state) << std::hex << c.word;
    }
}

TEST(SecurityState, EveryStateHasExactlyOneLabel) {
    const char* const expected[] = {"SEC0", "SEC1", "SEC2", "SEC3", "SEC4", "SEC5", "SEC6"};
    for (std::uint32_t state = 0; state < 7; ++state) {
        ASSERT_NE(security_state_label(state), nullptr);
        EXPECT_STREQ(security_state_label(state), expected[state]);
    }
    EXPECT_EQ(security_state_label(7), nullptr);
    EXPECT_EQ(security_state_label(0xFFFFFFFFu), nullptr);
}

TEST(DriveInfo, StartsEmpty) {
    const DriveInfo info;
    EXPECT_TRUE(info.modelNumber.empty());
    EXPECT_TRUE(info.ataVersions.empty());
    EXPECT_EQ(info.securityState, 0u);
    EXPECT_STREQ(security_state_label(info.securityState), "SEC0");
}

} // namespace
