#include <cstdio>
#include <cstring>
#include <ostream>

#include "app/command_line.hpp"
#include "app/download_screens.hpp"
#include "app/firmware_outcome.hpp"
#include "app/json_report.hpp"
#include "app/report.hpp"
#include "app/run_driver.hpp"
#include "app/run_record.hpp"
#include "csmi/csmi.hpp"
#include "drive/download_firmware.hpp"
#include "drive/identify.hpp"
#include "drive/inquire_device.hpp"
#include "platform/console.hpp"
#include "platform/interrupts.hpp"
#include "transport/transport.hpp"

namespace {

constexpr int kExitInfoShown = 10;
constexpr int kExitSecurityRefused = 6;
constexpr win32::DWORD kPauseAfterAttemptMs = 2000;

// SEC4 is always refused; SEC5 and SEC6 only when /l asks for it.
bool refuse_for_security(const DriveInfo& driveInfo, const DeviceContext& context) {
    const char* message = nullptr;
    switch (driveInfo.securityState) {
    case SEC4:
        message = "Err: ATA SECURITY LOCKED";
        break;
    case SEC5:
        message = context.optionL == 1 ? "Err: ATA SECURITY ENABLED (SEC5)" : nullptr;
        break;
    case SEC6:
        message = context.optionL == 1 ? "Err: ATA SECURITY ENABLED (SEC6)" : nullptr;
        break;
    default:
        break;
    }
    if (message == nullptr) {
        return false;
    }
    if (context.verbose != 0) {
        const console::Message line(console::Severity::Error);
        console::out() << message << std::endl;
    }
    return true;
}

// A download or an activation goes out only to an ATA drive, and only in data phases that the
// adapter carries; a refusal ends the run before any firmware command, the activation included.
Status screen_download(DeviceContext& context, const RunOptions& options,
                       const DriveInfo& driveInfo, AdapterLimit& limit) {
    if ((context.interfaceKind & (DownloadRequested | ActivateRequested)) == 0) {
        return Status::Success;
    }
    const Status device = screen_ata_device(driveInfo);
    if (device != Status::Success) {
        return device;
    }
    return screen_transfer_limit(context, options, limit);
}

// The command that failed the run, kept before any later command replaces what the transport
// left in the context.
void keep_failed_command(RunRecord& run, const DeviceContext& context, Status status) {
    run.failedCommandKept = true;
    run.failedCommand = FailedCommand{context.registers, context.lastError,
                                      status == Status::TimedOut, context.returned, context.sense};
}

// A call of the download engine, in the record: the image it read, the commands it sent, and
// the command that failed it. The Count of a command the drive ended with ERR or DF is no
// download status; it stays with the failed command's registers.
bool note_download_call(RunRecord& run, const DeviceContext& context, const DownloadRecord& call,
                        Status status) {
    constexpr std::uint8_t kErrorOrDeviceFault = 0x21;
    run.firmwareCommandsSent += call.transfersSent;
    if (call.imageRead && call.mode != kModeActivate) {
        run.imageRead = true;
        run.imageBytes = call.imageBytes;
        run.imageSha256 = call.imageSha256;
    }
    if (status != Status::Success && status != Status::Interrupted && call.transfersSent != 0) {
        keep_failed_command(run, context, status);
    }
    return call.countReturned && (context.returned.status & kErrorOrDeviceFault) == 0;
}

// A command that timed out may have left the drive writing its flash: no retry goes after it.
bool retry_left(Status status, std::int32_t attempt, const RunOptions& options) {
    return status != Status::Success && status != Status::TimedOut &&
           status != Status::Interrupted && attempt <= options.retryCount;
}

// Neither does an activation (send_firmware). An interrupt ends the pause early and keeps back
// any retry.
Status run_download_attempts(DeviceContext& context, const RunOptions& options, RunRecord& run) {
    FirmwareProgress& progress = run.firmware;
    Status status = Status::Failed;
    std::int32_t attempt = 0;
    do {
        if (attempt > 0) {
            const console::Message message(console::Severity::Warning);
            console::out() << "Retrying... " << attempt << std::endl;
        }
        status = download_firmware(context, options.request, progress.download);
        progress.attempts = ++attempt;
        progress.downloadStatus = status;
        run.downloadCountIsStatus = note_download_call(run, context, progress.download, status);
        console::out() << std::endl;
        if (!interrupts::pending()) {
            win32::Sleep(kPauseAfterAttemptMs);
        }
        console::out() << std::endl;
    } while (retry_left(status, attempt, options) && !interrupts::pending());
    if (status == Status::Interrupted ||
        (interrupts::pending() && retry_left(status, attempt, options))) {
        progress.interruptKeptBack = true;
    }
    return status;
}

Status activate(DeviceContext& context, const RunOptions& options, RunRecord& run) {
    FirmwareProgress& progress = run.firmware;
    DownloadRequest activation = options.request;
    activation.downloadMode = kModeActivate;
    activation.segmentBlocks = 0;
    progress.activationBegun = true;
    progress.activationStatus = download_firmware(context, activation, progress.activation);
    run.activationCountIsStatus =
        note_download_call(run, context, progress.activation, progress.activationStatus);
    if (progress.activationStatus == Status::Interrupted) {
        progress.interruptKeptBack = true;
    }
    return progress.activationStatus;
}

// Before the first firmware command an interrupt ends the run at once; true when it does.
bool stop_before_firmware(bool watched, FirmwareProgress& progress) {
    if (!watched || !interrupts::pending()) {
        return false;
    }
    progress.interruptKeptBack = true;
    return true;
}

// The firmware commands and the closing IDENTIFY DEVICE, once the drive passed every screen.
Status send_firmware(DeviceContext& context, const RunOptions& options, DriveInfo& driveInfo,
                     Status& identified, RunRecord& run) {
    FirmwareProgress& progress = run.firmware;
    Status status = Status::Success;
    if ((context.interfaceKind & DownloadRequested) != 0) {
        vendor_identify(context);
        if (stop_before_firmware(true, progress)) {
            return Status::Interrupted;
        }
        status = run_download_attempts(context, options, run);
    }
    if ((context.interfaceKind & ActivateRequested) != 0 && status != Status::TimedOut) {
        if (interrupts::pending()) {
            progress.interruptKeptBack = true;
        } else {
            status = activate(context, options, run);
        }
    }
    run.refused = status == Status::BadFirmwareFile;
    // The closing IDENTIFY DEVICE goes out with the registers the last command left: after a
    // download refused before its first command, the vendor identify's.
    const bool vendorData = is_vendor_identify(context.registers);
    identified = identify_device(context, driveInfo);
    run.firmwareAfterRead = identified == Status::Success && !vendorData;
    run.firmwareAfter = driveInfo.firmwareRevision;
    if (status == Status::TimedOut) {
        print_timeout_outcome(progress.activationBegun ? progress.activation : progress.download,
                              identified, driveInfo);
    }
    return status;
}

// The device as the command line names it, and the CSMI phy and address once the port opened.
void note_device(RunRecord& run, const DeviceContext& context, const RunOptions& options,
                 bool selected) {
    run.deviceNamed = true;
    run.devicePath = options.devicePath;
    run.interfaceKind = context.interfaceKind & (ScsiPassThrough | AtaPassThrough | Csmi);
    if ((context.interfaceKind & Csmi) == 0) {
        return;
    }
    run.phyNumber = options.phyNumber;
    const std::uint8_t zero[8] = {};
    run.sasAddressKnown = std::memcmp(options.sasAddress, zero, sizeof zero) != 0;
    std::memcpy(run.sasAddress, options.sasAddress, sizeof run.sasAddress);
    if (selected) {
        CSMI_SAS_PHY_ENTITY phy;
        std::memcpy(&phy, context.phyEntity, sizeof phy);
        run.sasAddressKnown = true;
        std::memcpy(run.sasAddress, phy.Attached.bSASAddress, sizeof run.sasAddress);
    }
}

void note_request(RunRecord& run, const DeviceContext& context, const RunOptions& options) {
    run.downloadAsked = (context.interfaceKind & DownloadRequested) != 0;
    run.activationAsked = (context.interfaceKind & ActivateRequested) != 0;
    run.imagePath = options.request.fileName;
    run.request = options.request;
    run.retryCount = options.retryCount;
}

int run(const CommandLine& commandLine, int argumentCount, const char* programName,
        RunRecord& record);

} // namespace

