// The SAT bridge behind IOCTL_SCSI_PASS_THROUGH_DIRECT, driven with request bytes built here.
#include <memory>
#include <string>
#include <vector>

#include "sim/identify_data.hpp"
#include "sim_fixture.hpp"

namespace simtest {
namespace {

constexpr std::uint8_t kDataOut = 0;
constexpr std::uint8_t kDataIn = 1;
constexpr std::uint8_t kDataUnspecified = 2;

class SimSatBridge : public SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        load(one_drive());
        handle = open();
    }
    Sptd sendInquiry(bool evpd, std::uint8_t page, std::uint16_t allocation, std::uint32_t length) {
        data.assign(length, 0);
        Sptd request({0x12, static_cast<std::uint8_t>(evpd ? 1 : 0), page,
                      static_cast<std::uint8_t>(allocation >> 8),
                      static_cast<std::uint8_t>(allocation), 0},
                     kDataIn, length, data.data());
        EXPECT_TRUE(send(handle, IOCTL_SCSI_PASS_THROUGH_DIRECT, request.bytes));
        return request;
    }
    win32::HANDLE handle = nullptr;
    std::vector<std::uint8_t> data;
};

const std::array<std::uint8_t, 12> kIdentify = {0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0xEC};

TEST_F(SimSatBridge, StandardInquiryNamesTheDriveAsLibataDoes) {
    const Sptd reply = sendInquiry(false, 0, 252, 252);
    EXPECT_EQ(reply.scsiStatus(), 0x00);
    EXPECT_EQ(reply.transferred(), 96u);
    EXPECT_EQ(data[0], 0x00);
    EXPECT_EQ(std::string(data.begin() + 8, data.begin() + 16), "ATA     ");
    EXPECT_EQ(std::string(data.begin() + 16, data.begin() + 32), "QSIM UNIT TEST D");
    EXPECT_EQ(std::string(data.begin() + 32, data.begin() + 36), "0001");
}

TEST_F(SimSatBridge, InquiryRevisionFallsBackToTheFirstFourCharactersWhenTheLastAreBlank) {
    const struct {
        const char* firmware;
        const char* revision;
    } cases[] = {{"QU010001", "0001"}, {"LD001D", "1D  "}, {"3.CLH", "H   "}, {"ABCD", "ABCD"}};
    for (const auto& c : cases) {
        load(one_drive(std::string(R"("firmware": ")") + c.firmware + "\""));
        handle = open();
        sendInquiry(false, 0, 252, 252);
        EXPECT_EQ(std::string(data.begin() + 32, data.begin() + 36), c.revision) << c.firmware;
    }
}

TEST_F(SimSatBridge, UnitSerialNumberPageHoldsTheTwentySerialCharacters) {
    const Sptd reply = sendInquiry(true, 0x80, 252, 252);
    EXPECT_EQ(reply.transferred(), 24u);
    const std::vector<std::uint8_t> header = {0x00, 0x80, 0x00, 20};
    EXPECT_EQ(std::vector<std::uint8_t>(data.begin(), data.begin() + 4), header);
    EXPECT_EQ(std::string(data.begin() + 4, data.begin() + 24), "QU0000000001        ");
}

TEST_F(SimSatBridge, InquiryMovesNoMoreThanTheAllocationAndTheBuffer) {
    EXPECT_EQ(sendInquiry(false, 0, 36, 252).transferred(), 36u);
    EXPECT_EQ(sendInquiry(false, 0, 252, 20).transferred(), 20u); // exactly 20 bytes allocated
}

void expect_illegal_request(const Sptd& reply, std::uint8_t asc) {
    EXPECT_EQ(reply.scsiStatus(), 0x02);
    EXPECT_EQ(reply.senseLength(), 18);
    EXPECT_EQ(reply.sense()[0], 0x70);
    EXPECT_EQ(reply.sense()[2], 0x05);
    EXPECT_EQ(reply.sense()[12], asc);
    EXPECT_EQ(reply.transferred(), 0u);
}

TEST_F(SimSatBridge, OtherPagesAndOperationCodesAreIllegalRequests) {
    expect_illegal_request(sendInquiry(true, 0x83, 252, 252), 0x24);
    expect_illegal_request(sendInquiry(false, 0x80, 252, 252), 0x24);
    for (const std::uint8_t opcode : {0x00, 0x25, 0xA1}) {
        Sptd request({opcode, 0, 0, 0, 0, 0}, kDataUnspecified, 0, nullptr);
        ASSERT_TRUE(send(handle, IOCTL_SCSI_PASS_THROUGH_DIRECT, request.bytes));
        expect_illegal_request(request, 0x20);
    }
}

