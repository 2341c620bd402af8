#!/usr/bin/env python3
"""Writes the seed corpus of every fuzz target into tests/fuzz/corpus/<target>/.

Each seed is a small, whole case in the layout the target's source describes: a typical command
line, a real drive's IDENTIFY data, a driver that answers as a good SAT bridge does, a run with one
drive command that ends badly, a controller with four phys. The real drives come from
testdata/identify (IDENTIFY DEVICE data published by their makers' drives).

    python3 tests/fuzz/make_seeds.py [--testdata DIR]
"""

import argparse
import pathlib
import struct

HERE = pathlib.Path(__file__).resolve().parent


def write(target, name, data):
    folder = HERE / "corpus" / target
    folder.mkdir(parents=True, exist_ok=True)
    (folder / name).write_bytes(bytes(data))


def ata_string(text, length):
    raw = text.ljust(length).encode("latin-1")[:length]
    out = bytearray()
    for i in range(0, length, 2):
        out += bytes([raw[i + 1], raw[i]])
    return out


def built_identify(model="QSIM FUZZ SSD", serial="QF0000000001", firmware="QS010001",
                   security=0x0021, major=0x07F0, dm_min=1, dm_max=2048):
    data = bytearray(512)

    def word(n, value):
        struct.pack_into("<H", data, 2 * n, value)

    word(0, 0x0040)
    data[20:40] = ata_string(serial, 20)
    data[46:54] = ata_string(firmware, 8)
    data[54:94] = ata_string(model, 40)
    word(69, 0x0100)
    word(80, major)
    word(83, 0x4001)
    word(86, 0x0001)
    word(119, 0x4010)
    word(128, security)
    word(234, dm_min)
    word(235, dm_max)
    data[510] = 0xA5
    data[511] = (-sum(data[:511])) & 0xFF
    return data


def log_page3(offsets_deferred=True, clears=False, header=True):
    page = bytearray(512)
    valid = 1 << 63
    struct.pack_into("<Q", page, 0, (valid if header else 0) | 0x0003 << 16 | 0x0001)
    struct.pack_into("<Q", page, 8, valid)
    dm = valid | (1 << 34 if offsets_deferred else 0) | (1 << 35 if clears else 0)
    struct.pack_into("<Q", page, 16, dm)
    return page


# --- the command line -------------------------------------------------------------------------

def command_line_seeds():
    lines = [
        ["\\\\.\\PhysicalDrive0", "/D:fw.LOD", "/s"],
        ["/T:\\\\.\\PhysicalDrive1", "/D:fw.LOD", "/e", "/a"],
        ["/C:\\\\.\\SCSI3:1", "/D:fw.LOD", "/e", "/a", "/v"],
        ["/C:2,0000000500000000", "/D:fw.LOD", "/vv", "/l"],
        ["--scan", "/vv"],
        ["/h"],
        ["\\\\.\\PhysicalDrive0", "/i", "/g", "12", "/r", "3"],
        ["\\\\.\\PhysicalDrive0", "/g", "-2147483649", "/r"],
        ["\\\\.\\PhysicalDrive0", "/x"],
        ["/C:\\\\.\\SCSI1:" + "9" * 12],
        ["/C:7,00112233445566zz"],
        ["\\\\.\\" + "D" * 256],
        ["\\\\.\\PhysicalDrive0", "/D:" + "f" * 259],
        ["\\\\.\\PhysicalDrive0", "/D:firmware dir\\fw \"new\".bin\\"],
        ["/T:/dev/sda", "/D:pr\u00fcfung-\u00e9t\u00e9-\U0001f4be.bin", "/v"],
    ]
    for i, line in enumerate(lines):
        write("fuzz_command_line", "line-%02d" % i, b"\0".join(a.encode("utf-8") for a in line))


# --- IDENTIFY DEVICE data and the log page ----------------------------------------------------

