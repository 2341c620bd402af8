#include "sim/machine_file.hpp"

#include <cstdint>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <vector>

#include "sim/call_log.hpp"
#include "sim/identify_data.hpp"
#include "sim/json_fields.hpp"
#include "sim/machine.hpp"
#include "sim/text_encoding.hpp"

namespace sim {

namespace {

using nlohmann::json;

// A revision or other drive string: a text of 8-bit characters, or an array of byte values for
// one that is not ASCII.
bool read_bytes_text(const json& value, const std::string& where, std::string& out,
                     std::string& error) {
    if (value.is_string()) {
        out = value.get<std::string>();
        return true;
    }
    if (!value.is_array()) {
        return fail(error, where, "must be a text or an array of bytes");
    }
    std::vector<std::uint64_t> bytes;
    if (!read_numbers(value, where, 255, bytes, error)) {
        return false;
    }
    out.assign(bytes.begin(), bytes.end());
    return true;
}

json bytes_text_json(const std::string& text) {
    for (const char c : text) {
        if (static_cast<unsigned char>(c) >= 0x80) {
            json bytes = json::array();
            for (const char b : text) {
                bytes.push_back(static_cast<unsigned char>(b));
            }
            return bytes;
        }
    }
    return text;
}

bool read_error_code(const json& value, const std::string& where, win32::DWORD& out,
                     std::string& error) {
    if (value.is_string() && value.get<std::string>().rfind("ERROR_", 0) == 0) {
        if (!error_from_name(value.get<std::string>(), out)) {
            return fail(error, where, "unknown error name \"" + value.get<std::string>() + "\"");
        }
        return true;
    }
    std::uint64_t number = 0;
    if (!read_number(value, where, 0xFFFFFFFFu, number, error)) {
        return false;
    }
    out = static_cast<win32::DWORD>(number);
    return true;
}

bool read_control_code(const json& value, const std::string& where, win32::DWORD& out,
                       std::string& error) {
    const win32::DWORD known[] = {IOCTL_SCSI_GET_ADDRESS, IOCTL_SCSI_PASS_THROUGH_DIRECT,
                                  IOCTL_ATA_PASS_THROUGH_DIRECT, IOCTL_SCSI_MINIPORT,
                                  IOCTL_STORAGE_QUERY_PROPERTY};
    if (value.is_string() && value.get<std::string>().rfind("IOCTL_", 0) == 0) {
        for (const win32::DWORD code : known) {
            if (control_code_name(code) == value.get<std::string>()) {
                out = code;
                return true;
            }
        }
        return fail(error, where, "unknown control code \"" + value.get<std::string>() + "\"");
    }
    std::uint64_t number = 0;
    if (!read_number(value, where, 0xFFFFFFFFu, number, error)) {
        return false;
    }
    out = static_cast<win32::DWORD>(number);
    return true;
}

bool read_file(const std::string& path, std::string& bytes) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return false;
    }
    bytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    return !file.bad();
}

std::string join_path(const std::string& baseDir, const std::string& name) {
    const bool absolute =
        !name.empty() && (name[0] == '/' || name[0] == '\\' || (name.size() > 1 && name[1] == ':'));
    if (absolute || baseDir.empty()) {
        return name;
    }
    return baseDir + "/" + name;
}

bool read_state(const json& state, const std::string& where, Drive& drive, std::string& error) {
    if (!check_keys(state, where, {"firmware", "deferred"}, error)) {
        return false;
    }
    if (state.contains("firmware")) {
        std::string revision;
        if (!read_bytes_text(state["firmware"], where + ".firmware", revision, error)) {
            return false;
        }
        if (revision.size() > 8) {
            return fail(error, where + ".firmware", "longer than 8 characters");
        }
        set_firmware_revision(drive, revision);
    }
    if (state.contains("deferred") && !state["deferred"].is_null()) {
        const json& d = state["deferred"];
        const std::string at = where + ".deferred";
        if (!check_keys(d, at, {"revision", "length", "crc32"}, error)) {
            return false;
        }
        DeferredImage image;
        if (!d.contains("revision")) {
            return fail(error, at, "needs a revision");
        }
        if (!read_bytes_text(d["revision"], at + ".revision", image.revision, error) ||
            !read_field(d, "length", at, image.length, error) ||
            !read_field(d, "crc32", at, image.crc, error)) {
            return false;
        }
        drive.deferred = image;
    }
    return true;
}

