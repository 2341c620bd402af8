// How a run's record is judged and written: the results no golden transcript reaches, and the
// bytes of a drive's strings.
#include <gtest/gtest.h>

#include <string>

#include <nlohmann/json.hpp>

#include "app/json_report.hpp"
#include "app/run_record.hpp"

namespace {

nlohmann::json document(const RunRecord& record) {
    std::string text;
    EXPECT_TRUE(json_document(record, text));
    EXPECT_EQ(text.back(), '\n');
    return nlohmann::json::parse(text);
}

RunRecord download_run(std::uint8_t mode, bool countIsStatus, std::uint8_t count) {
    RunRecord record;
    record.downloadAsked = true;
    record.firmware.download.mode = mode;
    record.downloadCountIsStatus = countIsStatus;
    record.firmware.download.count = count;
    record.firmwareCommandsSent = 1;
    return record;
}

TEST(JudgeRun, NamesTheResultByWhatTheDriveSaidAndWhatWasSent) {
    RunRecord activated = download_run(kModeDeferred, true, kDownloadSaved);
    activated.firmware.activationBegun = true;
    activated.firmware.activationStatus = Status::Success;
    RunRecord refusedAfterSending = download_run(kModeSegmented, false, 0);
    refusedAfterSending.refused = true;
    RunRecord refused;
    refused.refused = true;
    RunRecord interrupted = download_run(kModeSegmented, false, 0);
    interrupted.interrupted = true;
    const struct {
        RunRecord record;
        int exitCode;
        RunResult result;
    } cases[] = {
        {download_run(kModeImmediate, true, kDownloadSaved), 0, RunResult::Saved},
        {download_run(kModeImmediate, true, kDownloadApplied), 0, RunResult::Updated},
        {download_run(kModeImmediate, false, kDownloadSaved), 0, RunResult::Updated},
        {download_run(kModeDeferred, false, 0), 0, RunResult::Saved},
        {download_run(kModeDeferred, true, kDownloadApplied), 0, RunResult::Updated},
        // A Count that echoes the block count sent is no status: the mode decides.
        {download_run(kModeSegmented, true, 0x40), 0, RunResult::Updated},
        {activated, 0, RunResult::Updated},
        {refused, 4, RunResult::Refused},
        {refusedAfterSending, 4, RunResult::Failed},
        {interrupted, 3, RunResult::Interrupted},
        {RunRecord{}, 2, RunResult::Failed},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(judge_run(c.record, c.exitCode), c.result) << c.exitCode;
    }
}

TEST(JsonReport, KeepsEveryByteOfTheDriveStringsAndNamesTheInterrupt) {
    RunRecord record = download_run(kModeSegmented, false, 0);
    record.identified = true;
    record.drive.modelNumber = std::string("Q\xC4\xFF", 3) + std::string(1, '\0');
    record.drive.securityState = 9;
    record.interrupted = true;
    record.interruptEvent = 1;
    record.failedCommandKept = true;
    record.exitCode = 3;
    record.result = judge_run(record, record.exitCode);
    const nlohmann::json d = document(record);
    EXPECT_EQ(d["drive"]["model"], std::string("Q\xC3\x84\xC3\xBF", 5) + std::string(1, '\0'));
    EXPECT_TRUE(d["drive"]["security_state"].is_null());
    EXPECT_EQ(d["outcome"]["result"], "interrupted");
    EXPECT_EQ(d["outcome"]["interrupt"]["event"], "CTRL_BREAK_EVENT");
    // The command in flight when the interrupt came is no failure of the drive.
    EXPECT_FALSE(d["outcome"].contains("failed_command"));
    EXPECT_EQ(d["format_version"], nlohmann::json::array({1, 0}));
}

} // namespace
