#include "app/json_report.hpp"

#include <cstdio>
#include <ostream>

#include <nlohmann/json.hpp>

#include "drive/download_request.hpp"
#include "platform/console.hpp"
#include "platform/console_event_names.hpp"
#include "platform/utf8.hpp"
#include "platform/win32.hpp"

namespace {

using Json = nlohmann::ordered_json;

// A new key bumps the minor number; a key that changes its meaning or goes, the major.
constexpr int kFormatMajor = 1;
constexpr int kFormatMinor = 0;

// The bytes of an ATA string, each one character (U+0000 to U+00FF): nothing a drive sent is
// lost, and JSON holds every character.
std::string ata_text(const std::string& bytes) {
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80) {
            text += c;
        } else {
            text += static_cast<char>(0xC0 | byte >> 6);
            text += static_cast<char>(0x80 | (byte & 0x3F));
        }
    }
    return text;
}

std::string wide_text(const std::wstring& text) {
    return utf8::to_utf8(text);
}

std::string sas_address_text(const std::uint8_t (&address)[8]) {
    char text[17];
    for (int i = 0; i < 8; ++i) {
        std::snprintf(text + 2 * i, 3, "%02x", address[i]);
    }
    return std::string(text, 16);
}

const char* interface_name(std::uint64_t kind) {
    if ((kind & Csmi) != 0) {
        return "csmi";
    }
    return (kind & AtaPassThrough) != 0 ? "ata" : "scsi";
}

const char* result_name(RunResult result) {
    switch (result) {
    case RunResult::Updated:
        return "updated";
    case RunResult::Saved:
        return "saved";
    case RunResult::Refused:
        return "refused";
    case RunResult::Interrupted:
        return "interrupted";
    case RunResult::ReportShown:
        return "report_shown";
    case RunResult::Identified:
        return "identified";
    case RunResult::Scanned:
        return "scanned";
    case RunResult::Failed:
        break;
    }
    return "failed";
}

// The console-control events by their Win32 names; Linux signals arrive as one of them.
std::string event_name(std::uint32_t event) {
    const char* name = console_events::win32_name(event);
    return name != nullptr ? name : "CTRL_EVENT_" + std::to_string(event);
}

// "\\.\SCSI3:" names port 3.
Json csmi_port(const std::wstring& path) {
    const std::wstring prefix = L"\\\\.\\SCSI";
    if (path.compare(0, prefix.size(), prefix) != 0) {
        return nullptr;
    }
    std::size_t at = prefix.size();
    int port = 0;
    for (; at < path.size() && path[at] >= L'0' && path[at] <= L'9' && port < 1000; ++at) {
        port = port * 10 + (path[at] - L'0');
    }
    if (at == prefix.size() || at + 1 != path.size() || path[at] != L':') {
        return nullptr;
    }
    return port;
}

Json device_object(const RunRecord& record) {
    Json device = Json::object();
    device["path"] = wide_text(record.devicePath);
    device["interface"] = interface_name(record.interfaceKind);
    if ((record.interfaceKind & Csmi) != 0) {
        device["port"] = csmi_port(record.devicePath);
        device["phy"] = record.phyNumber >= 0 ? Json(record.phyNumber) : Json(nullptr);
        device["sas_address"] =
            record.sasAddressKnown ? Json(sas_address_text(record.sasAddress)) : Json(nullptr);
    }
    return device;
}

Json drive_object(const DriveInfo& drive) {
    const char* security = security_state_label(drive.securityState);
    return Json{
        {"model", ata_text(drive.modelNumber)},
        {"serial", ata_text(drive.serialNumber)},
        {"firmware", ata_text(drive.firmwareRevision)},
        {"security_state", security != nullptr ? Json(security) : Json(nullptr)},
        {"download_microcode",
         {{"supported", drive.dmSupported != 0},
          {"dma", drive.dmDmaSupported != 0},
          {"mode_3", drive.dmMode3Supported != 0},
          {"offsets_deferred", drive.dmOffsetsDeferredSupported != 0},
          {"clears_nonactivated_deferred_data", drive.dmClearsNonactivatedDeferredData != 0},
          {"min_blocks", drive.dmMinBlocks},
          {"max_blocks", drive.dmMaxBlocks}}},
    };
}

Json image_object(const RunRecord& record) {
    Json image = Json::object();
    image["path"] = wide_text(record.imagePath);
    if (record.imageRead) {
        image["bytes"] = record.imageBytes;
        image["sha256"] = sha256_hex(record.imageSha256);
    }
    return image;
}