bool read_drive(const json& d, const std::string& where, const std::string& baseDir, Drive& drive,
                std::string& error) {
    if (!check_keys(d, where,
                    {"id", "identifyFile", "model", "serial", "firmware", "words", "identifyLog",
                     "vendorIdentify", "downloadModes", "enforceBlockLimits",
                     "downloadStatusInCount", "downloadDelayMs", "failDownload", "state"},
                    error)) {
        return false;
    }
    if (!d.contains("id") || !d["id"].is_string() || d["id"].get<std::string>().empty()) {
        return fail(error, where, "needs an \"id\" text");
    }
    drive.id = d["id"].get<std::string>();

    bool raw = false;
    if (d.contains("identifyFile")) {
        std::string name;
        if (!read_text(d, "identifyFile", where, name, error)) {
            return false;
        }
        std::string bytes;
        const std::string path = join_path(baseDir, name);
        if (!read_file(path, bytes)) {
            return fail(error, where + ".identifyFile", "cannot read \"" + path + "\"");
        }
        if (bytes.size() != drive.identify.size()) {
            return fail(error, where + ".identifyFile",
                        "\"" + path + "\" holds " + std::to_string(bytes.size()) +
                            " bytes, not 512");
        }
        std::copy(bytes.begin(), bytes.end(), drive.identify.begin());
        raw = true;
    } else {
        drive.identify = default_identify();
        put_ata_string(drive.identify, 10, 10, "QSIM" + drive.id);
        put_ata_string(drive.identify, 23, 4, "QS010001");
        put_ata_string(drive.identify, 27, 20, "QSIM SATA DRIVE");
    }
    bool patched = false;
    const struct {
        const char* key;
        int word;
        int words;
    } strings[] = {{"serial", 10, 10}, {"firmware", 23, 4}, {"model", 27, 20}};
    for (const auto& s : strings) {
        if (d.contains(s.key)) {
            std::string text;
            if (!read_bytes_text(d[s.key], where + "." + s.key, text, error)) {
                return false;
            }
            if (text.size() > static_cast<std::size_t>(s.words) * 2) {
                return fail(error, where + "." + s.key,
                            "longer than " + std::to_string(s.words * 2) + " characters");
            }
            put_ata_string(drive.identify, s.word, s.words, text);
            patched = true;
        }
    }
    if (d.contains("words")) {
        const json& words = d["words"];
        if (!words.is_object()) {
            return fail(error, where + ".words", "must be an object of word numbers");
        }
        for (const auto& item : words.items()) {
            const std::string at = where + ".words." + item.key();
            std::uint64_t word = 0;
            std::uint64_t value = 0;
            if (!read_number(json(item.key()), at, 255, word, error) ||
                !read_number(item.value(), at, 0xFFFF, value, error)) {
                return false;
            }
            set_identify_word(drive.identify, static_cast<int>(word),
                              static_cast<std::uint16_t>(value));
            patched = true;
        }
    }
    // Built data carry a valid word 255, raw data keep theirs unless changed here; a word 255
    // given in "words" stands as given.
    const bool word255Given = d.contains("words") && d["words"].contains("255");
    if (!word255Given && (!raw || (patched && has_identify_signature(drive.identify)))) {
        seal_identify_checksum(drive.identify);
    }

    DmCapabilities capabilities;
    if (d.contains("identifyLog")) {
        const json& log = d["identifyLog"];
        const std::string at = where + ".identifyLog";
        if (log.is_boolean()) {
            drive.identifyLogSupported = log.get<bool>();
        } else if (!check_keys(log, at,
                               {"header", "dmOffsetsDeferred", "dmClearsNonactivatedDeferredData"},
                               error) ||
                   !read_bool(log, "header", at, capabilities.header, error) ||
                   !read_bool(log, "dmOffsetsDeferred", at, capabilities.offsetsDeferred, error) ||
                   !read_bool(log, "dmClearsNonactivatedDeferredData", at,
                              capabilities.clearsNonactivatedDeferredData, error)) {
            return false;
        }
    }
    drive.identifyLogPage0 = identify_log_page0();
    drive.identifyLogPage3 = identify_log_page3(capabilities);

    if (d.contains("vendorIdentify")) {
        const json& v = d["vendorIdentify"];
        const std::string text = v.is_string() ? v.get<std::string>() : "";
        if (text == "vendor") {
            drive.vendorIdentify = VendorIdentify::Vendor;
        } else if (text == "identify") {
            drive.vendorIdentify = VendorIdentify::Identify;
        } else if (text == "abort") {
            drive.vendorIdentify = VendorIdentify::Abort;
        } else {
            return fail(error, where + ".vendorIdentify",
                        "must be \"vendor\", \"identify\" or \"abort\"");
        }
    }
    if (d.contains("downloadModes")) {
        const json& modes = d["downloadModes"];
        if (!modes.is_array()) {
            return fail(error, where + ".downloadModes", "must be an array of modes");
        }
        drive.mode03 = drive.mode07 = drive.mode0E = drive.mode0F = false;
        for (std::size_t i = 0; i < modes.size(); ++i) {
            std::uint64_t mode = 0;
            const std::string at = where + ".downloadModes[" + std::to_string(i) + "]";
            if (!read_number(modes[i], at, 255, mode, error)) {
                return false;
            }
            switch (mode) {
            case 0x03:
                drive.mode03 = true;
                break;
            case 0x07:
                drive.mode07 = true;
                break;
            case 0x0E:
                drive.mode0E = true;
                break;
            case 0x0F:
                drive.mode0F = true;
                break;
            default:
                return fail(error, at, "not one of the modes 3, 7, 14 (0x0E), 15 (0x0F)");
            }
        }
    }
    if (!read_bool(d, "enforceBlockLimits", where, drive.enforceBlockLimits, error) ||
        !read_bool(d, "downloadStatusInCount", where, drive.downloadStatusInCount, error) ||
        !read_field(d, "downloadDelayMs", where, drive.downloadDelayMs, error)) {
        return false;
    }
    if (d.contains("state") && !read_state(d["state"], where + ".state", drive, error)) {
        return false;
    }
    return true;
}

