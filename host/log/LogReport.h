// nphost::LogReport: one report as the log shows it, and its two written forms.
//
// Purpose: the log writes it, the daemon keeps the latest and sends them to its clients, a client shows them again.
// The text form is one line: UTC time, severity, identifier, the arguments in quotation marks, and the readable text:
//
//     2026-01-31T12:00:00Z WARNING ERR_INVALID_DATETIME "At ..." "2024" "00447..." : At ... is not an instant
//
// The JSON form is an object with the keys time, severity, object, identifier, arguments and text.
// Ownership: a value.
// Threads: no state.
// Errors: std::bad_alloc.
// Complexity: linear in the texts.
#pragma once

#include "framework/BAS/DateTime.h"
#include "framework/BAS/Status.h"

#include <string>
#include <string_view>
#include <vector>

namespace nphost {

struct LogReport {
    BAS::DateTime at;
    BAS::Status::Severity severity = BAS::Status::NORMAL;
    std::string object;
    std::string identifier;
    std::vector<std::string> arguments;
    std::string text;
};

std::string_view nameOf(BAS::Status::Severity severity);
// The other way round; another name makes a severity that nameOf calls "UNKNOWN".
BAS::Status::Severity severityOf(std::string_view name);

// "2026-01-31T12:00:00Z", or "-" for an invalid instant.
std::string clockTime(BAS::DateTime at);

// Appends the text form, or the JSON form, without a newline. Running out of memory is no more than a std::bad_alloc.
void appendText(std::string& out, LogReport const& report);
void appendJson(std::string& out, LogReport const& report);

// The report with texts of at most mostKeptBytesCM each, followed by how long they were: for whoever keeps many.
constexpr std::size_t mostKeptBytesCM = 500;
LogReport abridged(LogReport const& report);

} // namespace nphost
