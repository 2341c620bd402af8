// The --json document: the record of one run written as JSON on standard output (docs/json.md,
// docs/quenmark.schema.json).
#pragma once

#include <string>

#include "app/run_record.hpp"
#include "transport/status.hpp"

// The document's text, ended by a newline. False, and text empty, when it could not be made.
bool json_document(const RunRecord& record, std::string& text);

// Writes the document on standard output; when it cannot be made, says so on standard error.
// Status::Success or Status::Failed.
Status write_json_report(const RunRecord& record);