bool read_disk(const json& d, const std::string& where, Disk& disk, std::string& error) {
    if (!check_keys(d, where,
                    {"path", "drive", "address", "scsiPassThrough", "ataPassThrough",
                     "getAddressError", "maxTransferBytes", "maxPhysicalPages", "adapterQuery"},
                    error)) {
        return false;
    }
    std::string path;
    if (!d.contains("path") || !read_text(d, "path", where, path, error) || path.empty()) {
        return error.empty() ? fail(error, where, "needs a \"path\" text") : false;
    }
    disk.path = wide_from_utf8(path);
    if (!d.contains("drive") || !read_text(d, "drive", where, disk.driveId, error)) {
        return error.empty() ? fail(error, where, "needs a \"drive\" id") : false;
    }
    if (d.contains("address")) {
        const json& a = d["address"];
        const std::string at = where + ".address";
        if (!check_keys(a, at, {"port", "path", "target", "lun"}, error) ||
            !read_field(a, "port", at, disk.address.port, error) ||
            !read_field(a, "path", at, disk.address.path, error) ||
            !read_field(a, "target", at, disk.address.target, error) ||
            !read_field(a, "lun", at, disk.address.lun, error)) {
            return false;
        }
    }
    if (!read_bool(d, "scsiPassThrough", where, disk.scsiPassThrough, error) ||
        !read_bool(d, "ataPassThrough", where, disk.ataPassThrough, error) ||
        !read_field(d, "maxTransferBytes", where, disk.maxTransferBytes, error) ||
        !read_field(d, "maxPhysicalPages", where, disk.maxPhysicalPages, error) ||
        !read_bool(d, "adapterQuery", where, disk.adapterQuery, error)) {
        return false;
    }
    if (d.contains("getAddressError") &&
        !read_error_code(d["getAddressError"], where + ".getAddressError", disk.getAddressError,
                         error)) {
        return false;
    }
    return true;
}

