#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "drive/identify.hpp"

namespace {

struct AtaStringCase {
    const char* name;
    std::string stored; // as the drive stores it: two characters a word, the first in the high byte
    std::string expected;
};

class AtaStringToText : public testing::TestWithParam<AtaStringCase> {};

TEST_P(AtaStringToText, SwapsEachWordAndTrimsBlanks) {
    const std::string& stored = GetParam().stored;
    const std::vector<std::uint8_t> field(stored.begin(), stored.end());
    EXPECT_EQ(ata_string_to_text(field.data(), static_cast<std::uint32_t>(field.size())),
              GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Fields, AtaStringToText,
    testing::Values(AtaStringCase{"HighByteFirst", "BADC", "ABCD"},
                    AtaStringCase{"LeadingAndTrailingBlanks", "  ESIRLA2143 5      ",
                                  "SERIAL12345"},
                    AtaStringCase{"NulPaddingIsKept", std::string("WF10\0\0\0\0", 8),
                                  std::string("FW01\0\0\0\0", 8)},
                    AtaStringCase{"AllBlanksIsEmpty", "        ", ""},
                    AtaStringCase{"TabsAndLineEndsAreTrimmed", "\r\tM\nDOLEX  \v  ", "MODEL X"},
                    AtaStringCase{"InnerBlanksStay", " A BC   ", "A B  C"},
                    AtaStringCase{"LeadingNulStopsTrimming", std::string(" \0BA    ", 8),
                                  std::string("\0 AB", 4)}),
    [](const testing::TestParamInfo<AtaStringCase>& info) { return info.param.name; });

TEST(SecurityState, DerivedFromFrozenEnabledAndLockedBits) {
    const struct {
        std::uint16_t word;
        std::uint32_t state;
    } cases[] = {
        {0x0000, SEC1}, {0x0001, SEC1}, {0x0009, SEC2}, {0x0007, SEC4}, {0x0003, SEC5},
        {0x000B, SEC6}, {0x000F, SEC6}, {0x0021, SEC1}, {0x0029, SEC2}, {0x0004, SEC1},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(security_state_from_word(c.word), c.state) << std::hex << c.word;
    }
}

} // namespace
