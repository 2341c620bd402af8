#include "drive/download_firmware.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "drive/progress_line.hpp"
#include "platform/console.hpp"
#include "sim/machine.hpp"
#include "sim/microcode_image.hpp"
#include "transport/transport.hpp"

namespace {

namespace fs = std::filesystem;

constexpr char kMachine[] = R"({
  "drives": [{"id": "d0", "model": "QSIM TEST DRIVE", "serial": "QT00000042",
              "firmware": "QT010000", "enforceBlockLimits": false}],
  "disks": [{"path": "\\\\.\\PhysicalDrive0", "drive": "d0"}]
})";

const char kWarning[] =
    "\n\n\tPLEASE DO NOT CLOSE THIS WINDOW OR INTERRUPT THE FW DOWNLOAD PROCESS\n\n\n";

// One DOWNLOAD MICROCODE as the drive received it.
struct Sent {
    std::uint8_t features, count, lbaLow, lbaMid, lbaHigh;
    std::uint32_t length;
    bool dataOut;
};

bool operator==(const Sent& a, const Sent& b) {
    return a.features == b.features && a.count == b.count && a.lbaLow == b.lbaLow &&
           a.lbaMid == b.lbaMid && a.lbaHigh == b.lbaHigh && a.length == b.length &&
           a.dataOut == b.dataOut;
}

std::ostream& operator<<(std::ostream& out, const Sent& s) {
    return out << "{features " << int{s.features} << ", count " << int{s.count} << ", lbaLow "
               << int{s.lbaLow} << ", lbaMid " << int{s.lbaMid} << ", lbaHigh " << int{s.lbaHigh}
               << ", length " << s.length << (s.dataOut ? ", out}" : ", none}");
}

