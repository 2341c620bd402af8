// One run as a plain record: what the command line asked for, the device and the drive as
// identified, the image, what was sent and how the drive answered, and how the run ended. The
// run driver fills it in the same steps that print the text; json_report writes it as the
// document of --json (docs/json.md).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "app/download_screens.hpp"
#include "app/firmware_outcome.hpp"
#include "csmi/scan_record.hpp"
#include "drive/download_firmware.hpp"
#include "drive/drive_info.hpp"
#include "platform/console.hpp"
#include "transport/device_context.hpp"

// How a run ended; each has its name in the document.
enum class RunResult {
    Updated,     // the drive runs the new firmware: it applied the image, or the activation ended
    Saved,       // the drive keeps the image for an activation or a power cycle
    Refused,     // ended before any firmware command: the command line, the image, the security
                 // state, a device that is no ATA drive, or the adapter's limit
    Failed,      // anything else that ends with an exit code other than 0
    Interrupted, // an interrupt stopped the run between two commands
    ReportShown, // /i
    Identified,  // a plain run: the drive answered IDENTIFY DEVICE, and nothing more was asked
    Scanned,     // --scan
};

// The command that failed the run, as the transport left it.
struct FailedCommand {
    AtaRegisters sent;
    std::uint32_t osError; // the operating system's last error after it
    bool timedOut;
    AtaReturnedRegisters returned; // valid false: the interface returned no registers
    ReturnedSense sense;           // valid false: no sense data came back
};

struct RecordedMessage {
    console::Severity severity;
    std::string text; // UTF-8
};

struct RunRecord {
    std::vector<std::wstring> arguments; // after the program's name, as typed

    // The device, once the command line named one.
    bool deviceNamed = false;
    std::wstring devicePath;
    std::uint64_t interfaceKind = 0;
    std::int32_t phyNumber = -1;  // CSMI: the phy, typed or found by its address
    bool sasAddressKnown = false; // CSMI: typed, or the selected phy's attached address
    std::uint8_t sasAddress[8] = {};

    // The drive as the run's first IDENTIFY DEVICE described it.
    bool identified = false;
    DriveInfo drive;
    bool reportShown = false;

    // The download and the activation, when asked for.
    bool downloadAsked = false;
    bool activationAsked = false;
    std::wstring imagePath;
    DownloadRequest request{};
    std::int32_t retryCount = 0;
    AdapterLimit adapterLimit{};
    FirmwareProgress firmware = make_firmware_progress(); // what was sent, how the drive answered
    bool downloadCountIsStatus = false; // its last command ended without ERR or DF: Count says
                                        // what the drive made of the image
    bool imageRead = false;             // by any attempt; its size and digest follow
    std::uint32_t imageBytes = 0;
    Sha256Digest imageSha256{};
    std::uint32_t firmwareCommandsSent = 0; // every DOWNLOAD MICROCODE, the activation included
    bool activationCountIsStatus = false;

    // The revision the drive reports in the run's closing IDENTIFY DEVICE.
    bool firmwareAfterRead = false;
    std::string firmwareAfter;

    // How the run ended.
    bool refused = false;
    bool failedCommandKept = false;
    FailedCommand failedCommand{};
    bool interrupted = false;
    std::uint32_t interruptEvent = 0; // the console-control event (CTRL_C_EVENT, ...)
    RunResult result = RunResult::Failed;
    int exitCode = 0;
    std::vector<RecordedMessage> messages;

    bool scanned = false;
    ScanRecord scan;
};

// The result a finished run's record and exit code give.
RunResult judge_run(const RunRecord& record, int exitCode);
