#include "app/run_record.hpp"

// A successful download is judged by what the drive said in Count after its last command: 02h
// the new microcode applied, 03h saved for an activation. A drive that says neither is taken at
// its mode's word: a deferred download waits for an activation, the others apply the image.
RunResult judge_run(const RunRecord& record, int exitCode) {
    if (record.interrupted) {
        return RunResult::Interrupted;
    }
    if (record.scanned) {
        return RunResult::Scanned;
    }
    if (record.reportShown) {
        return RunResult::ReportShown;
    }
    if (exitCode == 0) {
        if (activation_completed(record.firmware)) {
            return RunResult::Updated;
        }
        if (!record.downloadAsked) {
            return RunResult::Identified;
        }
        const DownloadRecord& download = record.firmware.download;
        if (record.downloadCountIsStatus && download.count == kDownloadSaved) {
            return RunResult::Saved;
        }
        if (record.downloadCountIsStatus && download.count == kDownloadApplied) {
            return RunResult::Updated;
        }
        return download.mode == kModeDeferred ? RunResult::Saved : RunResult::Updated;
    }
    if (record.refused && record.firmwareCommandsSent == 0) {
        return RunResult::Refused;
    }
    return RunResult::Failed;
}
