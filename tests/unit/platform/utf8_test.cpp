#include <gtest/gtest.h>

#include <string>

#include "platform/utf8.hpp"

namespace {

using utf8::decode_utf8;
using utf8::encode_utf8;

struct DecodeCase {
    const char* name;
    std::string bytes;
    std::wstring text;
};

class Utf8Decode : public testing::TestWithParam<DecodeCase> {};

TEST_P(Utf8Decode, EachInvalidByteBecomesOneReplacementCharacter) {
    EXPECT_EQ(decode_utf8(GetParam().bytes), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    Sequences, Utf8Decode,
    testing::Values(DecodeCase{"Ascii", "/dev/sda", L"/dev/sda"},
                    DecodeCase{"TwoThreeAndFourBytes", "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80",
                               L"\u00E9\u20AC\U0001F600"},
                    DecodeCase{"StrayContinuation", "a\x80z", L"a\uFFFDz"},
                    DecodeCase{"Overlong", "\xC0\xAF", L"\uFFFD\uFFFD"},
                    DecodeCase{"EncodedSurrogate", "\xED\xA0\x80", L"\uFFFD\uFFFD\uFFFD"},
                    DecodeCase{"AboveUnicode", "\xF4\x90\x80\x80", L"\uFFFD\uFFFD\uFFFD\uFFFD"},
                    DecodeCase{"TruncatedAtTheEnd", "fw\xE2\x82", L"fw\uFFFD\uFFFD"},
                    DecodeCase{"Latin1Name", "fw\xE9.bin", L"fw\uFFFD.bin"}),
    [](const testing::TestParamInfo<DecodeCase>& info) { return info.param.name; });

TEST(Utf8Encode, RoundTripsWhatItDecoded) {
    const std::string bytes = "/dev/disk/by-id/ata-\xC3\xA9\xF0\x9F\x98\x80";
    std::string encoded;
    ASSERT_TRUE(encode_utf8(decode_utf8(bytes), encoded));
    EXPECT_EQ(encoded, bytes);
}

TEST(Utf8Encode, RefusesWhatNoPathCanHold) {
    std::string encoded;
    EXPECT_FALSE(encode_utf8(std::wstring(L"a") + static_cast<wchar_t>(0xD800), encoded));
    EXPECT_FALSE(encode_utf8(std::wstring(L"a") + static_cast<wchar_t>(0x110000), encoded));
    EXPECT_FALSE(encode_utf8(std::wstring(L"/dev/sda\0/etc", 13), encoded));
}

} // namespace
