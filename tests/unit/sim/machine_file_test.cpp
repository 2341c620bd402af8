// The machine file: real drives' IDENTIFY data returned byte for byte, the documented example,
// and errors that say where the file is wrong.
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "sim/identify_data.hpp"
#include "sim/machine_file.hpp"
#include "sim_fixture.hpp"

namespace simtest {
namespace {

const std::string kIdentifyDir = std::string(QUENMARK_TESTDATA) + "/identify";

std::vector<std::uint8_t> read_bytes(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(file),
                                     std::istreambuf_iterator<char>());
}

class SimMachineFile : public SimTest {};

TEST_F(SimMachineFile, RealDrivesIdentifyDataComeBackByteForByteOnBothWires) {
    for (const char* name :
         {"fujitsu-mhy2120bh-0084000d", "intel-ssdsa2mh080g1gc", "maxtor-96147h8",
          "samsung-860-evo-500gb", "samsung-mmcqe28g8mup", "seagate-st9160821as",
          "stardrive-sata-ssd", "toshiba-mk1651gsy", "wdc-wd5000aaks"}) {
        const std::vector<std::uint8_t> expected = read_bytes(kIdentifyDir + "/" + name + ".bin");
        ASSERT_EQ(expected.size(), 512u) << name;
        load(R"({"drives": [{"id": "real", "identifyFile": ")" + std::string(name) +
                 R"(.bin"}], "disks": [{"path": "\\\\.\\PhysicalDrive0", "drive": "real"}]})",
             kIdentifyDir);
        const win32::HANDLE handle = open();

        std::vector<std::uint8_t> viaSat(512);
        Sptd sat(ata16(4, false, true, {0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0xEC}), 1, 512,
                 viaSat.data());
        ASSERT_TRUE(send(handle, IOCTL_SCSI_PASS_THROUGH_DIRECT, sat.bytes));
        EXPECT_EQ(viaSat, expected) << name;

        std::vector<std::uint8_t> viaAta(512);
        Aptd ata(0x03, 512, viaAta.data(), {0, 1, 0, 0, 0, 0, 0xEC, 0});
        ASSERT_TRUE(send(handle, IOCTL_ATA_PASS_THROUGH_DIRECT, ata.bytes));
        EXPECT_EQ(viaAta, expected) << name;
    }
}

TEST_F(SimMachineFile, TheDocumentedExampleLoads) {
    const std::string folder =
        std::string(__FILE__).substr(0, std::string(__FILE__).rfind("/tests/")) + "/docs/examples";
    std::string error;
    ASSERT_TRUE(sim::load_machine_file(folder + "/machine.json", error)) << error;
    const sim::Machine& m = sim::machine();
    EXPECT_EQ(m.disks.size(), 4u);
    EXPECT_EQ(m.controllers.size(), 1u);
    ASSERT_TRUE(m.drives.at(0).deferred);
    EXPECT_EQ(m.drives[0].deferred->revision, "QS020001");
    EXPECT_EQ(sim::identify_word(m.drives.at(1).identify, 128), 0x0009);
    EXPECT_FALSE(m.drives[1].identifyLogSupported);
}

TEST_F(SimMachineFile, ABadFileSaysWhereItIsWrong) {
    const struct {
        std::string json;
        std::string error;
    } cases[] = {
        {"{", "not valid JSON"},
        {R"({"drive": []})", "machine: unknown key \"drive\""},
        {R"({"drives": [{"model": "X"}]})", "drives[0]: needs an \"id\" text"},
        {R"({"drives": [{"id": "a"}, {"id": "a"}]})", "drives[1].id: \"a\" is used twice"},
        {R"({"drives": [{"id": "a", "words": {"300": 1}}]})",
         "drives[0].words.300: 300 is above 255"},
        {R"({"drives": [{"id": "a", "words": {"80": "0xG"}}]})",
         "drives[0].words.80: \"0xG\" is not a number"},
        {R"({"drives": [{"id": "a", "firmware": "123456789"}]})",
         "drives[0].firmware: longer than 8"},
        {R"({"drives": [{"id": "a", "downloadModes": [4]}]})",
         "drives[0].downloadModes[0]: not one of"},
        {R"({"drives": [{"id": "a", "identifyFile": "none.bin"}]})",
         "drives[0].identifyFile: cannot read"},
        {R"({"drives": [{"id": "a", "identifyFile": "SOURCES.md"}]})", "bytes, not 512"},
        {R"({"disks": [{"path": "\\\\.\\PhysicalDrive0", "drive": "b"}]})",
         "disks[0].drive: no drive with id \"b\""},
        {R"({"disks": [{"drive": "b"}]})", "disks[0]: needs a \"path\" text"},
        {R"({"faults": {"calls": [{"function": "Sleep", "error": 1}]}})",
         "faults.calls[0].function: \"Sleep\" cannot fail"},
        {R"({"faults": {"calls": [{"error": "ERROR_NO_SUCH_THING"}]}})", "unknown error name"},
        {R"({"faults": {"commands": [{"status": 81}]}})",
         "faults.commands[0]: needs a \"command\" opcode"},
        {R"({"controllers": [{}]})", "controllers[0]: "},
    };
    for (const auto& c : cases) {
        std::string error;
        EXPECT_FALSE(sim::load_machine(c.json, kIdentifyDir, error)) << c.json;
        EXPECT_NE(error.find(c.error), std::string::npos) << c.json << "\n  gave: " << error;
        EXPECT_TRUE(sim::machine().drives.empty());
    }
}

} // namespace
} // namespace simtest