bool read_interrupt(const json& f, const std::string& where, InterruptFault& fault,
                    std::string& error) {
    if (!check_keys(f, where, {"event", "call", "count"}, error)) {
        return false;
    }
    if (!f.contains("event") || !f.contains("call")) {
        return fail(error, where,
                    "needs an \"event\" (a name such as CTRL_C_EVENT) and a \"call\"");
    }
    const json& event = f["event"];
    if (event.is_string()) {
        if (!console_event_from_name(event.get<std::string>(), fault.event)) {
            return fail(error, where + ".event",
                        "unknown event \"" + event.get<std::string>() +
                            "\" (CTRL_C_EVENT, CTRL_BREAK_EVENT, CTRL_CLOSE_EVENT, "
                            "CTRL_LOGOFF_EVENT, CTRL_SHUTDOWN_EVENT)");
        }
    } else if (!read_field(f, "event", where, fault.event, error)) {
        return false;
    }
    if (!read_field(f, "call", where, fault.call, error) ||
        !read_field(f, "count", where, fault.count, error)) {
        return false;
    }
    if (fault.call == 0 || fault.count == 0) {
        return fail(error, where, "\"call\" and \"count\" count from 1");
    }
    return true;
}

bool read_call_fault(const json& f, const std::string& where, CallFault& fault,
                     std::string& error) {
    if (!check_keys(f, where, {"function", "ioctl", "nth", "call", "onward", "error"}, error) ||
        !read_text(f, "function", where, fault.function, error)) {
        return false;
    }
    if (!fault.function.empty() && fault.function != "CreateFileW" &&
        fault.function != "DeviceIoControl" && fault.function != "CloseHandle" &&
        fault.function != "CommandLineToArgvW") {
        return fail(error, where + ".function",
                    "\"" + fault.function +
                        "\" cannot fail (CreateFileW, DeviceIoControl, CloseHandle, "
                        "CommandLineToArgvW can)");
    }
    if (f.contains("ioctl") &&
        !read_control_code(f["ioctl"], where + ".ioctl", fault.ioControlCode, error)) {
        return false;
    }
    if (!read_field(f, "nth", where, fault.nth, error) ||
        !read_field(f, "call", where, fault.call, error) ||
        !read_bool(f, "onward", where, fault.onward, error)) {
        return false;
    }
    if (!f.contains("error")) {
        return fail(error, where,
                    "needs an \"error\" (a number or a name such as ERROR_IO_DEVICE)");
    }
    return read_error_code(f["error"], where + ".error", fault.error, error);
}

bool read_command_fault(const json& f, const std::string& where, CommandFault& fault,
                        std::string& error) {
    if (!check_keys(f, where,
                    {"command", "features", "drive", "nth", "onward", "execute", "timeout",
                     "status", "error", "moved", "scsiStatus", "sense"},
                    error)) {
        return false;
    }
    if (!f.contains("command")) {
        return fail(error, where, "needs a \"command\" opcode");
    }
    if (!read_field(f, "command", where, fault.command, error) ||
        !read_text(f, "drive", where, fault.drive, error) ||
        !read_field(f, "nth", where, fault.nth, error) ||
        !read_bool(f, "onward", where, fault.onward, error) ||
        !read_bool(f, "execute", where, fault.execute, error) ||
        !read_bool(f, "timeout", where, fault.timeout, error) ||
        !read_field(f, "status", where, fault.status, error) ||
        !read_field(f, "error", where, fault.error, error)) {
        return false;
    }
    if (f.contains("features")) {
        std::uint8_t features = 0;
        if (!read_field(f, "features", where, features, error)) {
            return false;
        }
        fault.features = features;
    }
    if (f.contains("moved")) {
        std::uint32_t moved = 0;
        if (!read_field(f, "moved", where, moved, error)) {
            return false;
        }
        fault.moved = moved;
    }
    if (f.contains("scsiStatus")) {
        std::uint8_t status = 0;
        if (!read_field(f, "scsiStatus", where, status, error)) {
            return false;
        }
        fault.scsiStatus = status;
    }
    if (f.contains("sense")) {
        const json& sense = f["sense"];
        if (!sense.is_array() || sense.size() > 252) {
            return fail(error, where + ".sense", "must be an array of at most 252 bytes");
        }
        std::vector<std::uint64_t> bytes;
        if (!read_numbers(sense, where + ".sense", 255, bytes, error)) {
            return false;
        }
        fault.sense.assign(bytes.begin(), bytes.end());
    }
    return true;
}