RunOptions make_run_options() {
    RunOptions options;
    std::memset(&options, 0, sizeof options);
    options.phyNumber = -1;
    options.request.downloadMode = kModeImmediate;
    options.request.segmentBlocks = 0x40;
    options.request.timeoutSeconds = kDefaultDownloadTimeoutSeconds;
    return options;
}

int map_status_to_exit_code(Status status) {
    switch (static_cast<std::int32_t>(status)) {
    case 1:
        return 0;
    case 11:
    case 14:
        return 1;
    case 2:
        return 2;
    case 4:
        return 4;
    case 8:
        return 8;
    case 9:
        return 9;
    case 12:
        return 6;
    case 13:
        return 5;
    case 15:
        return 3;
    default:
        return 10;
    }
}

// A document instead of the console texts: standard output holds it alone, the lines that go to
// standard error still do, and every error and warning line is kept in it.
int quenmark_main(int argumentCount, char** arguments) {
    const char* programName = argumentCount > 0 ? arguments[0] : "";
    const CommandLine commandLine = read_command_line(argumentCount, arguments);
    RunRecord record;
    record.arguments = commandLine.typed;
    if (!commandLine.json) {
        return run(commandLine, argumentCount, programName, record);
    }
    console::mute_standard_output(true);
    console::set_message_listener([&record](console::Severity severity, std::string text) {
        record.messages.push_back(RecordedMessage{severity, std::move(text)});
    });
    const int exitCode = run(commandLine, argumentCount, programName, record);
    console::set_message_listener(nullptr);
    console::mute_standard_output(false);
    record.exitCode = exitCode;
    record.result = judge_run(record, exitCode);
    write_json_report(record);
    return exitCode;
}

