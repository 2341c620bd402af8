// What Debian 12's kernel (6.1) and Debian 13's (6.12) really wrote back for the /T: commands,
// byte for byte: the QEMU suite's sense captures (tests/qemu/expected/sense-*; a kernel's own
// file where it answered differently), read by the sense parser.
#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "platform/linux/ata_sense.hpp"

namespace {

using linux_backend::AtaSenseVerdict;
using linux_backend::read_ata_sense;

struct Captured {
    std::string scsiStatus;
    std::vector<std::uint8_t> sense;
};

// "identify status=02 host=0000 driver=0008 resid=0 sense=70 00 0b ..." by command name; a
// command that appears twice keeps its first line.
std::map<std::string, Captured> read_capture(const std::string& capture,
                                             const std::string& kernel) {
    const std::string base = std::string(QUENMARK_QEMU_EXPECTED) + "/" + capture + "/";
    std::ifstream file(base + kernel + "/stdout");
    if (!file) {
        file.open(base + "stdout");
    }
    std::map<std::string, Captured> lines;
    std::string line;
    while (std::getline(file, line)) {
        std::istringstream words(line);
        std::string name;
        std::string word;
        Captured captured;
        words >> name;
        while (words >> word) {
            if (word.rfind("status=", 0) == 0) {
                captured.scsiStatus = word.substr(7);
            } else if (word.rfind("sense=", 0) == 0) {
                if (word.size() > 6) {
                    captured.sense.push_back(
                        static_cast<std::uint8_t>(std::stoul(word.substr(6), nullptr, 16)));
                }
                while (words >> word) {
                    captured.sense.push_back(
                        static_cast<std::uint8_t>(std::stoul(word, nullptr, 16)));
                }
            }
        }
        lines.emplace(name, captured);
    }
    return lines;
}

struct KernelCase {
    const char* kernel;
    const char* capture;
    const char* command;
    std::uint8_t status; // the drive's Status register as read from the sense data
    std::uint8_t error;
    std::uint8_t lbaLow;
    std::uint8_t lbaMid;
    std::uint8_t lbaHigh;
};

class KernelSense : public testing::TestWithParam<KernelCase> {};

TEST_P(KernelSense, RegistersOfTheCommandTheDriveEnded) {
    const KernelCase& c = GetParam();
    const auto lines = read_capture(c.capture, c.kernel);
    const auto found = lines.find(c.command);
    ASSERT_NE(found, lines.end()) << c.capture << " has no line for " << c.command;
    ASSERT_EQ(found->second.scsiStatus, "02") << "CHECK CONDITION expected";
    const std::vector<std::uint8_t>& sense = found->second.sense;
    ASSERT_FALSE(sense.empty());

    const auto reading = read_ata_sense(sense.data(), sense.size());
    ASSERT_EQ(reading.verdict, AtaSenseVerdict::TaskFile);
    EXPECT_EQ(reading.current[6], c.status);
    EXPECT_EQ(reading.current[0], c.error);
    EXPECT_EQ(reading.current[2], c.lbaLow);
    EXPECT_EQ(reading.current[3], c.lbaMid);
    EXPECT_EQ(reading.current[4], c.lbaHigh);
}

INSTANTIATE_TEST_SUITE_P(
    Captures, KernelSense,
    testing::Values(
        // QEMU's AHCI quirk: IDENTIFY with CK_COND delivers its data but ends with DRQ set.
        KernelCase{"6.1", "sense-ahci-sda", "identify", 0x58, 0x00, 0, 0, 0},
        KernelCase{"6.12", "sense-ahci-sda", "identify", 0x58, 0x00, 0, 0, 0},
        // READ LOG EXT and DOWNLOAD MICROCODE aborted by the disk. 6.1 writes only LBA (7:0);
        // 6.12 writes LBA (15:8) too (the page number, 3).
        KernelCase{"6.1", "sense-ahci-sda", "read-log", 0x41, 0x04, 0x30, 0, 0},
        KernelCase{"6.12", "sense-ahci-sda", "read-log", 0x41, 0x04, 0x30, 0x03, 0},
        KernelCase{"6.1", "sense-ahci-sda", "download", 0x41, 0x04, 0, 0, 0},
        KernelCase{"6.12", "sense-ahci-sda", "download", 0x41, 0x04, 0, 0, 0},
        // The ATAPI CD-ROM aborts IDENTIFY DEVICE and shows its signature in LBA (15:8) and
        // (23:16); 6.1 writes only LBA (7:0). 6.12 keeps the CD-ROM's own sense data,
        // ILLEGAL REQUEST 24/00 left from the INQUIRY before, with VALID and the registers.
        KernelCase{"6.1", "sense-cd-sr0", "identify", 0x41, 0x04, 0x01, 0, 0},
        KernelCase{"6.12", "sense-cd-sr0", "identify", 0x41, 0x04, 0x01, 0x14, 0xEB},
        KernelCase{"6.1", "sense-cd-sr0", "download", 0x41, 0x04, 0, 0, 0},
        KernelCase{"6.12", "sense-cd-sr0", "download", 0x41, 0x04, 0, 0, 0}),
    [](const testing::TestParamInfo<KernelCase>& info) {
        std::string name =
            std::string(info.param.capture) + "_" + info.param.command + "_" + info.param.kernel;
        for (char& c : name) {
            if (c == '-' || c == '.') {
                c = '_';
            }
        }
        return name;
    });

// The default interface sends IDENTIFY DEVICE without CK_COND. When the drive aborts it, 6.1
// answers CHECK CONDITION; 6.12 answers GOOD with no data but writes the abort into the sense
// data, which the backend then reports as the CHECK CONDITION it is. A disk that completes the
// command writes no sense data.
TEST(KernelSense, GoodStatusHidingAnAbortIsFound) {
    struct Case {
        const char* kernel;
        const char* capture;
        const char* scsiStatus;
        bool hiddenError;
    };
    const Case cases[] = {
        {"6.12", "sense-cd-sr0", "00", true},
        {"6.1", "sense-cd-sr0", "02", false},
        {"6.1", "sense-ahci-sda", "00", false},
        {"6.12", "sense-ahci-sda", "00", false},
    };
    for (const Case& c : cases) {
        const auto lines = read_capture(c.capture, c.kernel);
        const auto found = lines.find("identify-no-ck-cond");
        ASSERT_NE(found, lines.end()) << c.capture << " " << c.kernel;
        EXPECT_EQ(found->second.scsiStatus, c.scsiStatus) << c.capture << " " << c.kernel;
        const std::vector<std::uint8_t>& sense = found->second.sense;
        EXPECT_EQ(linux_backend::sense_shows_ata_error(sense.data(), sense.size()), c.hiddenError)
            << c.capture << " " << c.kernel;
    }
}

} // namespace
