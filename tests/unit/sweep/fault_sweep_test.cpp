// Fault sweep: whole runs of every interface and download mode on the simulated machine. Each
// scenario runs once without a fault to learn its calls; then every platform call of that run
// fails in turn with each Windows error of the table, and every drive command in turn ends with
// each drive error of the table. Every faulted run must end with the exit code that the run
// driver's rules give for the step that failed, send nothing after a failure that ends the run,
// close each handle it opened exactly once, and leave every drive's firmware as it was unless
// the whole image went in and was activated.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

#include "app/run_driver.hpp"
#include "platform/interrupts.hpp"
#include "sim/call_log.hpp"
#include "sim/machine.hpp"
#include "sim/microcode_image.hpp"
#include "sim/text_encoding.hpp"
#include "unit/support/console_capture.hpp"

namespace {

namespace fs = std::filesystem;

// A disk on \\.\PhysicalDrive0 (SAT bridge and ATA pass-through), one behind an adapter that
// carries at most 64 KiB a command on \\.\PhysicalDrive1, and a controller on port 2 with a SATA
// drive on phy 0, a SAS target on phy 1, an expander on phy 3 and an STP drive on phy 4.
constexpr char kMachine[] = R"({
  "drives": [
    {"id": "disk", "model": "QSIM SWEEP DISK", "serial": "QZ0000000001", "firmware": "QZ010000"},
    {"id": "sata", "model": "QSIM SWEEP SATA", "serial": "QZ0000000002", "firmware": "QZ010000"},
    {"id": "stp", "model": "QSIM SWEEP STP", "serial": "QZ0000000003", "firmware": "QZ010000"},
    {"id": "narrow", "model": "QSIM SWEEP NARROW", "serial": "QZ0000000004", "firmware": "QZ010000"}
  ],
  "disks": [{"path": "\\\\.\\PhysicalDrive0", "drive": "disk",
             "address": {"port": 1, "path": 0, "target": 2, "lun": 0}},
            {"path": "\\\\.\\PhysicalDrive1", "drive": "narrow", "maxTransferBytes": 65536,
             "address": {"port": 1, "path": 0, "target": 3, "lun": 0}}],
  "controllers": [{"port": 2, "driver": {"name": "qsas", "description": "QSIM SAS/SATA HBA"},
    "phys": [
      {"phy": 0, "portIdentifier": 0, "identify": {"initiatorProtocol": 15, "sasAddress": "5000000000000a01"},
       "attached": {"targetProtocol": 1, "sasAddress": "5000000000000b02"}, "drive": "sata"},
      {"phy": 1, "portIdentifier": 1, "identify": {"initiatorProtocol": 15, "sasAddress": "5000000000000a01"},
       "attached": {"targetProtocol": 8, "sasAddress": "5000000000000c03"}},
      {"phy": 3, "portIdentifier": 3, "identify": {"initiatorProtocol": 15, "sasAddress": "5000000000000a01"},
       "attached": {"deviceType": 32, "targetProtocol": 2, "sasAddress": "5000000000000e05"}},
      {"phy": 4, "portIdentifier": 7, "identify": {"initiatorProtocol": 15, "sasAddress": "5000000000000a01"},
       "attached": {"targetProtocol": 4, "sasAddress": "0000000500000000"}, "drive": "stp"}
    ]}]
})";

// Three full transfers of 64 blocks and a remainder of 4 in the segmented modes.
constexpr std::uint32_t kImageBytes = 100352;

enum class Wire { Sat, Ata, Csmi, Scan };

// The scenario table: every interface, crossed with every download mode and both endings.
struct Scenario {
    std::string name;
    Wire wire;
    std::vector<std::string> arguments; // after the program name; kImage names the file
    std::string drive = {};             // the drive the run updates; none for a scan
    bool activate = false;              // with /a; without it, /r 1
    // The whole image in one command exceeds the adapter's limit: a run whose limit query is
    // answered ends before the vendor identify.
    bool overLimit = false;

    bool download() const { return wire != Wire::Scan; }
    int retries() const { return download() && !activate ? 1 : 0; }
};

const std::string kImage = "/D:<image>";

// Test listings name the scenario rather than dump its bytes.
void PrintTo(const Scenario& scenario, std::ostream* out) {
    *out << scenario.name;
}

