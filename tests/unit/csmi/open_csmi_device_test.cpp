// Selecting a drive behind the controller: which phy entry ends up in the context, what is
// written back to the phy number, and what is printed.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "csmi/csmi.hpp"
#include "unit/csmi/csmi_machine.hpp"
#include "unit/support/console_capture.hpp"

namespace {

constexpr std::uint8_t kNone[8] = {};
constexpr std::uint8_t kWide[8] = {0, 0, 0, 5, 0, 0, 0, 0};
constexpr std::uint8_t kSas[8] = {0x50, 0, 0, 0, 0, 0, 0x0c, 0x03};
constexpr std::uint8_t kExpander[8] = {0x50, 0, 0, 0, 0, 0, 0x0e, 0x05};

struct SelectionCase {
    const char* name;
    std::int32_t phyNumber;
    const std::uint8_t* address;
    std::int32_t verbose;
    Status status;
    std::int32_t phyAfter;
    const char* out;
};

TEST(OpenCsmiDevice, SelectsByPhyOrByAttachedAddress) {
    const SelectionCase cases[] = {
        {"SATA phy by number", 0, kNone, 1, Status::Success, 0,
         "CSMI_SAS_PROTOCOL_SATA supported for Phy: 0\n\n"},
        {"last table entry", 31, kNone, 0, Status::Success, 31, ""},
        {"wide port: the last match wins", -1, kWide, 1, Status::Success, 5,
         "SAS Address for Phy: 4 match.\n\nSAS Address for Phy: 5 match.\n\n"
         "CSMI_SAS_PROTOCOL_STP supported for Phy: 5\n\n"},
        {"SAS target matches, then fails", -1, kSas, 1, Status::Failed, 1,
         "SAS Address for Phy: 1 match.\n\nCSMI_SAS_PROTOCOL_SSP supported for Phy: 1\n"},
        {"SAS target quietly", 1, kNone, 0, Status::Failed, 1, ""},
        {"expander never matches", -1, kExpander, 0, Status::Failed, -1,
         "Device Opened but SAS Address does not match any attached phy \n"},
        {"expander by number", 3, kNone, 0, Status::Failed, 3, "Uknown Protocol 2 for Phy: 3\n"},
        {"empty entry", 2, kNone, 0, Status::Failed, 2, "Device Opened but Phy 2 not valid.\n"},
        {"beyond the table", 32, kNone, 0, Status::Failed, 32,
         "Device Opened but Phy 32 not valid.\n"},
        {"far beyond the table", 2147483647, kNone, 0, Status::Failed, 2147483647,
         "Device Opened but Phy 2147483647 not valid.\n"},
    };
    for (const SelectionCase& c : cases) {
        SCOPED_TRACE(c.name);
        csmi_test::load();
        DeviceContext context = make_device_context();
        context.verbose = c.verbose;
        std::int32_t phy = c.phyNumber;
        std::uint8_t address[8];
        std::memcpy(address, c.address, 8);
        ConsoleCapture console;
        EXPECT_EQ(open_csmi_device(context, L"\\\\.\\SCSI2:", phy, address), c.status);
        EXPECT_EQ(phy, c.phyAfter);
        EXPECT_EQ(console.out, c.out);
        EXPECT_NE(context.handle, INVALID_HANDLE_VALUE);
    }
}

TEST(OpenCsmiDevice, CopiesTheWholeEntryOfTheSelectedPhy) {
    csmi_test::load();
    DeviceContext context = make_device_context();
    std::int32_t phy = -1;
    ASSERT_EQ(open_csmi_device(context, L"\\\\.\\SCSI2:", phy, kWide), Status::Success);
    const std::vector<std::uint8_t>& table = csmi_test::controller().lastRequest;
    ASSERT_EQ(table.size(), 2080u);
    // lastRequest is the table request as the driver received it; the entry is the reply's.
    EXPECT_EQ(context.phyEntity[0], 0x10);
    EXPECT_EQ(context.phyEntity[20], 5);                         // Identify.bPhyIdentifier
    EXPECT_EQ(context.phyEntity[28], 7);                         // bPortIdentifier
    EXPECT_EQ(context.phyEntity[39], 4);                         // Attached.bTargetPortProtocol
    EXPECT_EQ(std::memcmp(context.phyEntity + 48, kWide, 8), 0); // Attached.bSASAddress
    EXPECT_EQ(sim::read_le32(table.data(), 24), 2052u);
    EXPECT_EQ(sim::read_le32(table.data(), 16), 20u);
}

TEST(OpenCsmiDevice, OptionLTakesTheTypedAddressWithoutTheTable) {
    csmi_test::load();
    DeviceContext context = make_device_context();
    context.optionL = 1;
    std::int32_t phy = 7; // ignored
    const std::uint8_t typed[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    ConsoleCapture console;
    ASSERT_EQ(open_csmi_device(context, L"\\\\.\\SCSI2:", phy, typed), Status::Success);
    EXPECT_EQ(phy, 7);
    EXPECT_EQ(console.out, "");
    std::uint8_t expected[64] = {};
    std::memcpy(expected + 12, typed, 8);
    std::memcpy(expected + 48, typed, 8);
    EXPECT_EQ(std::memcmp(context.phyEntity, expected, 64), 0);
}

TEST(OpenCsmiDevice, PortFailuresNameThePath) {
    csmi_test::load(R"(, "faults": [{"code": 20, "error": "ERROR_INVALID_FUNCTION"}])");
    DeviceContext context = make_device_context();
    std::int32_t phy = 0;
    ConsoleCapture console;
    EXPECT_EQ(open_csmi_device(context, L"\\\\.\\SCSI7:", phy, kNone), Status::Failed);
    EXPECT_EQ(context.handle, INVALID_HANDLE_VALUE);
    EXPECT_EQ(context.lastError, 2u);
    EXPECT_EQ(open_csmi_device(context, L"\\\\.\\SCSI2:", phy, kNone), Status::Failed);
    EXPECT_EQ(context.lastError, 0u) << "the open's value stays; the table request's is not kept";
    EXPECT_EQ(console.out, "Error: Opening Device \\\\.\\SCSI7:\n"
                           "Could not get CSMI phy information for \\\\.\\SCSI2:\n");
}

} // namespace