def outcome(status=0x50, error=0, moved=512, execute=True):
    return bytes([status, error]) + struct.pack("<H", moved) + bytes([1 if execute else 0])


def identify_seeds(real):
    for name, data in real.items():
        write("fuzz_identify", name + ".bin", data)
    first = next(iter(real.values()))
    write("fuzz_identify", "built-scsi-log", built_identify() + log_page3() + bytes([0x00]))
    write("fuzz_identify", "built-ata-verbose-log-clears",
          built_identify() + log_page3(clears=True) + bytes([0x03]))
    write("fuzz_identify", "real-no-logging-ata", first + log_page3() + bytes([0x05]))
    write("fuzz_identify", "locked-sec4", built_identify(security=0x0007) + log_page3(header=False)
          + bytes([0x00]))
    write("fuzz_identify", "identify-short-transfer",
          built_identify() + log_page3() + bytes([0x08]) + outcome(moved=100) + outcome())
    write("fuzz_identify", "identify-drq-full-length-ata",
          built_identify() + log_page3() + bytes([0x0B]) + outcome(status=0x58) + outcome())
    write("fuzz_identify", "read-log-aborted",
          built_identify() + log_page3() + bytes([0x12]) + outcome() +
          outcome(status=0x51, error=0x04, moved=0, execute=False))


# --- a driver that answers anything (hostile_driver.hpp) --------------------------------------

def answer(body, over_report=None, returned=None):
    how = (0x02 if over_report is not None else 0) | (0x04 if returned is not None else 0)
    out = bytes([how]) + body
    if over_report is not None:
        out += struct.pack("<I", over_report)
    if returned is not None:
        out += struct.pack("<H", returned)
    return out


def failed(choice):
    return bytes([0x01, choice])


def scsi(data, status=0, sense=b""):
    return bytes([status, len(sense)]) + sense + struct.pack("<H", len(data)) + data


def ata(data, status=0x50, error=0):
    task = bytes([error, 1, 0, 0, 0, 0x40, status, 0])
    return task + bytes(8) + struct.pack("<H", len(data)) + data


def standard_inquiry(identify):
    data = bytearray(96)
    data[2], data[3], data[4], data[7] = 5, 2, 91, 2
    data[8:16] = b"ATA     "
    model = bytearray()
    for i in range(54, 94, 2):
        model += bytes([identify[i + 1], identify[i]])
    data[16:32] = model[:16]
    firmware = bytearray()
    for i in range(46, 54, 2):
        firmware += bytes([identify[i + 1], identify[i]])
    data[32:36] = firmware[4:8] if firmware[4:8] != b"    " else firmware[:4]
    return data


def serial_page(identify):
    serial = bytearray()
    for i in range(20, 40, 2):
        serial += bytes([identify[i + 1], identify[i]])
    return bytes([0, 0x80, 0, len(serial)]) + serial