std::vector<Scenario> scenarios() {
    const struct {
        const char* name;
        Wire wire;
        const char* device;
        const char* drive;
    } interfaces[] = {
        {"ScsiPassThrough", Wire::Sat, "\\\\.\\PhysicalDrive0", "disk"},
        {"AtaPassThrough", Wire::Ata, "/T:\\\\.\\PhysicalDrive0", "disk"},
        {"CsmiByPhy", Wire::Csmi, "/C:\\\\.\\SCSI2:0", "sata"},
        {"CsmiByAddress", Wire::Csmi, "/C:2,0000000500000000", "stp"},
    };
    const std::pair<const char*, const char*> modes[] = {
        {"Immediate", ""}, {"Segmented", "/s"}, {"Deferred", "/e"}};
    std::vector<Scenario> table;
    for (const auto& i : interfaces) {
        for (const auto& [mode, modeOption] : modes) {
            for (const bool vv : {false, true}) { // /vv prints every register and FIS dump
                for (const bool activate : {true, false}) {
                    const std::string name = std::string(i.name) + mode +
                                             (activate ? "Activate" : "Retry1") + (vv ? "Vv" : "");
                    Scenario s{name, i.wire, {i.device, kImage}, i.drive, activate};
                    for (const char* option : {modeOption, vv ? "/vv" : "", activate ? "/a" : "/r",
                                               activate ? "" : "1"}) {
                        if (*option != '\0') {
                            s.arguments.push_back(option);
                        }
                    }
                    table.push_back(s);
                }
            }
        }
    }
    // The 100,352-byte image in one command to \\.\PhysicalDrive1, whose adapter carries 65,536.
    for (const auto& i : {interfaces[0], interfaces[1]}) {
        std::string device = i.device;
        device.back() = '1';
        const std::string name = std::string(i.name) + "ImmediateOverLimitActivateVv";
        Scenario s{name, i.wire, {device, kImage, "/a", "/vv"}, "narrow", true};
        s.overLimit = true;
        table.push_back(s);
    }
    table.push_back({"Scan", Wire::Scan, {"--scan"}});
    table.push_back({"ScanVv", Wire::Scan, {"--scan", "/vv"}});
    return table;
}

// The fault-kind table: what fails, and how.
enum class Target { PlatformCall, DriveCommand, StpReturnCode };

struct FaultKind {
    const char* name;
    Target target;
    win32::DWORD windowsError = 0;    // PlatformCall
    std::uint8_t ataStatus = 0x51;    // DriveCommand
    std::uint8_t ataError = 0x04;     // DriveCommand
    bool checkCondition = false;      // DriveCommand: on the SAT bridge only
    std::uint32_t csmiReturnCode = 0; // StpReturnCode: CSMI only
};

const FaultKind kFaultKinds[] = {
    {"ERROR_INVALID_FUNCTION", Target::PlatformCall, ERROR_INVALID_FUNCTION},
    {"ERROR_ACCESS_DENIED", Target::PlatformCall, ERROR_ACCESS_DENIED},
    {"ERROR_IO_DEVICE", Target::PlatformCall, ERROR_IO_DEVICE},
    {"ERROR_SEM_TIMEOUT", Target::PlatformCall, ERROR_SEM_TIMEOUT},
    {"ATA abort 51/04", Target::DriveCommand, 0, 0x51, 0x04},
    {"CRC abort 51/84", Target::DriveCommand, 0, 0x51, 0x84},
    {"CHECK CONDITION", Target::DriveCommand, 0, 0x51, 0x04, true},
    {"ReturnCode 3", Target::StpReturnCode, 0, 0, 0, false, 3},
};

bool applies(const FaultKind& kind, Wire wire) {
    if (kind.target == Target::StpReturnCode) {
        return wire == Wire::Csmi || wire == Wire::Scan;
    }
    return !kind.checkCondition || wire == Wire::Sat;
}

// One fault of one kind at one place: the platform call of that sequence number, or the nth
// drive command of that opcode, or the nth STP request.
struct Fault {
    const FaultKind* kind = nullptr;
    std::uint64_t call = 0;
    std::uint8_t opcode = 0;
    std::uint32_t nth = 0;

    std::string text() const {
        std::ostringstream s;
        s << kind->name << " on ";
        if (kind->target == Target::PlatformCall) {
            s << "call #" << call;
        } else if (kind->target == Target::DriveCommand) {
            s << "command 0x" << std::hex << unsigned{opcode} << std::dec << " #" << nth;
        } else {
            s << "STP request #" << nth;
        }
        return s.str();
    }
};

void inject(const Fault& fault) {
    sim::Machine& m = sim::machine();
    const FaultKind& kind = *fault.kind;
    if (kind.target == Target::PlatformCall) {
        sim::CallFault f;
        f.call = fault.call;
        f.error = kind.windowsError;
        m.faults.calls.push_back(f);
    } else if (kind.target == Target::DriveCommand) {
        sim::CommandFault f;
        f.command = fault.opcode;
        f.nth = fault.nth;
        f.status = kind.ataStatus;
        f.error = kind.ataError;
        if (kind.checkCondition) {
            // Fixed-format sense: ABORTED COMMAND, the ATA registers in the information bytes.
            f.scsiStatus = 0x02;
            f.sense = {0x70,           0,    0x0B, 0, 0, 0, 0, 0x0A, kind.ataError,
                       kind.ataStatus, 0x40, 0,    0, 0, 0, 0, 0,    0};
        }
        m.faults.commands.push_back(f);
    } else {
        for (sim::CsmiController& controller : m.controllers) {
            sim::CsmiFault f;
            f.controlCode = 25; // STP pass-through
            f.nth = fault.nth;
            f.returnCode = kind.csmiReturnCode;
            controller.faults.push_back(f);
        }
    }
}