Json download_object(const RunRecord& record) {
    Json download = Json::object();
    const DownloadRecord& last = record.firmware.download;
    download["mode"] = record.downloadAsked ? Json(record.request.downloadMode) : Json(nullptr);
    download["segment_blocks"] = record.request.segmentBlocks;
    download["timeout_seconds"] = record.request.timeoutSeconds;
    download["retries"] = record.retryCount;
    download["attempts"] = record.firmware.attempts;
    download["transfers_planned"] = last.transfersPlanned;
    download["transfers_sent"] = last.transfersSent;
    download["timed_out"] = last.timedOut;
    download["count"] = record.downloadCountIsStatus ? Json(last.count) : Json(nullptr);
    if (record.adapterLimit.asked) {
        download["adapter_limit_bytes"] =
            record.adapterLimit.answered ? Json(record.adapterLimit.bytes) : Json(nullptr);
    }
    if (record.activationAsked) {
        download["activation"] = Json{
            {"sent", activation_sent(record.firmware)},
            {"completed", activation_completed(record.firmware)},
            {"timed_out", record.firmware.activation.timedOut},
            {"count", record.activationCountIsStatus ? Json(record.firmware.activation.count)
                                                     : Json(nullptr)},
        };
    }
    return download;
}

Json failed_command_object(const FailedCommand& failed) {
    Json command = Json{
        {"command", failed.sent.command},
        {"features", failed.sent.features},
        {"os_error", failed.osError},
        {"timed_out", failed.timedOut},
    };
    if (failed.returned.valid) {
        const AtaReturnedRegisters& r = failed.returned;
        command["registers"] =
            Json{{"status", r.status},  {"error", r.error},    {"count", r.count},
                 {"lba_low", r.lbaLow}, {"lba_mid", r.lbaMid}, {"lba_high", r.lbaHigh},
                 {"device", r.device}};
    }
    if (failed.sense.valid) {
        command["sense"] =
            Json{{"key", failed.sense.key}, {"asc", failed.sense.asc}, {"ascq", failed.sense.ascq}};
    }
    return command;
}

Json outcome_object(const RunRecord& record) {
    Json outcome = Json{{"result", result_name(record.result)}, {"exit_code", record.exitCode}};
    if (record.failedCommandKept && record.result == RunResult::Failed) {
        outcome["failed_command"] = failed_command_object(record.failedCommand);
    }
    if (record.interrupted) {
        outcome["interrupt"] = Json{{"event", event_name(record.interruptEvent)}};
    }
    return outcome;
}

Json scan_object(const ScanRecord& scan) {
    Json controllers = Json::array();
    for (const ScannedController& controller : scan.controllers) {
        Json drives = Json::array();
        for (const ScannedDrive& drive : controller.drives) {
            drives.push_back(Json{
                {"phy", drive.phy},
                {"sas_address_attached", sas_address_text(drive.attachedSasAddress)},
                {"sas_address_identify", sas_address_text(drive.identifySasAddress)},
                {"model", ata_text(drive.model)},
                {"serial", ata_text(drive.serial)},
                {"firmware", ata_text(drive.firmware)},
            });
        }
        controllers.push_back(Json{
            {"port", controller.port},
            {"driver", ata_text(controller.driverName)},
            {"description", ata_text(controller.driverDescription)},
            {"drives", drives},
        });
    }
    return Json{{"controllers", controllers}};
}

Json document_of(const RunRecord& record) {
    Json arguments = Json::array();
    for (const std::wstring& argument : record.arguments) {
        arguments.push_back(wide_text(argument));
    }
    Json document = Json::object();
    document["format_version"] = Json::array({kFormatMajor, kFormatMinor});
    document["quenmark"] = Json{
        {"version", QUENMARK_VERSION}, {"arguments", arguments}, {"platform", win32::kBackendName}};
    if (record.deviceNamed) {
        document["device"] = device_object(record);
    }
    if (record.identified) {
        document["drive"] = drive_object(record.drive);
    }
    if (record.downloadAsked) {
        document["image"] = image_object(record);
    }
    if (record.downloadAsked || record.activationAsked) {
        document["download"] = download_object(record);
    }
    if (record.firmwareAfterRead) {
        document["firmware_after"] = ata_text(record.firmwareAfter);
    }
    document["outcome"] = outcome_object(record);
    Json messages = Json::array();
    for (const RecordedMessage& message : record.messages) {
        messages.push_back(
            Json{{"severity", message.severity == console::Severity::Error ? "error" : "warning"},
                 {"text", message.text}});
    }
    document["messages"] = messages;
    if (record.scanned) {
        document["scan"] = scan_object(record.scan);
    }
    return document;
}

} // namespace

bool json_document(const RunRecord& record, std::string& text) {
    text.clear();
    try {
        text = document_of(record).dump(2, ' ', false, Json::error_handler_t::replace);
        text += '\n';
        return true;
    } catch (...) {
        text.clear();
        return false;
    }
}

Status write_json_report(const RunRecord& record) {
    std::string text;
    if (!json_document(record, text)) {
        console::err() << "The --json document could not be written." << std::endl;
        return Status::Failed;
    }
    console::write_standard_output(text);
    return Status::Success;
}
