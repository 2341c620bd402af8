// The image digest against published and independently computed values, at every length where
// the padding changes shape: one or two closing blocks.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "drive/sha256.hpp"

namespace {

std::vector<std::uint8_t> pattern(std::size_t count) {
    std::vector<std::uint8_t> bytes(count);
    for (std::size_t i = 0; i < count; ++i) {
        bytes[i] = static_cast<std::uint8_t>(i * 7 + 3);
    }
    return bytes;
}

TEST(Sha256, MatchesKnownDigestsAtEveryPaddingShape) {
    struct Case {
        std::vector<std::uint8_t> bytes;
        const char* digest;
    };
    const std::string abc = "abc";
    const std::string two = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
    const Case cases[] = {
        {{}, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {{abc.begin(), abc.end()},
         "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {{two.begin(), two.end()},
         "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {pattern(55), "e7313d333c272e639f790978283f9eb392e843d0f29b7016828bb1daa4aac70b"},
        {pattern(56), "4324d65f3c103567f5589c710bc08f8523f929a9272e3af36fc968e52abc6c27"},
        {pattern(63), "81c80242132f230c3bd41b3e63bbcff16107339549214a99614ff26664625055"},
        {pattern(64), "39e3d7b6b5d075d37d053ad89b24b41bef4f3c29760c84447cab3f3be1882241"},
        {pattern(65), "aacca6ff74fdbb296d165a45cecfa04e5127bc008770fbbdd48006f2d2fae95e"},
        {pattern(1000), "1e9bc38cbf860b9ec31918b065f9b52476c549a782e0e7990bed8ce3868d2371"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(sha256_hex(sha256(c.bytes.data(), c.bytes.size())), c.digest)
            << c.bytes.size() << " bytes";
    }
}

} // namespace