bool read_machine(const json& document, const std::string& baseDir, Machine& m,
                  std::string& error) {
    if (!check_keys(document, "machine", {"drives", "disks", "controllers", "faults"}, error)) {
        return false;
    }
    const auto array = [&](const char* key, const json*& out) {
        out = nullptr;
        if (!document.contains(key)) {
            return true;
        }
        if (!document[key].is_array()) {
            return fail(error, key, "must be an array");
        }
        out = &document[key];
        return true;
    };
    const json* drives = nullptr;
    const json* disks = nullptr;
    const json* controllers = nullptr;
    if (!array("drives", drives) || !array("disks", disks) || !array("controllers", controllers)) {
        return false;
    }
    for (std::size_t i = 0; drives != nullptr && i < drives->size(); ++i) {
        const std::string where = "drives[" + std::to_string(i) + "]";
        Drive drive;
        if (!read_drive((*drives)[i], where, baseDir, drive, error)) {
            return false;
        }
        if (find_drive(m, drive.id) != nullptr) {
            return fail(error, where + ".id", "\"" + drive.id + "\" is used twice");
        }
        m.drives.push_back(std::move(drive));
        const json& d = (*drives)[i];
        if (d.contains("failDownload")) {
            CommandFault fault;
            fault.command = 0x92;
            fault.drive = m.drives.back().id;
            if (!read_field(d, "failDownload", where, fault.nth, error)) {
                return false;
            }
            m.faults.commands.push_back(fault);
        }
    }
    for (std::size_t i = 0; disks != nullptr && i < disks->size(); ++i) {
        const std::string where = "disks[" + std::to_string(i) + "]";
        Disk disk;
        if (!read_disk((*disks)[i], where, disk, error)) {
            return false;
        }
        if (find_drive(m, disk.driveId) == nullptr) {
            return fail(error, where + ".drive", "no drive with id \"" + disk.driveId + "\"");
        }
        m.disks.push_back(std::move(disk));
    }
    for (std::size_t i = 0; controllers != nullptr && i < controllers->size(); ++i) {
        const std::string where = "controllers[" + std::to_string(i) + "]";
        CsmiController controller;
        std::string reason;
        if (!csmi_controller_from_json((*controllers)[i], controller, reason)) {
            return fail(error, where, reason);
        }
        m.controllers.push_back(std::move(controller));
    }
    if (document.contains("faults")) {
        const json& faults = document["faults"];
        if (!check_keys(faults, "faults", {"calls", "commands", "interrupts"}, error)) {
            return false;
        }
        for (const char* key : {"calls", "commands", "interrupts"}) {
            if (faults.contains(key) && !faults[key].is_array()) {
                return fail(error, std::string("faults.") + key, "must be an array");
            }
        }
        for (std::size_t i = 0; faults.contains("calls") && i < faults["calls"].size(); ++i) {
            CallFault fault;
            if (!read_call_fault(faults["calls"][i], "faults.calls[" + std::to_string(i) + "]",
                                 fault, error)) {
                return false;
            }
            m.faults.calls.push_back(fault);
        }
        for (std::size_t i = 0; faults.contains("commands") && i < faults["commands"].size(); ++i) {
            CommandFault fault;
            if (!read_command_fault(faults["commands"][i],
                                    "faults.commands[" + std::to_string(i) + "]", fault, error)) {
                return false;
            }
            m.faults.commands.push_back(fault);
        }
        for (std::size_t i = 0; faults.contains("interrupts") && i < faults["interrupts"].size();
             ++i) {
            InterruptFault fault;
            if (!read_interrupt(faults["interrupts"][i],
                                "faults.interrupts[" + std::to_string(i) + "]", fault, error)) {
                return false;
            }
            m.faults.interrupts.push_back(fault);
        }
    }
    return true;
}

json drive_state(const Drive& drive) {
    json state = json::object();
    state["firmware"] = bytes_text_json(firmware_revision(drive));
    if (drive.deferred) {
        char crc[16];
        std::snprintf(crc, sizeof crc, "0x%08X", static_cast<unsigned>(drive.deferred->crc));
        state["deferred"] = {{"revision", bytes_text_json(drive.deferred->revision)},
                             {"length", drive.deferred->length},
                             {"crc32", crc}};
    } else {
        state["deferred"] = nullptr;
    }
    return state;
}

std::string folder_of(const std::string& path) {
    const std::size_t slash = path.find_last_of("/\\");
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

} // namespace

bool load_machine(const std::string& text, const std::string& baseDir, std::string& error) {
    reset_machine();
    Machine& m = machine();
    error.clear();
    json document;
    try {
        document = json::parse(text);
    } catch (const json::parse_error& e) {
        error = std::string("not valid JSON: ") + e.what();
        return false;
    }
    if (!read_machine(document, baseDir, m, error)) {
        reset_machine();
        return false;
    }
    m.document = std::move(document);
    return true;
}