namespace {

int run(const CommandLine& commandLine, int argumentCount, const char* programName,
        RunRecord& record) {
    DeviceContext context = make_device_context();
    RunOptions options = make_run_options();
    DriveInfo driveInfo;

    const ParseResult parsed =
        parse_command_line(commandLine, argumentCount, programName, context, options);
    if (!parsed.proceed) {
        record.refused = true;
        return parsed.exitCode;
    }
    options.request.digestImage = commandLine.json;
    note_request(record, context, options);

    if ((context.interfaceKind & ScanRequested) != 0) {
        print_banner();
        record.scanned = true;
        scan_csmi_devices(context.verbose, record.scan);
        return 0;
    }

    // Only a run that sends firmware takes interrupts over; any other ends at once, as it always
    // did.
    const bool watched = (context.interfaceKind & (DownloadRequested | ActivateRequested)) != 0 &&
                         (context.interfaceKind & InfoRequested) == 0;
    if (watched) {
        interrupts::watch();
    }
    FirmwareProgress& progress = record.firmware;
    Status identified = Status::Failed;

    if (context.verbose != 0) {
        print_selection(options, context);
    }

    Status status =
        (context.interfaceKind & Csmi) != 0
            ? open_csmi_device(context, options.devicePath, options.phyNumber, options.sasAddress)
            : open_device(context, options.devicePath);
    note_device(record, context, options, status == Status::Success);
    // The stages before the first firmware command only read: an interrupt that comes during
    // them is acted on once the screens have said whether the run would send anything at all.
    if (context.handle != INVALID_HANDLE_VALUE && status == Status::Success) {
        inquire_device(context, driveInfo);
        status = identify_device(context, driveInfo);
        if (status != Status::Success) {
            keep_failed_command(record, context, status);
        } else {
            record.identified = true;
            record.drive = driveInfo;
            if ((context.interfaceKind & InfoRequested) != 0 || context.verbose != 0) {
                print_drive_report(driveInfo, options.request.segmentBlocks);
            }
            // The handle of these two ends is released with the process.
            if ((context.interfaceKind & InfoRequested) != 0) {
                record.reportShown = true;
                return kExitInfoShown;
            }
            if (refuse_for_security(driveInfo, context)) {
                record.refused = true;
                if (watched && interrupts::pending()) {
                    print_interrupt_outcome(progress, identified, driveInfo);
                }
                return kExitSecurityRefused;
            }
            status = screen_download(context, options, driveInfo, record.adapterLimit);
            record.refused = status != Status::Success;
            if (status == Status::Success && !stop_before_firmware(watched, progress)) {
                status = send_firmware(context, options, driveInfo, identified, record);
            }
        }
    }

    if (context.handle != nullptr) {
        win32::CloseHandle(context.handle);
    }
    if (watched && interrupts::pending()) {
        print_interrupt_outcome(progress, identified, driveInfo);
        if (progress.interruptKeptBack) {
            status = Status::Interrupted;
        }
    }
    if (status == Status::Interrupted) {
        record.interrupted = true;
        record.interruptEvent = interrupts::first_event();
    }
    return map_status_to_exit_code(status);
}

} // namespace
