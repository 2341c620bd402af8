// The SAT bridge behind IOCTL_SCSI_PASS_THROUGH_DIRECT, driven with request bytes built here at
// the published offsets, independently of the program's own records.
#include <memory>
#include <string>
#include <vector>

#include "sim_fixture.hpp"

namespace simtest {
namespace {

constexpr std::uint8_t kDataOut = 0;
constexpr std::uint8_t kDataIn = 1;
constexpr std::uint8_t kDataUnspecified = 2;

const std::array<std::uint8_t, 12> kIdentify = {0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0xEC};

class SimSatBridge : public SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        load(one_drive("", R"("maxTransferBytes": 4096)"));
        handle = open();
    }
    Sptd inquiry(bool evpd, std::uint8_t page, std::uint16_t allocation, std::uint32_t length) {
        data.assign(length, 0);
        Sptd request({0x12, static_cast<std::uint8_t>(evpd ? 1 : 0), page,
                      static_cast<std::uint8_t>(allocation >> 8),
                      static_cast<std::uint8_t>(allocation), 0},
                     kDataIn, length, data.data());
        EXPECT_TRUE(send(handle, IOCTL_SCSI_PASS_THROUGH_DIRECT, request.bytes));
        return request;
    }
    std::string text(std::size_t from, std::size_t to) {
        return std::string(data.begin() + static_cast<long>(from),
                           data.begin() + static_cast<long>(to));
    }
    win32::HANDLE handle = nullptr;
    std::vector<std::uint8_t> data;
};

TEST_F(SimSatBridge, IdentifyDeviceComesBackWithGoodStatusUpToTheBuffersLength) {
    for (const std::uint32_t length : {512u, 100u}) {
        auto buffer = std::make_unique<std::uint8_t[]>(length); // the sanitizers watch its end
        Sptd request(ata16(4, false, true, kIdentify), kDataIn, length, buffer.get());
        win32::DWORD returned = 0;
        ASSERT_TRUE(send(handle, IOCTL_SCSI_PASS_THROUGH_DIRECT, request.bytes, &returned));
        EXPECT_EQ(request.scsiStatus(), 0x00);
        EXPECT_EQ(request.transferred(), length);
        EXPECT_EQ(request.senseLength(), 0);
        EXPECT_EQ(returned, 56u);
        EXPECT_EQ(0, std::memcmp(buffer.get(), sim::machine().drives[0].identify.data(), length));
    }
}