bool load_machine_file(const std::string& path, std::string& error) {
    std::string text;
    if (!read_file(path, text)) {
        reset_machine();
        error = "cannot read the machine file";
        return false;
    }
    return load_machine(text, folder_of(path), error);
}

json machine_document_with_state() {
    Machine& m = machine();
    json document = m.document.is_object() ? m.document : json::object();
    if (document.contains("drives") && document["drives"].is_array()) {
        json& drives = document["drives"];
        for (std::size_t i = 0; i < drives.size() && i < m.drives.size(); ++i) {
            drives[i]["state"] = drive_state(m.drives[i]);
        }
    }
    return document;
}

bool save_machine_file(const std::string& path, std::string& error) {
    const std::string text = machine_document_with_state().dump(2) + "\n";
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (!file) {
        error = "cannot write the machine file";
        return false;
    }
    file << text;
    file.close();
    if (!file) {
        error = "cannot write the machine file";
        return false;
    }
    return true;
}

json demo_machine() {
    return json{
        {"comment", "The built-in demo machine of quenmark-sim."},
        {"drives",
         json::array({{{"id", "ssd0"},
                       {"model", "QSIM SATA SSD 512GB"},
                       {"serial", "QS0000000001"},
                       {"firmware", "QS010001"},
                       {"words", {{"69", "0x0100"}, {"128", "0x0021"}, {"234", 1}, {"235", 2048}}},
                       {"identifyLog", {{"dmOffsetsDeferred", true}}},
                       // Long enough per segment for a person to see the progress, and to
                       // interrupt it.
                       {"downloadDelayMs", 100}},
                      {{"id", "hdd1"},
                       {"model", "QSIM SATA HDD 2TB"},
                       {"serial", "QH0000000002"},
                       {"firmware", "QH010001"},
                       {"words",
                        {{"80", "0x01F0"},
                         {"119", "0x4000"},
                         {"128", "0x0001"},
                         {"217", 7200},
                         {"234", 0},
                         {"235", 0}}},
                       {"identifyLog", {{"dmOffsetsDeferred", false}}},
                       {"downloadModes", json::array({7})}},
                      {{"id", "ssd2"},
                       {"model", "QSIM SATA SSD 1TB"},
                       {"serial", "QS0000000003"},
                       {"firmware", "QS010001"},
                       {"words", {{"128", "0x0021"}, {"234", 1}, {"235", 2048}}}}})},
        {"disks",
         json::array({{{"path", "\\\\.\\PhysicalDrive0"},
                       {"drive", "ssd0"},
                       {"address", {{"port", 0}, {"path", 0}, {"target", 0}, {"lun", 0}}}},
                      {{"path", "\\\\.\\PhysicalDrive1"},
                       {"drive", "hdd1"},
                       {"address", {{"port", 1}, {"path", 0}, {"target", 0}, {"lun", 0}}}}})},
        // A SAS/SATA HBA on \\.\SCSI2: with ssd2 on phy 0 and a SAS disk on phy 1.
        {"controllers",
         json::array(
             {{{"port", 2},
               {"driver",
                {{"name", "qsas"},
                 {"description", "QSIM SAS/SATA HBA"},
                 {"version", {2, 1, 0, 7}},
                 {"csmiVersion", {0, 82}}}},
               {"config", {{"boardId", "0x10001000"}, {"controllerFlags", 1}}},
               {"numberOfPhys", 8},
               {"phys",
                json::array(
                    {{{"phy", 0},
                      {"negotiatedLinkRate", 10},
                      {"identify", {{"initiatorProtocol", 15}, {"sasAddress", "5000000000000a01"}}},
                      {"attached", {{"targetProtocol", 1}, {"sasAddress", "5000000000000b02"}}},
                      {"drive", "ssd2"}},
                     {{"phy", 1},
                      {"portIdentifier", 1},
                      {"negotiatedLinkRate", 10},
                      {"identify", {{"initiatorProtocol", 15}, {"sasAddress", "5000000000000a01"}}},
                      {"attached",
                       {{"targetProtocol", 8}, {"sasAddress", "5000000000000c03"}}}}})}}})}};
}

} // namespace sim
