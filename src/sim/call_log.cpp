#include "sim/call_log.hpp"

#include <cstdio>

#include "platform/console_event_names.hpp"

namespace sim {

namespace {

struct NamedError {
    win32::DWORD number;
    const char* name;
};

constexpr NamedError kErrors[] = {
    {0, "ERROR_SUCCESS"},
    {1, "ERROR_INVALID_FUNCTION"},
    {2, "ERROR_FILE_NOT_FOUND"},
    {3, "ERROR_PATH_NOT_FOUND"},
    {5, "ERROR_ACCESS_DENIED"},
    {6, "ERROR_INVALID_HANDLE"},
    {8, "ERROR_NOT_ENOUGH_MEMORY"},
    {21, "ERROR_NOT_READY"},
    {23, "ERROR_CRC"},
    {31, "ERROR_GEN_FAILURE"},
    {32, "ERROR_SHARING_VIOLATION"},
    {50, "ERROR_NOT_SUPPORTED"},
    {55, "ERROR_DEV_NOT_EXIST"},
    {87, "ERROR_INVALID_PARAMETER"},
    {121, "ERROR_SEM_TIMEOUT"},
    {122, "ERROR_INSUFFICIENT_BUFFER"},
    {170, "ERROR_BUSY"},
    {998, "ERROR_NOACCESS"},
    {1117, "ERROR_IO_DEVICE"},
    {1167, "ERROR_DEVICE_NOT_CONNECTED"},
    {1460, "ERROR_TIMEOUT"},
};

std::string ata_text(const AtaRecord& record) {
    const AtaCommand& c = record.command;
    char text[256];
    if (c.ext48) {
        std::snprintf(text, sizeof text,
                      "cmd=%02x feat=%02x%02x count=%02x%02x lba=%02x%02x%02x%02x%02x%02x dev=%02x",
                      c.command, c.featuresExt, c.features, c.countExt, c.count, c.lbaHighExt,
                      c.lbaMidExt, c.lbaLowExt, c.lbaHigh, c.lbaMid, c.lbaLow, c.device);
    } else {
        std::snprintf(text, sizeof text, "cmd=%02x feat=%02x count=%02x lba=%02x%02x%02x dev=%02x",
                      c.command, c.features, c.count, c.lbaHigh, c.lbaMid, c.lbaLow, c.device);
    }
    std::string line = "ata " + record.driveId + " " + ata_command_name(c) + ": " + text;
    switch (record.phase) {
    case DataPhase::None:
        line += " no-data";
        break;
    case DataPhase::In:
        line += " data-in=" + std::to_string(record.length);
        break;
    case DataPhase::Out:
        line += " data-out=" + std::to_string(record.length);
        break;
    }
    const AtaOutcome& o = record.outcome;
    std::snprintf(text, sizeof text, " => status=%02x error=%02x moved=%u", o.status, o.error,
                  o.bytesMoved);
    line += text;
    if (o.scsiOverride) {
        line += " scsi-status=" + hex8(o.scsiStatus) +
                " sense=" + hex_bytes(o.sense.data(), o.sense.size());
    }
    if (!record.note.empty()) {
        line += " (" + record.note + ")";
    }
    if (record.injected) {
        line += " [injected]";
    }
    return line;
}

} // namespace

std::string hex8(unsigned value) {
    char text[8];
    std::snprintf(text, sizeof text, "%02x", value & 0xFFu);
    return text;
}

std::string hex_bytes(const std::uint8_t* bytes, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        if (i != 0) {
            text += ' ';
        }
        text += hex8(bytes[i]);
    }
    return text;
}

std::string quote_text(const std::string& utf8) {
    std::string text = "\"";
    for (const char c : utf8) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\x%02x", byte);
            text += escape;
        } else {
            text += c;
        }
    }
    return text + "\"";
}

std::string control_code_name(win32::DWORD code) {
    switch (code) {
    case IOCTL_SCSI_GET_ADDRESS:
        return "IOCTL_SCSI_GET_ADDRESS";
    case IOCTL_SCSI_PASS_THROUGH_DIRECT:
        return "IOCTL_SCSI_PASS_THROUGH_DIRECT";
    case IOCTL_ATA_PASS_THROUGH_DIRECT:
        return "IOCTL_ATA_PASS_THROUGH_DIRECT";
    case IOCTL_SCSI_MINIPORT:
        return "IOCTL_SCSI_MINIPORT";
    case IOCTL_STORAGE_QUERY_PROPERTY:
        return "IOCTL_STORAGE_QUERY_PROPERTY";
    default: {
        char text[16];
        std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(code));
        return text;
    }
    }
}

std::string console_event_name(win32::DWORD event) {
    const char* name = console_events::win32_name(event);
    return name != nullptr ? name : "event " + std::to_string(event);
}

bool console_event_from_name(const std::string& name, win32::DWORD& event) {
    return console_events::from_win32_name(name, event);
}

std::string error_name(win32::DWORD error) {
    for (const NamedError& e : kErrors) {
        if (e.number == error) {
            return e.name;
        }
    }
    return "";
}

bool error_from_name(const std::string& name, win32::DWORD& error) {
    for (const NamedError& e : kErrors) {
        if (name == e.name) {
            error = e.number;
            return true;
        }
    }
    return false;
}

std::string ata_command_name(const AtaCommand& command) {
    switch (command.command) {
    case 0xEC:
        return command.features == 0x0B && command.lbaLow == 0xDB && command.lbaMid == 0x97 &&
                       command.lbaHigh == 0x20
                   ? "VENDOR IDENTIFY"
                   : "IDENTIFY DEVICE";
    case 0x2F:
        return "READ LOG EXT";
    case 0x92:
        return "DOWNLOAD MICROCODE";
    case 0x93:
        return "DOWNLOAD MICROCODE DMA";
    default:
        return "command";
    }
}

std::string call_line(const CallRecord& record) {
    std::string line = "#" + std::to_string(record.sequence) + " " + record.function;
    if (!record.request.empty()) {
        line += " " + record.request;
    }
    for (const AtaRecord& ata : record.ata) {
        line += " | " + ata_text(ata);
    }
    if (!record.result.empty()) {
        line += " -> " + record.result;
    }
    if (record.injected) {
        line += " [injected]";
    }
    return line;
}

std::string call_log_text(const std::vector<CallRecord>& log) {
    std::string text;
    for (const CallRecord& record : log) {
        text += call_line(record) + "\n";
    }
    return text;
}

} // namespace sim