TEST_F(SimSatBridge, IdentifyDeviceComesBackWholeWithGoodStatus) {
    std::uint8_t identify[512] = {};
    Sptd request(ata16(4, false, true, kIdentify), kDataIn, 512, identify);
    win32::DWORD returned = 0;
    ASSERT_TRUE(send(handle, IOCTL_SCSI_PASS_THROUGH_DIRECT, request.bytes, &returned));
    EXPECT_EQ(request.scsiStatus(), 0x00);
    EXPECT_EQ(request.transferred(), 512u);
    EXPECT_EQ(request.senseLength(), 0);
    EXPECT_EQ(returned, 56u);
    EXPECT_EQ(0, std::memcmp(identify, sim::machine().drives[0].identify.data(), 512));
}

TEST_F(SimSatBridge, AShortBufferGetsOnlyItsLength) {
    auto buffer = std::make_unique<std::uint8_t[]>(100); // the sanitizers watch its end
    Sptd request(ata16(4, false, true, kIdentify), kDataIn, 100, buffer.get());
    ASSERT_TRUE(send(handle, IOCTL_SCSI_PASS_THROUGH_DIRECT, request.bytes));
    EXPECT_EQ(request.transferred(), 100u);
    EXPECT_EQ(0, std::memcmp(buffer.get(), sim::machine().drives[0].identify.data(), 100));
}

TEST_F(SimSatBridge, AnAbortedCommandIsCheckConditionWithTheAtaRegistersInTheSense) {
    // SMART RETURN STATUS is not a command the drive knows.
    Sptd request(ata16(3, false, false, {0, 0xDA, 0, 3, 0, 0, 0, 0x4F, 0, 0xC2, 0x40, 0xB0}),
                 kDataUnspecified, 0, nullptr);
    win32::DWORD returned = 0;
    ASSERT_TRUE(send(handle, IOCTL_SCSI_PASS_THROUGH_DIRECT, request.bytes, &returned));
    EXPECT_EQ(request.scsiStatus(), 0x02);
    const std::vector<std::uint8_t> sense = {0x70, 0,    0x0B, 0, 0, 0, 0, 0x0A, 0x04,
                                             0x51, 0x40, 0x03, 0, 0, 0, 0, 0,    0};
    EXPECT_EQ(std::vector<std::uint8_t>(request.sense(), request.sense() + 18), sense);
    EXPECT_EQ(request.senseLength(), 18);
    EXPECT_EQ(returned, 56u + 18u);
}

TEST_F(SimSatBridge, SenseDataNeverPassTheSenseInfoLength) {
    Sptd request(ata16(3, false, false, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xE5}), kDataUnspecified,
                 0, nullptr);
    request.bytes[7] = 8;
    std::fill(request.bytes.begin() + 56, request.bytes.end(), 0xCC);
    win32::DWORD returned = 0;
    ASSERT_TRUE(send(handle, IOCTL_SCSI_PASS_THROUGH_DIRECT, request.bytes, &returned));
    EXPECT_EQ(request.senseLength(), 8);
    EXPECT_EQ(returned, 64u);
    EXPECT_EQ(request.sense()[2], 0x0B);
    EXPECT_EQ(request.sense()[8], 0xCC);
}

TEST_F(SimSatBridge, CheckConditionRequestedOnSuccessCarriesTheAtaStatusReturnDescriptor) {
    std::uint8_t identify[512];
    Sptd request(ata16(4, false, true, kIdentify, true), kDataIn, 512, identify);
    ASSERT_TRUE(send(handle, IOCTL_SCSI_PASS_THROUGH_DIRECT, request.bytes));
    EXPECT_EQ(request.scsiStatus(), 0x02);
    const std::vector<std::uint8_t> sense = {0x72, 0x01, 0x00, 0x1D, 0, 0, 0, 14, 0x09, 0x0C, 0,
                                             0,    0,    1,    0,    0, 0, 0, 0,  0,    0,    0x50};
    EXPECT_EQ(std::vector<std::uint8_t>(request.sense(), request.sense() + 22), sense);
    EXPECT_EQ(request.transferred(), 512u);
}

TEST_F(SimSatBridge, ExtBytesReachTheDriveOnlyWithExtend) {
    // READ LOG EXT of log 0x30 page 3, with 0x01 in the LBA (39:32) byte: page 0x103 with
    // EXTEND, which the drive does not have; page 3 without.
    const std::array<std::uint8_t, 12> registers = {0, 0, 0, 1, 0, 0x30, 0x01, 0x03, 0, 0, 0, 0x2F};
    std::uint8_t page[512];
    Sptd extended(ata16(4, true, true, registers), kDataIn, 512, page);
    ASSERT_TRUE(send(handle, IOCTL_SCSI_PASS_THROUGH_DIRECT, extended.bytes));
    EXPECT_EQ(extended.scsiStatus(), 0x02);
    Sptd plain(ata16(4, false, true, registers), kDataIn, 512, page);
    ASSERT_TRUE(send(handle, IOCTL_SCSI_PASS_THROUGH_DIRECT, plain.bytes));
    EXPECT_EQ(plain.scsiStatus(), 0x00);
    EXPECT_EQ(page[2], 0x03); // the page header names page 3
}