TEST_F(SimSatBridge, AnAbortIsCheckConditionWithTheRegistersInTheSenseUpToItsLength) {
    // SMART RETURN STATUS is not a command the drive knows.
    const std::array<std::uint8_t, 12> smart = {0, 0xDA, 0, 3, 0, 0, 0, 0x4F, 0, 0xC2, 0x40, 0xB0};
    Sptd request(ata16(3, false, false, smart), kDataUnspecified, 0, nullptr);
    win32::DWORD returned = 0;
    ASSERT_TRUE(send(handle, IOCTL_SCSI_PASS_THROUGH_DIRECT, request.bytes, &returned));
    EXPECT_EQ(request.scsiStatus(), 0x02);
    const std::vector<std::uint8_t> sense = {0x70, 0,    0x0B, 0, 0, 0, 0, 0x0A, 0x04,
                                             0x51, 0x40, 0x03, 0, 0, 0, 0, 0,    0};
    EXPECT_EQ(std::vector<std::uint8_t>(request.sense(), request.sense() + 18), sense);
    EXPECT_EQ(request.senseLength(), 18);
    EXPECT_EQ(returned, 56u + 18u);

    Sptd shortSense(ata16(3, false, false, smart), kDataUnspecified, 0, nullptr);
    shortSense.bytes[7] = 8;
    std::fill(shortSense.bytes.begin() + 56, shortSense.bytes.end(), 0xCC);
    ASSERT_TRUE(send(handle, IOCTL_SCSI_PASS_THROUGH_DIRECT, shortSense.bytes, &returned));
    EXPECT_EQ(shortSense.senseLength(), 8);
    EXPECT_EQ(returned, 64u);
    EXPECT_EQ(shortSense.sense()[2], 0x0B);
    EXPECT_EQ(shortSense.sense()[8], 0xCC);
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

// ILLEGAL REQUEST, and no command reaches the drive: 24/00 for a field, 20/00 for an operation
// code.
TEST_F(SimSatBridge, WhatTheBridgeDoesNotCarryIsAnIllegalRequest) {
    std::uint8_t buffer[512];
    const auto pass_through = [](std::uint8_t protocol, bool toHost) {
        return ata16(protocol, false, toHost, kIdentify);
    };
    const struct {
        const char* what;
        std::vector<std::uint8_t> cdb;
        std::uint8_t dataIn;
        std::uint32_t length;
        std::uint8_t asc;
    } cases[] = {
        {"a VPD page other than 0x80", {0x12, 1, 0x83, 0, 252, 0}, kDataIn, 252, 0x24},
        {"a page without EVPD", {0x12, 0, 0x80, 0, 252, 0}, kDataIn, 252, 0x24},
        {"ATA PASS-THROUGH(12)", {0xA1, 0, 0, 0, 0, 0}, kDataUnspecified, 0, 0x20},
        {"PIO data-in without T_DIR", pass_through(4, false), kDataIn, 512, 0x24},
        {"PIO data-out with T_DIR", pass_through(5, true), kDataOut, 512, 0x24},
        {"data-in protocol, data-out buffer", pass_through(4, true), kDataOut, 512, 0x24},
        {"data-out protocol, data-in buffer", pass_through(5, false), kDataIn, 512, 0x24},
        {"non-data with a data phase", pass_through(3, false), kDataIn, 512, 0x24},
        {"hard reset", pass_through(0, false), kDataUnspecified, 0, 0x24},
        {"FPDMA", pass_through(12, false), kDataUnspecified, 0, 0x24},
    };
    for (const auto& c : cases) {
        Sptd reply(c.cdb, c.dataIn, c.length, c.length != 0 ? buffer : nullptr);
        ASSERT_TRUE(send(handle, IOCTL_SCSI_PASS_THROUGH_DIRECT, reply.bytes)) << c.what;
        EXPECT_EQ(reply.scsiStatus(), 0x02) << c.what;
        EXPECT_EQ(reply.senseLength(), 18) << c.what;
        EXPECT_EQ(reply.sense()[0], 0x70) << c.what;
        EXPECT_EQ(reply.sense()[2], 0x05) << c.what;
        EXPECT_EQ(reply.sense()[12], c.asc) << c.what;
        EXPECT_EQ(reply.transferred(), 0u) << c.what;
        EXPECT_TRUE(last_commands().empty()) << c.what;
    }
}

TEST_F(SimSatBridge, MalformedRequestsAreRefusedBeforeTheAdapter) {
    std::vector<std::uint8_t> buffer(8192);
    struct Case {
        const char* what;
        void (*change)(Sptd&);
    } cases[] = {
        {"Length 44", [](Sptd& r) { put(r.bytes.data(), 0, 44, 2); }},
        {"CdbLength 0", [](Sptd& r) { r.bytes[6] = 0; }},
        {"CdbLength 17", [](Sptd& r) { r.bytes[6] = 17; }},
        {"DataIn 3", [](Sptd& r) { r.bytes[8] = 3; }},
        {"TimeOutValue 0", [](Sptd& r) { put(r.bytes.data(), 16, 0, 4); }},
        {"null DataBuffer", [](Sptd& r) { put(r.bytes.data(), 24, 0, 8); }},
        {"unspecified direction with data", [](Sptd& r) { r.bytes[8] = 2; }},
        {"sense area past the buffer", [](Sptd& r) { put(r.bytes.data(), 32, 100, 4); }},
        {"sense area over the record", [](Sptd& r) { put(r.bytes.data(), 32, 40, 4); }},
        {"above the adapter's largest transfer", [](Sptd& r) { put(r.bytes.data(), 12, 8192, 4); }},
    };
    for (const Case& c : cases) {
        Sptd request(ata16(4, false, true, kIdentify), kDataIn, 512, buffer.data());
        c.change(request);
        EXPECT_FALSE(send(handle, IOCTL_SCSI_PASS_THROUGH_DIRECT, request.bytes)) << c.what;
        EXPECT_EQ(win32::GetLastError(), ERROR_INVALID_PARAMETER) << c.what;
        EXPECT_TRUE(last_commands().empty()) << c.what;
    }
    Sptd request(ata16(4, false, true, kIdentify), kDataIn, 512, buffer.data());
    win32::DWORD returned = 0;
    EXPECT_FALSE(win32::DeviceIoControl(handle, IOCTL_SCSI_PASS_THROUGH_DIRECT,
                                        request.bytes.data(), 55, request.bytes.data(), 312,
                                        &returned, nullptr));
    EXPECT_EQ(win32::GetLastError(), ERROR_INVALID_PARAMETER);
}

} // namespace
} // namespace simtest
