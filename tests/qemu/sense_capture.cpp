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
//
// DOWNLOAD MICROCODE as a drive that takes it answers, with every field SG_IO returns:
//   dm:MODE:BLOCKS:OFFSET[:FILE[:FROM[:BYTES]]]
// sends mode MODE (hexadecimal) with BLOCKS blocks at block OFFSET; the data are BYTES bytes of
// FILE from byte FROM (default: the rest of the file), or BLOCKS x 512 zero bytes without FILE.
// Settings that hold for the commands after them:
//   --cdb=default|T      the CDB of quenmark's default interface (PIO data-out even without
//                        data, no CK_COND) or of its /T: interface (the CDB builder: non-data
//                        protocol without data, CK_COND set)
//   --ck=0|1             CK_COND cleared or set, whatever the CDB's own choice (default: 1)
//   --timeout=MS         the SG_IO time-out (default 10000)
// Those lines read: name, cdb, the ioctl's return and errno, SCSI status, host, driver and
// masked status, resid, duration (ms), info and the sense bytes.
#include <fcntl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
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

struct DmSettings {
    bool defaultCdb = false;
    int checkCondition = 1;
    unsigned timeoutMs = 10000;
};

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::stringstream stream(text);
    std::string part;
    while (std::getline(stream, part, separator)) {
        parts.push_back(part);
    }
    return parts;
}

int download_microcode(int fd, const std::string& request, const DmSettings& settings) {
    const std::vector<std::string> parts = split(request, ':');
    if (parts.size() < 4) {
        std::fprintf(stderr, "bad command %s\n", request.c_str());
        return 2;
    }
    const auto mode = static_cast<std::uint8_t>(std::strtoul(parts[1].c_str(), nullptr, 16));
    const auto blocks = static_cast<std::uint32_t>(std::stoul(parts[2]));
    const auto offset = static_cast<std::uint32_t>(std::stoul(parts[3]));
    std::vector<std::uint8_t> data;
    if (parts.size() > 4) {
        std::ifstream file(parts[4], std::ios::binary);
        const std::vector<std::uint8_t> whole((std::istreambuf_iterator<char>(file)),
                                              std::istreambuf_iterator<char>());
        const std::size_t from = parts.size() > 5 ? std::stoul(parts[5]) : 0;
        std::size_t bytes = parts.size() > 6 ? std::stoul(parts[6]) : whole.size() - from;
        if (!file && whole.empty()) {
            std::printf("%s: cannot read %s\n", request.c_str(), parts[4].c_str());
            return 1;
        }
        data.assign(whole.begin() + static_cast<long>(from),
                    whole.begin() + static_cast<long>(from + bytes));
    } else if (mode != 0x0F) {
        data.assign(std::size_t{blocks} * 512, 0);
    }

    std::uint8_t cdb[16] = {0x85};
    const bool hasData = !data.empty();
    if (settings.defaultCdb) {
        // The default interface: PIO data-out whatever the data length, no CK_COND.
        cdb[1] = 5 << 1;
        cdb[2] = 0x04 | 0x02;
    } else {
        cdb[1] = static_cast<std::uint8_t>((hasData ? 5 : 3) << 1);
        cdb[2] = static_cast<std::uint8_t>(0x20 | (hasData ? 0x04 | 0x02 : 0));
    }
    if (settings.checkCondition == 1) {
        cdb[2] |= 0x20;
    } else {
        cdb[2] &= static_cast<std::uint8_t>(~0x20);
    }
    cdb[4] = mode;
    cdb[6] = static_cast<std::uint8_t>(blocks & 0xFF);
    cdb[8] = static_cast<std::uint8_t>(blocks >> 8);
    cdb[10] = static_cast<std::uint8_t>(offset & 0xFF);
    cdb[12] = static_cast<std::uint8_t>(offset >> 8);
    cdb[13] = 0x40;
    cdb[14] = 0x92;

    std::uint8_t sense[255] = {};
    sg_io_hdr_t header;
    std::memset(&header, 0, sizeof header);
    header.interface_id = 'S';
    header.cmdp = cdb;
    header.cmd_len = sizeof cdb;
    header.dxfer_direction = hasData || settings.defaultCdb ? SG_DXFER_TO_DEV : SG_DXFER_NONE;
    header.dxferp = hasData ? data.data() : nullptr;
    header.dxfer_len = static_cast<unsigned>(data.size());
    header.sbp = sense;
    header.mx_sb_len = sizeof sense;
    header.timeout = settings.timeoutMs;
    errno = 0;
    const int result = ioctl(fd, SG_IO, &header);
    const int error = errno;
    std::printf("%s cdb=", request.c_str());
    for (unsigned i = 0; i < sizeof cdb; ++i) {
        std::printf("%s%02x", i == 0 ? "" : " ", cdb[i]);
    }
    std::printf(" data=%zu timeout=%u ioctl=%d errno=%d", data.size(), settings.timeoutMs, result,
                error);
    if (result == 0) {
        std::printf(" status=%02x masked=%02x host=%04x driver=%04x resid=%d duration=%u info=%x"
                    " sense=",
                    header.status, header.masked_status, header.host_status, header.driver_status,
                    header.resid, header.duration, header.info);
        for (unsigned i = 0; i < header.sb_len_wr && i < sizeof sense; ++i) {
            std::printf("%s%02x", i == 0 ? "" : " ", sense[i]);
        }
    } else {
        std::printf(" (%s)", std::strerror(error));
    }
    std::printf("\n");
    std::fflush(stdout);
    return result == 0 ? 0 : 1;
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
    DmSettings settings;
    for (int i = 2; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument.rfind("--cdb=", 0) == 0) {
            settings.defaultCdb = argument == "--cdb=default";
            continue;
        }
        if (argument.rfind("--ck=", 0) == 0) {
            settings.checkCondition = argument == "--ck=1" ? 1 : 0;
            continue;
        }
        if (argument.rfind("--timeout=", 0) == 0) {
            settings.timeoutMs = static_cast<unsigned>(std::stoul(argument.substr(10)));
            continue;
        }
        if (argument.rfind("dm:", 0) == 0) {
            failures += download_microcode(fd, argument, settings);
            continue;
        }
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