def inquiry_seeds(real):
    address = bytes([8, 0, 0, 0, 1, 0, 2, 0])
    for index, (name, identify) in enumerate(real.items()):
        through_ata = index % 2 == 1
        command = ata if through_ata else scsi
        stream = bytes([0x01 if through_ata else 0x00])
        stream += answer(address)
        stream += answer(scsi(standard_inquiry(identify)))
        stream += answer(scsi(serial_page(identify)))
        stream += answer(command(identify))
        stream += answer(command(log_page3()))
        write("fuzz_inquiry", name, stream)
    identify = built_identify()
    # Every answer a failure of its own kind.
    write("fuzz_inquiry", "address-refused", bytes([0x02]) + failed(3))
    write("fuzz_inquiry", "inquiry-refused", bytes([0x00]) + answer(address) + failed(0) +
          answer(scsi(identify)) + answer(scsi(log_page3())))
    # A serial number page that claims more than it holds, and a check condition.
    long_page = bytes([0, 0x80, 0xFF, 0xFF]) + b"X" * 30
    sense = bytes([0x70, 0, 0x0B, 0, 0, 0, 0, 10, 4, 0x51, 0x40, 1, 0, 0, 0, 0, 0, 0])
    write("fuzz_inquiry", "long-serial-check-condition",
          bytes([0x02]) + answer(address) + answer(scsi(standard_inquiry(identify))) +
          answer(scsi(long_page)) + answer(scsi(b"", status=2, sense=sense)))
    # Short data, DRQ left set with the whole length, a CRC abort.
    write("fuzz_inquiry", "short-inquiry-drq-identify",
          bytes([0x03]) + answer(address) + answer(scsi(b"\0" * 5), returned=20) +
          answer(scsi(b"")) + answer(ata(identify, status=0x58)) +
          answer(ata(b"", status=0x51, error=0x84)))
    # A driver that reports less than it moved.
    write("fuzz_inquiry", "under-reported-lengths",
          bytes([0x00]) + answer(address) +
          answer(scsi(standard_inquiry(identify)), over_report=0) +
          answer(scsi(serial_page(identify))) + answer(scsi(identify), over_report=12) +
          answer(scsi(log_page3())))


# --- drive commands that end badly (fuzz_pass_through.cpp) ------------------------------------

def fault(command, status=0x51, error=0x04, moved=0xFFFF, nth=0, onward=False, execute=False,
          scsi_status=None, sense=b""):
    selector = command | (0x04 if onward else 0) | (0x08 if execute else 0) | (nth << 5)
    selector |= 0x10 if scsi_status is not None else 0
    out = bytes([selector, status, error]) + struct.pack("<H", moved)
    if scsi_status is not None:
        out += bytes([scsi_status, len(sense)]) + sense
    return out


IDENTIFY, READ_LOG, DOWNLOAD, VENDOR = 0, 1, 2, 3


def pass_through_seeds():
    sense = bytes([0x70, 0, 0x0B, 0, 0, 0, 0, 10, 4, 0x51, 0x40, 1, 0, 0, 0, 0, 0, 0])
    seeds = {
        "scsi-immediate": bytes([0x00, 0]),
        "ata-segmented-verbose-g1": bytes([0x07, 1]),
        "ata-deferred-activate-retry": bytes([0x1B | 0x40, 2]),
        "scsi-no-file-activate": bytes([0x32, 0]),
        "identify-aborted": bytes([0x03, 0]) + fault(IDENTIFY),
        "identify-drq-full": bytes([0x03, 0]) + fault(IDENTIFY, status=0x58, error=0,
                                                      moved=512, execute=True),
        "read-log-short": bytes([0x01, 0]) + fault(READ_LOG, status=0x50, error=0, moved=7,
                                                   execute=True),
        "second-download-crc-abort-retry": bytes([0x07 | 0x80, 1]) +
        fault(DOWNLOAD, status=0x51, error=0x84, nth=2),
        "download-onward-device-fault": bytes([0x05, 1]) +
        fault(DOWNLOAD, status=0x71, error=0x04, nth=1, onward=True),
        "vendor-identify-aborted": bytes([0x03, 0]) + fault(VENDOR),
        "download-check-condition-sense": bytes([0x06, 1]) +
        fault(DOWNLOAD, status=0x50, error=0, nth=2, scsi_status=2, sense=sense),
        "download-busy": bytes([0x06, 2]) + fault(DOWNLOAD, status=0x50, error=0, nth=1,
                                                  scsi_status=0x08),
    }
    for name, data in seeds.items():
        write("fuzz_pass_through", name, data)


# --- CSMI controllers (fuzz_csmi.cpp) ---------------------------------------------------------

def field81(text):
    raw = text.encode("latin-1") if isinstance(text, str) else text
    return raw[:81].ljust(81, b"\0")


def link_end(device_type=0x10, initiator=0, target=0, address=0, phy=0):
    return (bytes([device_type, 0, initiator, target]) + address.to_bytes(8, "big") +
            bytes([phy, 0]))


