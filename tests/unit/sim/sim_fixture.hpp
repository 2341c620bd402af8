// A fresh simulated machine per test, and request records built byte by byte at the published
// offsets, independently of the program's own records.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "platform/win32.hpp"
#include "sim/machine.hpp"

namespace simtest {

// Little-endian fields of size bytes, as the records lay them out.
inline void put(std::uint8_t* b, std::size_t at, std::uint64_t v, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
        b[at + i] = static_cast<std::uint8_t>(v >> 8 * i);
    }
}
inline std::uint32_t get32(const std::uint8_t* b, std::size_t at) {
    return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | static_cast<std::uint32_t>(b[at + 3]) << 24;
}

// One disk, \\.\PhysicalDrive0, with the drive "d0"; the extras are spliced into the drive's and
// the disk's JSON objects.
inline std::string one_drive(const std::string& driveExtras = "",
                             const std::string& diskExtras = "") {
    return R"({"drives": [{"id": "d0", "model": "QSIM UNIT TEST DRIVE", "serial": "QU0000000001",
                "firmware": "QU010001")" +
           (driveExtras.empty() ? "" : ", " + driveExtras) + R"(}],
               "disks": [{"path": "\\\\.\\PhysicalDrive0", "drive": "d0",
                          "address": {"port": 2, "path": 1, "target": 3, "lun": 0})" +
           (diskExtras.empty() ? "" : ", " + diskExtras) + "}]}";
}

// SCSI_PASS_THROUGH_DIRECT followed by a 256-byte sense area: 312 bytes.
struct Sptd {
    std::array<std::uint8_t, 312> bytes{};

    Sptd(const std::vector<std::uint8_t>& cdb, std::uint8_t dataIn, std::uint32_t length,
         void* data) {
        std::uint8_t* b = bytes.data();
        put(b, 0, 56, 2);
        b[6] = static_cast<std::uint8_t>(cdb.size());
        b[7] = 252;
        b[8] = dataIn;
        put(b, 12, length, 4);
        put(b, 16, 5, 4);
        put(b, 24, reinterpret_cast<std::uintptr_t>(data), 8);
        put(b, 32, 56, 4);
        std::memcpy(b + 36, cdb.data(), cdb.size());
    }
    std::uint8_t scsiStatus() const { return bytes[2]; }
    std::uint8_t senseLength() const { return bytes[7]; }
    std::uint32_t transferred() const { return get32(bytes.data(), 12); }
    const std::uint8_t* sense() const { return bytes.data() + 56; }
};

// ATA PASS-THROUGH(16): protocol, EXTEND, T_DIR, then the twelve register bytes.
inline std::vector<std::uint8_t> ata16(std::uint8_t protocol, bool extend, bool toHost,
                                       const std::array<std::uint8_t, 12>& registers) {
    std::vector<std::uint8_t> cdb(16, 0);
    cdb[0] = 0x85;
    cdb[1] = static_cast<std::uint8_t>(protocol << 1 | (extend ? 1 : 0));
    cdb[2] = static_cast<std::uint8_t>((toHost ? 0x08 : 0) | 0x06); // BYT_BLOK, T_LENGTH in Count
    std::memcpy(&cdb[3], registers.data(), 12);
    return cdb;
}

// ATA_PASS_THROUGH_DIRECT, 48 bytes.
struct Aptd {
    std::array<std::uint8_t, 48> bytes{};

    Aptd(std::uint16_t flags, std::uint32_t length, void* data,
         const std::array<std::uint8_t, 8>& current,
         const std::array<std::uint8_t, 8>& previous = {}) {
        std::uint8_t* b = bytes.data();
        put(b, 0, 48, 2);
        put(b, 2, flags, 2);
        put(b, 8, length, 4);
        put(b, 12, 5, 4);
        put(b, 24, reinterpret_cast<std::uintptr_t>(data), 8);
        std::memcpy(b + 32, previous.data(), 8);
        std::memcpy(b + 40, current.data(), 8);
    }
    const std::uint8_t* taskFile() const { return bytes.data() + 40; }
    std::uint32_t transferred() const { return get32(bytes.data(), 8); }
};

class SimTest : public ::testing::Test {
protected:
    void SetUp() override { sim::reset_machine(); }
    void TearDown() override { sim::reset_machine(); }

    void load(const std::string& json, const std::string& baseDir = "") {
        std::string error;
        ASSERT_TRUE(sim::load_machine(json, baseDir, error)) << error;
    }
    static win32::HANDLE open() {
        return win32::CreateFileW(L"\\\\.\\PhysicalDrive0", GENERIC_READ | GENERIC_WRITE, 0,
                                  nullptr, OPEN_EXISTING, 0, nullptr);
    }
    // Sends a request record as both input and output, as the program does.
    template <std::size_t N>
    static bool send(win32::HANDLE handle, win32::DWORD code, std::array<std::uint8_t, N>& request,
                     win32::DWORD* returned = nullptr) {
        win32::DWORD count = 0;
        const bool ok = win32::DeviceIoControl(handle, code, request.data(), N, request.data(), N,
                                               &count, nullptr) != 0;
        if (returned != nullptr) {
            *returned = count;
        }
        return ok;
    }
    // The drive commands that reached a drive during the last logged call.
    static const std::vector<sim::AtaRecord>& last_commands() {
        return sim::machine().log.back().ata;
    }
};

} // namespace simtest