struct RunResult {
    int exitCode = -1;
    std::string err; // standard error
    std::vector<sim::CallRecord> log;
    std::map<std::string, std::string> revisionsBefore, revisionsAfter;
};

std::map<std::string, std::string> revisions() {
    std::map<std::string, std::string> result;
    for (const sim::Drive& drive : sim::machine().drives) {
        result[drive.id] = sim::firmware_revision(drive);
    }
    return result;
}

RunResult run(const Scenario& scenario, const std::string& image, const Fault* fault,
              const sim::InterruptFault* interrupt = nullptr) {
    sim::reset_machine();
    interrupts::reset();
    std::string error;
    if (!sim::load_machine(kMachine, "", error)) {
        ADD_FAILURE() << error;
        return {};
    }
    if (fault != nullptr) {
        inject(*fault);
    }
    if (interrupt != nullptr) {
        sim::machine().faults.interrupts.push_back(*interrupt);
    }
    std::vector<std::string> narrow{"quenmark"};
    for (const std::string& argument : scenario.arguments) {
        narrow.push_back(argument == kImage ? "/D:" + image : argument);
    }
    std::vector<std::wstring> wide;
    std::vector<char*> argv;
    for (std::string& argument : narrow) {
        wide.push_back(sim::wide_from_utf8(argument));
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    sim::set_command_line(wide);

    RunResult result;
    result.revisionsBefore = revisions();
    {
        ConsoleCapture capture;
        result.exitCode = quenmark_main(static_cast<int>(narrow.size()), argv.data());
        result.err = capture.err;
    }
    result.log = sim::machine().log;
    result.revisionsAfter = revisions();
    sim::reset_machine();
    return result;
}

// ---- The oracle ---------------------------------------------------------------------------

enum class Stage {
    Parse,
    Open,
    Address,
    PhyTable,
    Config,
    DriverInfo,
    Inquiry,
    Identify,
    ReadLog,
    AdapterQuery,
    Vendor,
    Transfer,
    Activate,
    Ssp,
    Pause,
    Close,
    Unknown
};

const char* stage_name(Stage stage) {
    static const char* const names[] = {
        "command line",    "open",     "address query", "phy table",    "controller config",
        "driver info",     "INQUIRY",  "IDENTIFY",      "READ LOG EXT", "adapter query",
        "vendor identify", "transfer", "activation",    "SSP probe",    "pause",
        "close",           "unknown"};
    return names[static_cast<int>(stage)];
}

// One platform call that counts for the run driver, as the wire saw it.
struct Step {
    Stage stage = Stage::Unknown;
    Status status = Status::Success; // what the transport must make of it
    std::uint64_t sequence = 0;
    int port = -1; // the scan: the controller port the call belongs to
};

bool has(const std::string& text, const char* part) {
    return text.find(part) != std::string::npos;
}

// A request the port driver refused never reached a drive, but its log line still shows the ATA
// command it carried: CDB bytes 4 and 14 of an ATA PASS-THROUGH(16) (counted here after its
// operation code 85), or bytes 0 and 6 of the current task file.
bool ata_registers_of_request(const std::string& request, std::uint8_t& command,
                              std::uint8_t& features) {
    const struct {
        const char* key;
        std::size_t features, command;
    } layouts[] = {{"cdb=85 ", 3, 13}, {"current=", 0, 6}};
    for (const auto& layout : layouts) {
        const std::size_t at = request.find(layout.key);
        std::istringstream in(
            at == std::string::npos ? "" : request.substr(at + std::strlen(layout.key)));
        std::vector<unsigned> bytes;
        for (unsigned value = 0; bytes.size() <= layout.command && in >> std::hex >> value;) {
            bytes.push_back(value);
        }
        if (bytes.size() > layout.command) {
            features = static_cast<std::uint8_t>(bytes[layout.features]);
            command = static_cast<std::uint8_t>(bytes[layout.command]);
            return true;
        }
    }
    return false;
}

// The stage by what crossed the wire; Unknown when the record does not tell (a call failed by
// an injected fault never reaches a driver, an STP request with a spoiled ReturnCode never
// reaches the drive).
Stage stage_by_content(const sim::CallRecord& r) {
    const std::pair<const char*, Stage> byFunction[] = {{"CommandLineToArgvW", Stage::Parse},
                                                        {"CreateFileW", Stage::Open},
                                                        {"CloseHandle", Stage::Close},
                                                        {"Sleep", Stage::Pause}};
    for (const auto& [function, stage] : byFunction) {
        if (r.function == function) {
            return stage;
        }
    }
    if (r.injected) {
        return Stage::Unknown;
    }
    std::uint8_t command = 0;
    std::uint8_t features = 0;
    if (!r.ata.empty()) {
        command = r.ata.front().command.command;
        features = r.ata.front().command.features;
    } else {
        ata_registers_of_request(r.request, command, features);
    }
    switch (command) {
    case 0:
        break;
    case 0xEC:
        return features == 0x0B ? Stage::Vendor : Stage::Identify;
    case 0x2F:
        return Stage::ReadLog;
    case 0x92:
        return features == 0x0F ? Stage::Activate : Stage::Transfer;
    default:
        return Stage::Unknown;
    }
    switch (r.ioControlCode) {
    case IOCTL_SCSI_GET_ADDRESS:
        return Stage::Address;
    case IOCTL_STORAGE_QUERY_PROPERTY:
        return Stage::AdapterQuery;
    case IOCTL_SCSI_PASS_THROUGH_DIRECT:
        return Stage::Inquiry; // the only pass-through here that carries no ATA command
    case IOCTL_SCSI_MINIPORT:
        return has(r.request, "csmi=GET_PHY_INFO")       ? Stage::PhyTable
               : has(r.request, "csmi=GET_CNTLR_CONFIG") ? Stage::Config
               : has(r.request, "csmi=GET_DRIVER_INFO")  ? Stage::DriverInfo
               : has(r.request, "csmi=SSP_PASSTHRU")     ? Stage::Ssp
                                                         : Stage::Unknown;
    default:
        return Stage::Unknown;
    }
}

// What the transport of this wire makes of a call that carried an ATA command.
Status command_status(Wire wire, Stage stage, const sim::CallRecord& r) {
    const bool download = stage == Stage::Transfer || stage == Stage::Activate;
    if (!r.succeeded && download && r.error == ERROR_SEM_TIMEOUT) {
        return Status::TimedOut;
    }
    if (!r.succeeded) {
        const bool notOffered =
            wire != Wire::Csmi && wire != Wire::Scan && r.error == ERROR_INVALID_FUNCTION;
        return notOffered ? Status::InterfaceNotSupported : Status::Failed;
    }
    switch (wire) {
    case Wire::Sat:
        // The last transfer asks for the drive's registers: RECOVERED ERROR 00/1D carries them.
        return has(r.result, "scsi-status=02") && !has(r.result, "sense=72 01 00 1d")
                   ? Status::DeviceError
                   : Status::Success;
    case Wire::Ata: {
        if (r.ata.empty()) {
            return Status::DeviceError;
        }
        const sim::AtaRecord& a = r.ata.front();
        if (a.outcome.status == 0x50) {
            return Status::Success;
        }
        if (a.outcome.error == 0x84) {
            return Status::CrcAbort;
        }
        const bool wholeDataIn = a.phase == sim::DataPhase::In && a.outcome.bytesMoved == a.length;
        return wholeDataIn ? Status::Success : Status::DeviceError;
    }
    case Wire::Csmi:
    case Wire::Scan:
        // The ending ATA status travels in the status FIS: ERR or DF there is the drive's error.
        if (!has(r.result, "srb-return-code=0")) {
            return Status::Failed;
        }
        return !r.ata.empty() && (r.ata.front().outcome.status & 0x21) != 0 ? Status::DeviceError
                                                                            : Status::Success;
    }
    return Status::Failed;
}

Status step_status(Wire wire, Stage stage, const sim::CallRecord& r) {
    if (stage == Stage::Identify || stage == Stage::ReadLog || stage == Stage::Vendor ||
        stage == Stage::Transfer || stage == Stage::Activate) {
        return command_status(wire, stage, r);
    }
    if (r.succeeded) {
        // The scan judges the controller configuration and the driver information by the last
        // error alone, which a successful request leaves as it was; only CreateFileW clears it.
        return Status::Success;
    }
    const bool noDevice = stage == Stage::Address || (stage == Stage::Open && wire != Wire::Csmi);
    return noDevice ? Status::NoDevice : Status::Failed;
}

// The steps of a run's log. reference maps sequence numbers to the stages of the run without a
// fault, for the call whose record does not tell (the run is the same up to that call).
std::vector<Step> steps_of(Wire wire, const std::vector<sim::CallRecord>& log,
                           const std::map<std::uint64_t, Stage>& reference) {
    std::vector<Step> steps;
    int port = -1;
    for (const sim::CallRecord& r : log) {
        if (r.function == "GetLastError" || r.function == "SetLastError" ||
            r.function == "GetCommandLineW" || r.function == "SetConsoleCtrlHandler") {
            continue;
        }
        Stage stage = stage_by_content(r);
        if (stage == Stage::Unknown) {
            const auto known = reference.find(r.sequence);
            stage = known != reference.end() ? known->second : Stage::Unknown;
        }
        if (r.function == "CreateFileW") {
            const std::size_t at = r.request.find("SCSI");
            port = at == std::string::npos ? -1 : std::atoi(r.request.c_str() + at + 4);
        }
        Step step{stage, step_status(wire, stage, r), r.sequence, port};
        // Judged by the last error: a refused controller configuration spoils the driver
        // information request that follows on the same port.
        if (stage == Stage::DriverInfo && !steps.empty() && steps.back().stage == Stage::Config &&
            steps.back().status != Status::Success) {
            step.status = Status::Failed;
        }
        steps.push_back(step);
    }
    return steps;
}

int exit_code_of(Status status) {
    const std::map<Status, int> codes = {{Status::Success, 0},
                                         {Status::DeviceError, 1},
                                         {Status::TimedOut, 1},
                                         {Status::NoDevice, 2},
                                         {Status::BadFirmwareFile, 4},
                                         {Status::CrcAbort, 5},
                                         {Status::InterfaceNotSupported, 9}};
    const auto found = codes.find(status);
    return found != codes.end() ? found->second : 10;
}

// Walks the steps of a device run in the order the run driver makes its calls; the first step
// that departs from that order is the problem.
class Walk {
public:
    explicit Walk(const std::vector<Step>& steps) : steps_(steps) {}

    // Takes the next step when it is of this stage; true when it succeeded.
    bool next(Stage stage) {
        if (!problem.empty() || at_ >= steps_.size() || steps_[at_].stage != stage) {
            depart(std::string("expected ") + stage_name(stage));
            status = Status::Failed;
            return false;
        }
        status = steps_[at_++].status;
        return status == Status::Success;
    }
    // The run ends here: nothing may follow.
    int end(int exitCode) {
        if (at_ < steps_.size()) {
            depart("expected the end of the run");
        }
        return exitCode;
    }
    // The run driver's last step: close the handle, map the status.
    int close(Status runStatus) {
        next(Stage::Close);
        return end(exit_code_of(runStatus));
    }

    Status status = Status::Success;
    std::string problem;

private:
    void depart(const std::string& what) {
        if (!problem.empty()) {
            return;
        }
        std::ostringstream s;
        s << what << " but ";
        if (at_ < steps_.size()) {
            s << "call #" << steps_[at_].sequence << " is " << stage_name(steps_[at_].stage);
        } else {
            s << "the run ended";
        }
        problem = s.str();
    }

    const std::vector<Step>& steps_;
    std::size_t at_ = 0;
};

// The exit code of a device run whose calls the steps record.
int expected_device_exit(const Scenario& scenario, std::size_t transfersPerAttempt, Walk& walk) {
    if (!walk.next(Stage::Parse)) {
        return walk.end(8);
    }
    const bool csmi = scenario.wire == Wire::Csmi;
    if (!walk.next(Stage::Open) || !walk.next(csmi ? Stage::PhyTable : Stage::Address)) {
        return walk.close(walk.status);
    }
    if (walk.next(Stage::Inquiry)) { // its result only decides the serial-number page
        walk.next(Stage::Inquiry);
    }
    if (!walk.next(Stage::Identify)) {
        return walk.close(walk.status);
    }
    walk.next(Stage::ReadLog);
    Status status = Status::Success;
    // The adapter's limit is asked before a download through a physical drive; an answer that
    // the image exceeds ends the run, an unanswered query leaves it to the download.
    if (scenario.download() && !csmi && walk.next(Stage::AdapterQuery) && scenario.overLimit) {
        return walk.close(Status::BadFirmwareFile);
    }
    if (scenario.download()) {
        walk.next(Stage::Vendor);
        for (int attempt = 0;; ++attempt) {
            status = Status::Success;
            for (std::size_t t = 0; t < transfersPerAttempt && status == Status::Success; ++t) {
                walk.next(Stage::Transfer);
                status = walk.status;
            }
            walk.next(Stage::Pause);
            // A time-out leaves the drive's state unknown: no retry, no activation.
            if (status == Status::Success || status == Status::TimedOut ||
                attempt >= scenario.retries()) {
                break;
            }
        }
    }
    if (scenario.activate && status != Status::TimedOut) {
        walk.next(Stage::Activate);
        status = walk.status;
    }
    if (walk.next(Stage::Identify)) {
        walk.next(Stage::ReadLog);
    }
    return walk.close(status);
}

// The scan goes on past every failure; only a port that does not open, a controller that does
// not answer, or a phy table that does not come loses the calls that depend on it. The steps
// the faulted scan must make: those of the scan without the fault, less what the first step
// whose outcome differs takes away.
std::vector<Step> expected_scan_steps(const std::vector<Step>& reference,
                                      const std::vector<Step>& faulted) {
    std::size_t i = 0;
    while (i < reference.size() && i < faulted.size() && reference[i].stage == faulted[i].stage &&
           reference[i].status == faulted[i].status) {
        ++i;
    }
    if (i >= reference.size() || i >= faulted.size() || faulted[i].status == Status::Success) {
        return reference;
    }
    const Stage failed = faulted[i].stage;
    const int port = faulted[i].port;
    std::vector<Step> expected(reference.begin(), reference.begin() + static_cast<long>(i) + 1);
    expected.back().status = faulted[i].status;
    for (std::size_t k = i + 1; k < reference.size(); ++k) {
        const Step& s = reference[k];
        const bool samePort = s.port == port && s.stage != Stage::Open;
        const bool lost = failed == Stage::Parse || (failed == Stage::Open && samePort) ||
                          ((failed == Stage::Config || failed == Stage::DriverInfo) && samePort &&
                           s.stage != Stage::DriverInfo && s.stage != Stage::Close) ||
                          (failed == Stage::PhyTable && samePort &&
                           (s.stage == Stage::Identify || s.stage == Stage::Ssp));
        if (!lost) {
            expected.push_back(s);
        }
    }
    return expected;
}

std::string scan_departure(const std::vector<Step>& expected, const std::vector<Step>& got) {
    for (std::size_t k = 0; k < std::max(expected.size(), got.size()); ++k) {
        const bool same = k < expected.size() && k < got.size() &&
                          expected[k].stage == got[k].stage && expected[k].port == got[k].port;
        if (!same) {
            std::ostringstream s;
            s << "step " << k << ": expected "
              << (k < expected.size() ? stage_name(expected[k].stage) : "the end") << " but "
              << (k < got.size() ? "call #" + std::to_string(got[k].sequence) + " is " +
                                       stage_name(got[k].stage)
                                 : std::string("the run ended"));
            return s.str();
        }
    }
    return "";
}

// Every handle a CreateFileW gave is closed exactly once, and nothing uses it after its close.
std::string handle_problem(const std::vector<sim::CallRecord>& log) {
    std::map<std::string, int> closes;
    for (const sim::CallRecord& r : log) {
        if (r.function == "CreateFileW" && r.succeeded) {
            closes.emplace(r.result, 0); // "handle=N"
        }
    }
    for (const sim::CallRecord& r : log) {
        const std::string handle = r.request.substr(0, r.request.find(' '));
        const auto known = closes.find(handle);
        if (r.function == "CloseHandle" && known != closes.end() && ++known->second > 1) {
            return handle + " closed twice, again by call #" + std::to_string(r.sequence);
        }
        if (r.function == "DeviceIoControl" && known != closes.end() && known->second > 0) {
            return handle + " used by call #" + std::to_string(r.sequence) + " after its close";
        }
    }
    for (const auto& [handle, count] : closes) {
        if (count == 0) {
            return handle + " never closed";
        }
    }
    return "";
}

// Whether the log shows a whole image accepted in one attempt and, for the deferred mode, an
// activation accepted after it.
bool image_went_in(const Scenario& scenario, const std::vector<sim::CallRecord>& log,
                   std::size_t transfersPerAttempt) {
    const bool deferred = std::find(scenario.arguments.begin(), scenario.arguments.end(), "/e") !=
                          scenario.arguments.end();
    bool complete = false;
    bool activated = false;
    std::size_t accepted = 0;
    for (const sim::CallRecord& r : log) {
        if (r.function == "Sleep") {
            accepted = 0;
        }
        for (const sim::AtaRecord& a : r.ata) {
            if (a.command.command != 0x92) {
                continue;
            }
            const bool ok = !a.injected && a.outcome.status == 0x50;
            if (a.command.features == 0x0F) {
                activated = activated || (ok && complete);
            } else if (ok && ++accepted == transfersPerAttempt) {
                complete = true;
            }
        }
    }
    return deferred ? activated : complete;
}

// ---- The sweep ----------------------------------------------------------------------------

class FaultSweep : public ::testing::TestWithParam<Scenario> {
protected:
    static void SetUpTestSuite() {
        imagePath_ =
            (fs::temp_directory_path() / ("quenmark-sweep-" + std::to_string(::getpid()) + ".bin"))
                .string();
        const std::vector<std::uint8_t> image = sim::make_image("QZ020000", kImageBytes);
        std::ofstream file(imagePath_, std::ios::binary);
        file.write(reinterpret_cast<const char*>(image.data()),
                   static_cast<std::streamsize>(image.size()));
    }
    static void TearDownTestSuite() {
        std::error_code ignored;
        fs::remove(imagePath_, ignored);
    }

    static std::string imagePath_;
};

std::string FaultSweep::imagePath_;

std::vector<Fault> faults_for(const Scenario& scenario, const std::vector<sim::CallRecord>& log) {
    std::vector<Fault> faults;
    std::map<std::uint8_t, std::uint32_t> commands;
    std::uint32_t stpRequests = 0;
    for (const sim::CallRecord& r : log) {
        for (const sim::AtaRecord& a : r.ata) {
            ++commands[a.command.command];
        }
        stpRequests += has(r.request, "csmi=STP_PASSTHRU") ? 1 : 0;
    }
    for (const FaultKind& kind : kFaultKinds) {
        if (!applies(kind, scenario.wire)) {
            continue;
        }
        if (kind.target == Target::PlatformCall) {
            for (const sim::CallRecord& r : log) {
                if (r.function == "CreateFileW" || r.function == "DeviceIoControl" ||
                    r.function == "CloseHandle" || r.function == "CommandLineToArgvW") {
                    faults.push_back({&kind, r.sequence, 0, 0});
                }
            }
        } else if (kind.target == Target::DriveCommand) {
            for (const auto& [opcode, count] : commands) {
                for (std::uint32_t n = 1; n <= count; ++n) {
                    faults.push_back({&kind, 0, opcode, n});
                }
            }
        } else {
            for (std::uint32_t n = 1; n <= stpRequests; ++n) {
                faults.push_back({&kind, 0, 0, n});
            }
        }
    }
    return faults;
}

TEST_P(FaultSweep, EveryFaultEndsTheRunAsTheRunDriverSays) {
    const Scenario& scenario = GetParam();
    const RunResult clean = run(scenario, imagePath_, nullptr);
    const std::vector<Step> cleanSteps = steps_of(scenario.wire, clean.log, {});
    // An over-limit run ends before its one command; the clean run shows the others'.
    std::size_t transfersPerAttempt = scenario.overLimit ? 1 : 0;
    bool paused = false;
    std::map<std::uint64_t, Stage> reference;
    for (const Step& step : cleanSteps) {
        ASSERT_NE(step.stage, Stage::Unknown) << "call #" << step.sequence << " of the clean run";
        reference[step.sequence] = step.stage;
        paused = paused || step.stage == Stage::Pause;
        transfersPerAttempt += !paused && step.stage == Stage::Transfer ? 1 : 0;
    }
    if (scenario.download()) {
        ASSERT_GT(transfersPerAttempt, 0u);
    }

    std::size_t runs = 0;
    std::size_t failures = 0;
    for (const Fault& fault : faults_for(scenario, clean.log)) {
        const RunResult got = run(scenario, imagePath_, &fault);
        ++runs;
        const std::vector<Step> steps = steps_of(scenario.wire, got.log, reference);

        int expectedExit = 0;
        std::string problem;
        if (scenario.wire == Wire::Scan) {
            expectedExit = steps.empty() || steps.front().status == Status::Success ? 0 : 8;
            problem = scan_departure(expected_scan_steps(cleanSteps, steps), steps);
        } else {
            Walk walk(steps);
            expectedExit = expected_device_exit(scenario, transfersPerAttempt, walk);
            problem = walk.problem;
        }
        if (problem.empty()) {
            problem = handle_problem(got.log);
        }
        const bool wentIn =
            scenario.download() && image_went_in(scenario, got.log, transfersPerAttempt);
        for (const auto& [drive, before] : got.revisionsBefore) {
            const bool changed = got.revisionsAfter.at(drive) != before;
            if (problem.empty() && changed != (drive == scenario.drive && wentIn)) {
                problem =
                    "drive " + drive + (changed ? " changed" : " kept") + " its firmware " + before;
            }
        }
        if (got.exitCode != expectedExit || !problem.empty()) {
            ++failures;
            ADD_FAILURE() << scenario.name << ", " << fault.text() << ": exit code " << got.exitCode
                          << ", expected " << expectedExit
                          << (problem.empty() ? "" : "; " + problem)
                          << (failures <= 3 ? "\n" + sim::call_log_text(got.log) : "");
        }
    }
    RecordProperty("faulted_runs", static_cast<int>(runs));
    std::cout << "[ sweep    ] " << scenario.name << ": " << runs << " faulted runs\n";
}

// ---- Interrupts ---------------------------------------------------------------------------

bool is_firmware_command(const sim::CallRecord& r) {
    std::uint8_t command = 0;
    std::uint8_t features = 0;
    if (!r.ata.empty()) {
        command = r.ata.front().command.command;
    } else {
        ata_registers_of_request(r.request, command, features);
    }
    return command == 0x92;
}

bool is_activation(const sim::CallRecord& r) {
    return is_firmware_command(r) && !r.ata.empty() && r.ata.front().command.features == 0x0F;
}

// The last call of the command an interrupt at call `at` finds under way: the transport clears
// the last error just before it hands the command over, so a SetLastError belongs to the
// DeviceIoControl after it.
std::uint64_t command_under_way(const std::vector<sim::CallRecord>& log, std::uint64_t at) {
    for (const sim::CallRecord& r : log) {
        if (r.sequence == at && r.function == "SetLastError") {
            return at + 1;
        }
    }
    return at;
}

// What one interrupt at one call must give. The interrupted run is the clean run up to that call:
// what the clean run sent after the command under way is what the interrupt kept back.
std::string interrupt_problem(const RunResult& clean, const RunResult& got, std::uint64_t at,
                              std::uint32_t count) {
    const std::uint64_t underWay = command_under_way(clean.log, at);
    bool keptBack = false;
    for (const sim::CallRecord& r : clean.log) {
        keptBack = keptBack || (r.sequence > underWay && is_firmware_command(r));
    }
    const int expectedExit = keptBack ? 3 : clean.exitCode;
    if (got.exitCode != expectedExit) {
        return "exit code " + std::to_string(got.exitCode) + ", expected " +
               std::to_string(expectedExit);
    }
    std::size_t transfers = 0;
    bool activated = false;
    bool inFlight = false;
    bool readAfterFirmware = false;
    for (const sim::CallRecord& r : got.log) {
        if (is_firmware_command(r)) {
            if (r.sequence > underWay) {
                return "DOWNLOAD MICROCODE in call #" + std::to_string(r.sequence) +
                       " after the interrupt in call #" + std::to_string(at);
            }
            // The transport's own calls around it: the last error cleared before, read after.
            inFlight = inFlight || (r.sequence + 1 >= at && r.sequence <= underWay);
            activated = activated || is_activation(r);
            transfers += is_activation(r) ? 0 : 1;
            readAfterFirmware = false;
        } else if (!r.ata.empty() && r.ata.front().command.command == 0xEC &&
                   r.ata.front().command.features != 0x0B) {
            readAfterFirmware = true;
        }
    }
    const bool sent = transfers != 0 || activated;
    if (sent && !readAfterFirmware) {
        return "no IDENTIFY DEVICE after the last firmware command";
    }
    // The outcome line names what the call log shows.
    const std::string& err = got.err;
    const char* expected = !sent       ? "before any firmware command: nothing was sent"
                           : activated ? "after the activation was sent"
                                       : nullptr;
    if (expected != nullptr && !has(err, expected)) {
        return std::string("stderr lacks \"") + expected + "\": " + err;
    }
    if (expected == nullptr && !has(err, (" of " + std::to_string(transfers)).c_str()) &&
        !has(err, (std::to_string(transfers) + " of ").c_str())) {
        return "stderr does not count " + std::to_string(transfers) + " transfers: " + err;
    }
    if (!has(err, "Interrupted (")) {
        return "no outcome line: " + err;
    }
    const bool toldToWait = has(err, "Interrupted again");
    if (toldToWait != (count > 1 && inFlight)) {
        return std::string("the line for a second interrupt ") +
               (toldToWait ? "printed" : "missing") + ": " + err;
    }
    return "";
}

class InterruptSweep : public FaultSweep {};

TEST_P(InterruptSweep, AnInterruptNeverCutsACommandOrLeavesTheDriveUnknown) {
    const Scenario& scenario = GetParam();
    const RunResult clean = run(scenario, imagePath_, nullptr);
    std::uint64_t registered = 0;
    for (const sim::CallRecord& r : clean.log) {
        if (r.function == "SetConsoleCtrlHandler" && registered == 0) {
            registered = r.sequence;
        }
    }
    ASSERT_NE(registered, 0u) << "a download run registers its console-control routine";
    const win32::DWORD events[] = {CTRL_C_EVENT, CTRL_BREAK_EVENT, CTRL_CLOSE_EVENT,
                                   CTRL_LOGOFF_EVENT, CTRL_SHUTDOWN_EVENT};
    std::size_t runs = 0;
    std::size_t failures = 0;
    for (const sim::CallRecord& at : clean.log) {
        if (at.sequence < registered) {
            continue;
        }
        for (const win32::DWORD event : events) {
            // A second interrupt matters only while a command is with the drive: once per call.
            for (const std::uint32_t count : {1u, event == CTRL_C_EVENT ? 2u : 1u}) {
                sim::InterruptFault interrupt;
                interrupt.event = event;
                interrupt.call = at.sequence;
                interrupt.count = count;
                const RunResult got = run(scenario, imagePath_, nullptr, &interrupt);
                ++runs;
                const std::string problem = interrupt_problem(clean, got, at.sequence, count);
                if (!problem.empty() && ++failures <= 3) {
                    ADD_FAILURE() << scenario.name << ", " << sim::console_event_name(event) << " x"
                                  << count << " in call #" << at.sequence << ": " << problem << "\n"
                                  << sim::call_log_text(got.log);
                }
                if (count == 1 && event != CTRL_C_EVENT) {
                    break;
                }
            }
        }
    }
    EXPECT_EQ(failures, 0u);
    std::cout << "[ sweep    ] " << scenario.name << ": " << runs << " interrupted runs\n";
}

std::vector<Scenario> download_scenarios() {
    std::vector<Scenario> table;
    for (const Scenario& s : scenarios()) {
        if (s.download()) {
            table.push_back(s);
        }
    }
    return table;
}

INSTANTIATE_TEST_SUITE_P(AllInterfaces, InterruptSweep, ::testing::ValuesIn(download_scenarios()),
                         [](const ::testing::TestParamInfo<Scenario>& info) {
                             return info.param.name;
                         });

INSTANTIATE_TEST_SUITE_P(AllInterfaces, FaultSweep, ::testing::ValuesIn(scenarios()),
                         [](const ::testing::TestParamInfo<Scenario>& info) {
                             return info.param.name;
                         });

} // namespace