def phy(index, target, address, drive=True, device_type=0x10, port=None):
    controller_end = link_end(initiator=15, address=0x5000000000000A01, phy=index)
    rates = bytes([index if port is None else port, 10, 8, 10, 2, 1, 0])
    attached = link_end(device_type=device_type, target=target, address=address)
    return controller_end + rates + attached + bytes([1 if drive else 0])


def empty_phy():
    return bytes(36)


def csmi_fault(code_index, nth=0, onward=False, error_index=0, return_code=0, execute=False):
    return (bytes([code_index, nth, 1 if onward else 0, error_index]) +
            struct.pack("<I", return_code) + bytes([1 if execute else 0]))


def controller(run, wiring, phy_number, phys, faults=(), name="qsas", description="QSIM SAS HBA",
               number_of_phys=None, serial="QC01", identify=None):
    out = bytes([run, wiring, phy_number])
    out += field81(name) + field81(description)
    out += struct.pack("<6H", 2, 1, 0, 7, 0, 82)
    out += struct.pack("<II", 0x10001000, 1)
    out += field81(serial)
    out += bytes([len(phys) if number_of_phys is None else number_of_phys])
    out += bytes([len(phys)]) + b"".join(phys)
    out += bytes([len(faults)]) + b"".join(faults)
    out += identify if identify is not None else built_identify()
    return out


def csmi_seeds(real):
    four = [phy(0, 0x01, 0x5000000000000B02), phy(1, 0x08, 0x5000000000000C03, drive=False),
            empty_phy(), phy(3, 0x02, 0x5000000000000E05, drive=False, device_type=0x20)]
    drives = list(real.values())
    seeds = {
        "scan-quiet": controller(0x00, 0x02, 0, four),
        "scan-verbose": controller(0x04, 0x02, 0, four, identify=drives[0]),
        "scan-vv-names-without-nul": controller(0x08, 0x05, 0, four, name="N" * 81,
                                                description="D" * 81, serial="S" * 81),
        "scan-phy-table-refused": controller(0x04, 0x02, 0, four,
                                             faults=[csmi_fault(3, error_index=4)]),
        "scan-not-csmi": controller(0x04, 0x22, 0, four),
        "scan-255-phys-stp-return-code": controller(0x04, 0x03, 0, four, number_of_phys=255,
                                                    faults=[csmi_fault(5, return_code=3)]),
        "select-phy-info": controller(0x15, 0x03, 0, four, identify=drives[-1]),
        "select-address-download": controller(0x26, 0x03, 0, four),
        "select-phy-deferred-activate-segmented": controller(0xE5, 0x13, 0, four),
        "select-option-l": controller(0x17, 0x03, 0, four),
        "select-ssp-phy": controller(0x05, 0x03, 1, four),
        "select-phy-32": controller(0x05, 0x03, 32, four),
        "select-stp-return-code-on-identify": controller(
            0x15, 0x03, 0, four, faults=[csmi_fault(5, nth=1, return_code=3, execute=True)]),
        "wide-port-32-phys": controller(
            0x06, 0x04, 7,
            [phy(i, 0x04, 0x5000000000000B02 + (i // 4), port=i // 4) for i in range(32)]),
    }
    for name, data in seeds.items():
        write("fuzz_csmi", name, data)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--testdata", type=pathlib.Path,
                        default=HERE.parent.parent.parent / "shared" / "testdata")
    options = parser.parse_args()
    real = {path.stem: path.read_bytes()
            for path in sorted((options.testdata / "identify").glob("*.bin"))}
    if not real:
        raise SystemExit("no IDENTIFY data under %s" % (options.testdata / "identify"))
    command_line_seeds()
    identify_seeds(real)
    inquiry_seeds(real)
    pass_through_seeds()
    csmi_seeds(real)


if __name__ == "__main__":
    main()
