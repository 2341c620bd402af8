// The simulated controller's side: requests built here from raw bytes, so that its checks stand
// on their own and do not lean on the program's records.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "sim/byte_order.hpp"
#include "sim/csmi_controller.hpp"
#include "sim/machine.hpp"

namespace {

using sim::read_le32;
using sim::write_le32;

// One controller on port 2 with an STP link on phy 5 of port 7, and phy 31 described;
// controllerExtra is spliced into the controller's object (", \"faults\": ...").
void load(const std::string& controllerExtra = "") {
    const std::string json = std::string(R"({"controllers": [{"port": 2, "driver": {"name": "qsas"},
      "phys": [{"phy": 5, "portIdentifier": 7,
                "attached": {"targetProtocol": 4, "sasAddress": "0000000500000000"}},
               {"phy": 31}])") +
                             controllerExtra + "}]}";
    std::string error;
    sim::reset_machine();
    ASSERT_TRUE(sim::load_machine(json, ".", error)) << error;
}

std::vector<std::uint8_t> request(std::uint32_t code, const char* signature, std::size_t bytes) {
    std::vector<std::uint8_t> buffer(bytes, 0);
    write_le32(buffer.data(), 0, 28);
    std::memcpy(&buffer[4], signature, 8);
    write_le32(buffer.data(), 12, 60);
    write_le32(buffer.data(), 16, code);
    write_le32(buffer.data(), 24, static_cast<std::uint32_t>(bytes - 28));
    return buffer;
}

struct Answer {
    bool ok;
    win32::DWORD error;
    std::uint32_t returnCode;
};

Answer send(std::vector<std::uint8_t>& buffer, const wchar_t* path = L"\\\\.\\SCSI2:") {
    const win32::HANDLE port =
        win32::CreateFileW(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                           nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_NE(port, INVALID_HANDLE_VALUE);
    win32::SetLastError(0);
    win32::DWORD returned = 0;
    const auto size = static_cast<win32::DWORD>(buffer.size());
    const bool ok = win32::DeviceIoControl(port, IOCTL_SCSI_MINIPORT, buffer.data(), size,
                                           buffer.data(), size, &returned, nullptr) != 0;
    const win32::DWORD error = win32::GetLastError();
    win32::CloseHandle(port);
    return {ok, error, read_le32(buffer.data(), 20)};
}

TEST(CsmiController, ChecksTheHeaderAsThePortDriverAndMiniportDo) {
    struct Case {
        const char* name;
        std::vector<std::uint8_t> buffer;
        Answer expected;
    };
    std::vector<Case> cases;
    cases.push_back({"well formed", request(1, "CSMIALL", 204), {true, 0, 0}});
    auto headerLength = request(1, "CSMIALL", 204);
    write_le32(headerLength.data(), 0, 32);
    cases.push_back({"header length", headerLength, {false, 1306, 0}});
    auto longer = request(1, "CSMIALL", 204);
    write_le32(longer.data(), 24, 177);
    cases.push_back({"length past the buffer", longer, {false, 87, 0}});
    cases.push_back({"short reply space", request(1, "CSMIALL", 200), {true, 0, 3}});
    cases.push_back({"foreign signature", request(1, "CSMIXYZ", 204), {false, 1, 0}});
    cases.push_back({"signature of the other group", request(20, "CSMIALL", 2080), {true, 0, 2}});
    cases.push_back({"unknown control code", request(99, "CSMISAS", 64), {true, 0, 2}});
    for (Case& c : cases) {
        SCOPED_TRACE(c.name);
        load();
        const Answer answer = send(c.buffer);
        EXPECT_EQ(answer.ok, c.expected.ok);
        EXPECT_EQ(answer.error, c.expected.error);
        if (answer.ok) {
            EXPECT_EQ(answer.returnCode, c.expected.returnCode);
        }
    }
}

TEST(CsmiController, AnswersTheDriverInformationAndPhyTableAtThePublishedOffsets) {
    load();
    auto info = request(1, "CSMIALL", 204);
    ASSERT_TRUE(send(info).ok);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&info[28])), "qsas");

    auto table = request(20, "CSMISAS", 2080);
    ASSERT_TRUE(send(table).ok);
    EXPECT_EQ(table[28], 32) << "highest phy described plus one";
    const std::uint8_t* phy5 = &table[32 + 64 * 5];
    EXPECT_EQ(phy5[20], 5);
    EXPECT_EQ(phy5[28], 7);
    EXPECT_EQ(phy5[39], 4);
    EXPECT_EQ(phy5[36 + 15], 5);
}

TEST(CsmiController, NthFaultFiresOnceAndOnwardKeepsFiring) {
    load(R"(, "faults": [{"code": 1, "nth": 2, "returnCode": 4},
                                    {"code": 2, "nth": 2, "onward": true, "error": 31}])");
    std::vector<std::uint32_t> driverInfo;
    std::vector<bool> config;
    for (int i = 0; i < 3; ++i) {
        auto info = request(1, "CSMIALL", 204);
        driverInfo.push_back(send(info).returnCode);
        auto cntlr = request(2, "CSMIALL", 208);
        config.push_back(send(cntlr).ok);
    }
    EXPECT_EQ(driverInfo, (std::vector<std::uint32_t>{0, 4, 0}));
    EXPECT_EQ(config, (std::vector<bool>{true, false, false}));
}

TEST(CsmiController, RejectsBadDescriptions) {
    const std::pair<const char*, const char*> cases[] = {
        {R"({"csmi": true})", "a controller needs a port number"},
        {R"({"port": 1, "phys": [{"phy": 32}]})", "phys[0].phy: 32 is above 31"},
        {R"({"port": 1, "phys": [{"phy": 0, "attached": {"sasAddress": "50"}}]})",
         "phys[0].attached.sasAddress: must be a text of 16 hexadecimal digits"},
        {R"({"port": 1, "phys": [{"phy": 0, "drive": "none"}]})",
         "phys[0].drive: no drive with id \"none\""},
        {R"({"port": 1, "phys": [{"phy": 0}, {"phy": 0}]})", "phys[1]: phy 0 is described twice"},
        {R"({"port": 1, "faults": [{"code": 25}]})",
         "faults[0]: needs an error or a returnCode that is not 0"},
        {R"({"port": 1, "speed": 6})", "unknown key \"speed\""},
    };
    sim::reset_machine();
    for (const auto& [json, message] : cases) {
        sim::CsmiController controller;
        std::string error;
        EXPECT_FALSE(sim::csmi_controller_from_json(nlohmann::json::parse(json), controller, error))
            << json;
        EXPECT_EQ(error, message);
    }
}

} // namespace
