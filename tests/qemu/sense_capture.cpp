// Runs inside the QEMU suite's VM: sends the ATA PASS-THROUGH(16) commands that quenmark's /T:
// path sends (the same CDB builder, CK_COND set) and the default interface's IDENTIFY (no
// CK_COND) through SG_IO, and prints what the kernel wrote back, byte for byte, so that the
// sense parser's tests read what each kernel really answers.
//
//   quenmark-sense-capture NODE COMMAND...
// COMMAND: identify, read-log, download (mode 0x03, one block), identify-no-ck-cond,
// inquiry-serial (INQUIRY of the unit serial number page, as quenmark's probe sends it first),
// and download-bytes=N (mode 0x07 with N bytes, to find the largest data phase SG_IO takes).
// One line per command: its name, SCSI status, host and driver status, the residual count and
// every sense byte the kernel reported as written.
#include <fcntl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "platform/linux/ata_pass_through_cdb.hpp"

namespace {

struct Command {
    const char* name;
    std::uint8_t registers[7]; // Features, Count, LBA Low, LBA Mid, LBA High, Device, Command
    bool extended;
    int direction; // 0 none, 1 in, 2 out
    bool checkCondition;
};

const Command kCommands[] = {
    {"identify", {0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0xEC}, false, 1, true},
    {"read-log", {0x00, 0x01, 0x30, 0x03, 0x00, 0x00, 0x2F}, true, 1, true},
    {"download", {0x03, 0x01, 0x00, 0x00, 0x00, 0x40, 0x92}, false, 2, true},
    {"identify-no-ck-cond", {0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0xEC}, false, 1, false},
    {"inquiry-serial", {}, false, 1, false},
};

int capture(int fd, const Command& command, std::uint32_t dataBytes = 512) {
    std::vector<std::uint8_t> buffer(dataBytes, 0);
    std::uint8_t* data = buffer.data();
    win32::ATA_PASS_THROUGH_DIRECT request;
    std::memset(&request, 0, sizeof request);
    request.Length = sizeof request;
    request.AtaFlags = ATA_FLAGS_DRDY_REQUIRED;
    if (command.direction != 0) {
        request.AtaFlags |= command.direction == 1 ? ATA_FLAGS_DATA_IN : ATA_FLAGS_DATA_OUT;
        request.DataTransferLength = dataBytes;
        request.DataBuffer = data;
    }
    if (command.extended) {
        request.AtaFlags |= ATA_FLAGS_48BIT_COMMAND;
    }
    std::memcpy(request.CurrentTaskFile, command.registers, sizeof command.registers);
    linux_backend::AtaPassThroughCdb cdb;
    if (!linux_backend::build_ata_pass_through_cdb(request, cdb)) {
        std::printf("%s: no CDB\n", command.name);
        return 1;
    }
    if (!command.checkCondition) {
        cdb.bytes[2] &= static_cast<std::uint8_t>(~0x20);
    }
    std::uint8_t cdbLength = sizeof cdb.bytes;
    if (std::string(command.name) == "inquiry-serial") {
        const std::uint8_t inquiry[6] = {0x12, 0x01, 0x80, 0x00, 0xFC, 0x00};
        std::memcpy(cdb.bytes, inquiry, sizeof inquiry);
        cdbLength = sizeof inquiry;
    }

    std::uint8_t sense[255] = {};
    sg_io_hdr_t header;
    std::memset(&header, 0, sizeof header);
    header.interface_id = 'S';
    header.cmdp = cdb.bytes;
    header.cmd_len = cdbLength;
    header.dxfer_direction = command.direction == 0   ? SG_DXFER_NONE
                             : command.direction == 1 ? SG_DXFER_FROM_DEV
                                                      : SG_DXFER_TO_DEV;
    if (command.direction != 0) {
        header.dxferp = data;
        header.dxfer_len = dataBytes;
    }
    header.sbp = sense;
    header.mx_sb_len = sizeof sense;
    header.timeout = 10000;
    if (ioctl(fd, SG_IO, &header) != 0) {
        std::printf("%s: SG_IO failed: %s\n", command.name, std::strerror(errno));
        return 1;
    }
    std::printf("%s status=%02x host=%04x driver=%04x resid=%d sense=", command.name, header.status,
                header.host_status, header.driver_status, header.resid);
    for (unsigned i = 0; i < header.sb_len_wr && i < sizeof sense; ++i) {
        std::printf("%s%02x", i == 0 ? "" : " ", sense[i]);
    }
    std::printf("\n");
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s NODE COMMAND...\n", argv[0]);
        return 2;
    }
    const int fd = open(argv[1], O_RDWR | O_NONBLOCK);
    if (fd < 0) {
        std::printf("%s: %s\n", argv[1], std::strerror(errno));
        return 1;
    }
    int failures = 0;
    for (int i = 2; i < argc; ++i) {
        const std::string bytesPrefix = "download-bytes=";
        if (std::string(argv[i]).rfind(bytesPrefix, 0) == 0) {
            const auto bytes = static_cast<std::uint32_t>(std::stoul(argv[i] + bytesPrefix.size()));
            const std::uint32_t blocks = bytes / 512;
            Command download = {argv[i],
                                {0x07, static_cast<std::uint8_t>(blocks & 0xFF),
                                 static_cast<std::uint8_t>(blocks >> 8), 0x00, 0x00, 0x40, 0x92},
                                false,
                                2,
                                true};
            failures += capture(fd, download, bytes);
            continue;
        }
        const Command* found = nullptr;
        for (const Command& command : kCommands) {
            if (std::string(argv[i]) == command.name) {
                found = &command;
            }
        }
        if (found == nullptr) {
            std::fprintf(stderr, "unknown command %s\n", argv[i]);
            return 2;
        }
        failures += capture(fd, *found);
    }
    close(fd);
    return failures != 0 ? 1 : 0;
}