class DownloadFirmware : public ::testing::Test {
protected:
    void SetUp() override {
        sim::reset_machine();
        std::string error;
        ASSERT_TRUE(sim::load_machine(kMachine, "", error)) << error;
        context = make_device_context();
        ASSERT_EQ(open_device(context, L"\\\\.\\PhysicalDrive0"), Status::Success);
        folder = fs::temp_directory_path() /
                 ("quenmark-download-" +
                  std::to_string(::testing::UnitTest::GetInstance()->random_seed()) + "-" +
                  ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::create_directories(folder);
        console::reset_stream_state();
        console::set_sinks([this](const char* b, std::size_t n) { out.append(b, n); },
                           [this](const char* b, std::size_t n) { err.append(b, n); });
    }
    void TearDown() override {
        console::reset_sinks();
        console::reset_stream_state();
        std::error_code ignored;
        fs::remove_all(folder, ignored);
    }

    // A valid image for the simulated drive, carrying revision.
    std::wstring write_image(const std::string& name, std::uint32_t size,
                             const std::string& revision = "QT020000") {
        return write_bytes(name, sim::make_image(revision, size));
    }
    std::wstring write_bytes(const std::string& name, const std::vector<std::uint8_t>& bytes) {
        const fs::path path = folder / name;
        std::ofstream file(path, std::ios::binary);
        file.write(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
        return path.wstring();
    }

    Status download(const std::wstring& file, std::uint8_t mode, std::uint8_t segmentBlocks) {
        DownloadRequest request{};
        file.copy(request.fileName, kPathUnits - 1);
        request.downloadMode = mode;
        request.segmentBlocks = segmentBlocks;
        return download_firmware(context, request);
    }

    static std::vector<Sent> sent() {
        std::vector<Sent> commands;
        for (const sim::CallRecord& call : sim::machine().log) {
            for (const sim::AtaRecord& ata : call.ata) {
                const sim::AtaCommand& c = ata.command;
                EXPECT_EQ(c.command, 0x92);
                EXPECT_EQ(c.device, 0x40);
                EXPECT_FALSE(c.ext48);
                commands.push_back({c.features, c.count, c.lbaLow, c.lbaMid, c.lbaHigh, ata.length,
                                    ata.phase == sim::DataPhase::Out});
            }
        }
        return commands;
    }

    static std::string revision() {
        return sim::firmware_revision(*sim::find_drive(sim::machine(), "d0"));
    }

    void clear_log() { sim::machine().log.clear(); }

    DeviceContext context;
    fs::path folder;
    std::string out;
    std::string err;
};

// The registers of every command: block count in Count and LBA Low, block offset in LBA Mid
// and LBA High, the exact byte length, and no data phase for the activation.
TEST_F(DownloadFirmware, SendsOneCommandPerTransferWithCountOffsetAndLength) {
    struct Case {
        const char* name;
        std::uint32_t size;
        std::uint8_t mode;
        std::uint8_t segmentBlocks;
        std::vector<Sent> expected;
    };
    const std::vector<Case> cases = {
        {"immediate 1 MiB", 1048576, 0x07, 64, {{0x07, 0x00, 0x08, 0, 0, 1048576, true}}},
        {"deferred 100000 by 64",
         100000,
         0x0E,
         64,
         {{0x0E, 0x40, 0, 0x00, 0, 32768, true},
          {0x0E, 0x40, 0, 0x40, 0, 32768, true},
          {0x0E, 0x40, 0, 0x80, 0, 32768, true},
          {0x0E, 3, 0, 0xC0, 0, 1696, true}}},
        {"segmented 300000 by 200",
         300000,
         0x03,
         200,
         {{0x03, 200, 0, 0, 0, 102400, true},
          {0x03, 200, 0, 200, 0, 102400, true},
          {0x03, 185, 0, 0x90, 0x01, 95200, true}}},
        {"smaller than one segment", 1000, 0x03, 64, {{0x03, 1, 0, 0, 0, 1000, true}}},
        // A size that is no multiple of 512: the block count is rounded down, the length exact.
        {"segmented 400000 by 255",
         400000,
         0x03,
         255,
         {{0x03, 0xFF, 0, 0x00, 0x00, 130560, true},
          {0x03, 0xFF, 0, 0xFF, 0x00, 130560, true},
          {0x03, 0xFF, 0, 0xFE, 0x01, 130560, true},
          {0x03, 16, 0, 0xFD, 0x02, 8320, true}}},
    };
    int number = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        clear_log();
        // The drive takes the image only when every transfer carried its own slice of the file,
        // in order; a new revision per case shows that it did.
        const std::string newRevision = "QTNEW00" + std::to_string(++number);
        const std::wstring file = write_image("fw.bin", c.size, newRevision);
        EXPECT_EQ(download(file, c.mode, c.segmentBlocks), Status::Success);
        EXPECT_EQ(sent(), c.expected);
        const sim::Drive& drive = *sim::find_drive(sim::machine(), "d0");
        if (c.mode == 0x0E) {
            ASSERT_TRUE(drive.deferred.has_value());
            EXPECT_EQ(drive.deferred->revision, newRevision);
        } else {
            EXPECT_EQ(revision(), newRevision);
        }
        EXPECT_EQ(context.timeoutSeconds, 5u);
        EXPECT_EQ(context.commandWidth, 1u);
    }
}

// Deferred, then activated: the activation reads the same file, sends one command with no data
// phase whose block count is the whole image, and says so.
TEST_F(DownloadFirmware, ActivationSendsNoDataAndReportsCompletion) {
    const std::wstring file = write_image("fw.bin", 2097152, "QTACT001");
    ASSERT_EQ(download(file, 0x0E, 64), Status::Success);
    EXPECT_EQ(revision(), "QT010000");
    clear_log();
    out.clear();

    EXPECT_EQ(download(file, 0x0F, 0), Status::Success);
    EXPECT_EQ(sent(), (std::vector<Sent>{{0x0F, 0x00, 0x10, 0, 0, 0, false}}));
    EXPECT_EQ(out, std::string(kWarning) + "Activate Completed ...\n");
    EXPECT_EQ(revision(), "QTACT001");
    EXPECT_EQ(context.dataDirection, 0u);
}

TEST_F(DownloadFirmware, VerbosePlanPrecedesWarningAndLeavesUpperCaseHexOn) {
    const std::wstring file = write_image("fw.bin", 100000);
    context.verbose = 1;
    EXPECT_EQ(download(file, 0x0E, 64), Status::Success);
    const std::string plan = "  ----------------------- \n"
                             "   Downloading Code \n"
                             "  Mode : 0x0E\n"
                             "  File Size: 100000\n"
                             "  Number of Xfers: 3\n"
                             "  Sectors Xfered with Each Xfer: 64\n"
                             "  Data in Bytes per Xfer: 32768\n"
                             "  Remainder Bytes to Xfer: 1696\n"
                             "  -----------------------\n\n\n";
    ASSERT_GE(out.size(), plan.size() + sizeof kWarning - 1);
    EXPECT_EQ(out.substr(0, plan.size() + sizeof kWarning - 1), plan + kWarning);
    EXPECT_EQ(out.substr(out.size() - 9), " : 66% ! ");

    const std::ios_base::fmtflags flags = console::out().flags();
    EXPECT_TRUE(flags & std::ios_base::uppercase);
    EXPECT_TRUE(flags & std::ios_base::dec);
    EXPECT_FALSE(flags & std::ios_base::hex);
}

// With 100 transfers the line after transfer 53 shows 52 % and the one after 54 shows 54 %;
// 1 % is shown as 0 while its bar still counts it.
TEST_F(DownloadFirmware, ProgressShowsSinglePrecisionPercentages) {
    const std::wstring file = write_image("fw.bin", 100 * 512);
    EXPECT_EQ(download(file, 0x03, 1), Status::Success);
    std::vector<std::string> shown;
    for (std::size_t at = out.find('\r'); at != std::string::npos;) {
        const std::size_t next = out.find('\r', at + 1);
        const std::string line = out.substr(at, next - at);
        shown.push_back(line.substr(line.find(" : ") + 3));
        at = next;
    }
    ASSERT_EQ(shown.size(), 100u);
    EXPECT_EQ(shown[0], "0%");
    EXPECT_EQ(shown[1], "0%");
    EXPECT_EQ(shown[2], "2%");
    EXPECT_EQ(shown[53], "52%");
    EXPECT_EQ(shown[54], "54%");
    EXPECT_EQ(shown[99], "99%");
}

TEST_F(DownloadFirmware, SpinnerCarriesOnAcrossCalls) {
    const std::wstring file = write_image("fw.bin", 3 * 512);
    std::string spinners;
    for (int call = 0; call < 3; ++call) {
        out.clear();
        ASSERT_EQ(download(file, 0x03, 1), Status::Success);
        for (std::size_t at = out.find('\r'); at != std::string::npos;
             at = out.find('\r', at + 1)) {
            spinners.push_back(out[out.find(' ', at) + 1]);
        }
    }
    ASSERT_EQ(spinners.size(), 9u);
    const std::string cycle = "/\xC4\\|";
    const std::size_t start = cycle.find(spinners[0]);
    ASSERT_NE(start, std::string::npos);
    for (std::size_t i = 0; i < spinners.size(); ++i) {
        EXPECT_EQ(spinners[i], cycle[(start + i) % 4]) << i;
    }
}

TEST_F(DownloadFirmware, LargestImageGoesInOneCommandWithAllSixteenBitsOfCount) {
    const std::wstring file = write_bytes("largest.bin", {});
    fs::resize_file(folder / "largest.bin", 33553920);
    // The drive acknowledges without judging the (all-zero) image.
    sim::CommandFault acknowledge;
    acknowledge.command = 0x92;
    acknowledge.status = 0x50;
    acknowledge.error = 0;
    sim::machine().faults.commands.push_back(acknowledge);
    EXPECT_EQ(download(file, 0x07, 64), Status::Success);
    EXPECT_EQ(sent(), (std::vector<Sent>{{0x07, 0xFF, 0xFF, 0, 0, 33553920, true}}));
}

// A file that reports more bytes than it delivers (a sysfs attribute reports a page) would send
// zeros as firmware.
TEST_F(DownloadFirmware, RefusesAFileThatIsNotReadWhole) {
    const fs::path attribute = "/sys/kernel/mm/transparent_hugepage/enabled";
    std::error_code error;
    if (!fs::is_regular_file(attribute, error) || fs::file_size(attribute, error) <= 512) {
        GTEST_SKIP() << "no sysfs attribute that reports more than it holds";
    }
    EXPECT_EQ(download(attribute.wstring(), 0x07, 64), Status::BadFirmwareFile);
    EXPECT_EQ(err, "Firmware file could not be read whole: " + attribute.string() + "\n");
    EXPECT_EQ(out, "");
    EXPECT_TRUE(sent().empty());
}

// Registers the command does not use keep what the previous command left there.
TEST_F(DownloadFirmware, LeavesTheExtendedRegistersAlone) {
    const std::wstring file = write_image("fw.bin", 1024);
    context.registers.featuresExt = 0x12;
    context.registers.countExt = 0x34;
    context.registers.lbaHighExt = 0x56;
    EXPECT_EQ(download(file, 0x07, 64), Status::Success);
    EXPECT_EQ(context.registers.featuresExt, 0x12);
    EXPECT_EQ(context.registers.countExt, 0x34);
    EXPECT_EQ(context.registers.lbaHighExt, 0x56);
}

} // namespace
