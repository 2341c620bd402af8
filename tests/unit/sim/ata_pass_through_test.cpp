// The ATA port driver behind IOCTL_ATA_PASS_THROUGH_DIRECT, driven with request bytes built here.
#include <memory>
#include <vector>

#include "sim_fixture.hpp"

namespace simtest {
namespace {

constexpr std::uint16_t kIn = 0x03;  // DRDY_REQUIRED | DATA_IN
constexpr std::uint16_t kOut = 0x05; // DRDY_REQUIRED | DATA_OUT
constexpr std::uint16_t k48 = 0x08;

class SimAtaPassThrough : public SimTest {
protected:
    void SetUp() override {
        SimTest::SetUp();
        load(one_drive());
        handle = open();
    }
    win32::HANDLE handle = nullptr;
};

TEST_F(SimAtaPassThrough, IdentifyWritesTheOutputTaskFileAndTheMovedLengthBack) {
    for (const std::uint32_t length : {512u, 200u}) {
        auto identify = std::make_unique<std::uint8_t[]>(length); // the sanitizers watch its end
        Aptd request(kIn, length, identify.get(), {0, 1, 0, 0, 0, 0xA0, 0xEC, 0});
        win32::DWORD returned = 0;
        ASSERT_TRUE(send(handle, IOCTL_ATA_PASS_THROUGH_DIRECT, request.bytes, &returned));
        EXPECT_EQ(returned, 48u);
        const std::vector<std::uint8_t> taskFile = {0x00, 1, 0, 0, 0, 0xA0, 0x50, 0};
        EXPECT_EQ(std::vector<std::uint8_t>(request.taskFile(), request.taskFile() + 8), taskFile);
        EXPECT_EQ(request.transferred(), length);
        EXPECT_EQ(0, std::memcmp(identify.get(), sim::machine().drives[0].identify.data(), length));
    }
}

TEST_F(SimAtaPassThrough, An48BitCommandTakesItsExtRegistersFromThePreviousTaskFile) {
    std::uint8_t page[512] = {};
    const std::array<std::uint8_t, 8> readLog = {0, 1, 0x30, 0x03, 0, 0, 0x2F, 0};
    // Page 0x103 with the 48-bit flag: the drive has no such page.
    Aptd extended(kIn | k48, 512, page, readLog, {0, 0, 0, 0x01, 0, 0, 0, 0});
    ASSERT_TRUE(send(handle, IOCTL_ATA_PASS_THROUGH_DIRECT, extended.bytes));
    EXPECT_EQ(extended.taskFile()[6], 0x51);
    ASSERT_EQ(last_commands().size(), 1u);
    EXPECT_EQ(last_commands()[0].command.lbaMidExt, 0x01);
    // Without it the previous task file is ignored: page 3.
    Aptd plain(kIn, 512, page, readLog, {0, 0, 0, 0x01, 0, 0, 0, 0});
    ASSERT_TRUE(send(handle, IOCTL_ATA_PASS_THROUGH_DIRECT, plain.bytes));
    EXPECT_EQ(plain.taskFile()[6], 0x50);
    EXPECT_EQ(page[2], 0x03);
}

TEST_F(SimAtaPassThrough, WithoutADataFlagThereIsNoDataPhase) {
    std::uint8_t identify[512];
    std::memset(identify, 0xEE, sizeof identify);
    Aptd request(0x01, 512, identify, {0, 1, 0, 0, 0, 0, 0xEC, 0});
    ASSERT_TRUE(send(handle, IOCTL_ATA_PASS_THROUGH_DIRECT, request.bytes));
    EXPECT_EQ(request.taskFile()[6], 0x51); // IDENTIFY needs its data-in phase
    EXPECT_EQ(request.transferred(), 0u);
    EXPECT_EQ(identify[0], 0xEE);
}

TEST_F(SimAtaPassThrough, MalformedRequestsAreRefused) {
    std::uint8_t identify[512];
    struct Case {
        const char* what;
        void (*change)(Aptd&);
    } cases[] = {
        {"Length 40", [](Aptd& r) { put(r.bytes.data(), 0, 40, 2); }},
        {"DATA_IN and DATA_OUT", [](Aptd& r) { put(r.bytes.data(), 2, 0x07, 2); }},
        {"unknown flag", [](Aptd& r) { put(r.bytes.data(), 2, 0x43, 2); }},
        {"TimeOutValue 0", [](Aptd& r) { put(r.bytes.data(), 12, 0, 4); }},
        {"null DataBuffer", [](Aptd& r) { put(r.bytes.data(), 24, 0, 8); }},
    };
    for (const Case& c : cases) {
        Aptd request(kIn, 512, identify, {0, 1, 0, 0, 0, 0, 0xEC, 0});
        c.change(request);
        EXPECT_FALSE(send(handle, IOCTL_ATA_PASS_THROUGH_DIRECT, request.bytes)) << c.what;
        EXPECT_EQ(win32::GetLastError(), ERROR_INVALID_PARAMETER) << c.what;
    }
    Aptd request(kIn, 512, identify, {0, 1, 0, 0, 0, 0, 0xEC, 0});
    win32::DWORD returned = 0;
    EXPECT_FALSE(win32::DeviceIoControl(handle, IOCTL_ATA_PASS_THROUGH_DIRECT, request.bytes.data(),
                                        48, request.bytes.data(), 40, &returned, nullptr));
    EXPECT_EQ(win32::GetLastError(), ERROR_INVALID_PARAMETER);
}

} // namespace
} // namespace simtest