TEST_F(SimSatBridge, ProtocolsThatContradictTheDataPhaseNeverReachTheDrive) {
    std::uint8_t buffer[512];
    const struct {
        std::uint8_t protocol;
        bool toHost;
        std::uint8_t dataIn;
        std::uint32_t length;
    } cases[] = {
        {4, false, kDataIn, 512},         // PIO data-in without T_DIR
        {5, true, kDataOut, 512},         // PIO data-out with T_DIR
        {4, true, kDataOut, 512},         // data-in protocol, data-out buffer
        {5, false, kDataIn, 512},         // data-out protocol, data-in buffer
        {3, false, kDataIn, 512},         // non-data with a data phase
        {0, false, kDataUnspecified, 0},  // hard reset
        {12, false, kDataUnspecified, 0}, // FPDMA
    };
    for (const auto& c : cases) {
        Sptd request(ata16(c.protocol, false, c.toHost, kIdentify), c.dataIn, c.length, buffer);
        ASSERT_TRUE(send(handle, IOCTL_SCSI_PASS_THROUGH_DIRECT, request.bytes));
        expect_illegal_request(request, 0x24);
        EXPECT_TRUE(last_commands().empty()) << int{c.protocol};
    }
}

TEST_F(SimSatBridge, PioDataOutWithoutDataReachesTheDriveAsANonDataCommand) {
    // DOWNLOAD MICROCODE activate, sent as the tool sends it: PIO data-out, no data phase.
    Sptd request(ata16(5, false, false, {0, 0x0F, 0, 0, 0, 0x10, 0, 0, 0, 0, 0x40, 0x92}),
                 kDataUnspecified, 0, nullptr);
    ASSERT_TRUE(send(handle, IOCTL_SCSI_PASS_THROUGH_DIRECT, request.bytes));
    ASSERT_EQ(last_commands().size(), 1u);
    EXPECT_EQ(last_commands()[0].phase, sim::DataPhase::None);
    EXPECT_EQ(last_commands()[0].command.features, 0x0F);
    EXPECT_EQ(request.scsiStatus(), 0x02); // nothing deferred to activate
}

TEST_F(SimSatBridge, MalformedRequestsAreRefusedBeforeTheAdapter) {
    load(one_drive("", R"("maxTransferBytes": 4096)"));
    handle = open();
    std::vector<std::uint8_t> buffer(8192);
    const auto identify = [&](std::uint32_t length) {
        return Sptd(ata16(4, false, true, kIdentify), kDataIn, length, buffer.data());
    };
    struct Case {
        const char* what;
        void (*change)(Sptd&);
    } cases[] = {
        {"Length 44", [](Sptd& r) { put16(r.bytes.data(), 0, 44); }},
        {"CdbLength 0", [](Sptd& r) { r.bytes[6] = 0; }},
        {"CdbLength 17", [](Sptd& r) { r.bytes[6] = 17; }},
        {"DataIn 3", [](Sptd& r) { r.bytes[8] = 3; }},
        {"TimeOutValue 0", [](Sptd& r) { put32(r.bytes.data(), 16, 0); }},
        {"null DataBuffer", [](Sptd& r) { put64(r.bytes.data(), 24, 0); }},
        {"unspecified direction with data", [](Sptd& r) { r.bytes[8] = 2; }},
        {"sense area past the buffer", [](Sptd& r) { put32(r.bytes.data(), 32, 100); }},
        {"sense area over the record", [](Sptd& r) { put32(r.bytes.data(), 32, 40); }},
        {"above the adapter's largest transfer", [](Sptd& r) { put32(r.bytes.data(), 12, 8192); }},
    };
    for (const Case& c : cases) {
        Sptd request = identify(512);
        c.change(request);
        EXPECT_FALSE(send(handle, IOCTL_SCSI_PASS_THROUGH_DIRECT, request.bytes)) << c.what;
        EXPECT_EQ(win32::GetLastError(), ERROR_INVALID_PARAMETER) << c.what;
        EXPECT_TRUE(last_commands().empty()) << c.what;
    }
    Sptd request = identify(512);
    win32::DWORD returned = 0;
    EXPECT_FALSE(win32::DeviceIoControl(handle, IOCTL_SCSI_PASS_THROUGH_DIRECT,
                                        request.bytes.data(), 55, request.bytes.data(), 312,
                                        &returned, nullptr));
    EXPECT_EQ(win32::GetLastError(), ERROR_INVALID_PARAMETER);
}

} // namespace
} // namespace simtest
