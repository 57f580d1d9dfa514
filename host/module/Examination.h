// nphost::examine: reads a data file as a load would, without serving it.
//
// Purpose: the one reading of 'nphost check' and of the guard. Rejected lines are handed out with their reasons and do
// not appear in the log.
// Ownership: a RejectedLine is valid during its call.
// Threads: the caller's, which waits; loads wait for it, look-ups do not. In a process one examination at a time.
// Errors: what onReject throws ends the examination and travels; std::bad_alloc of the module's becomes false.
// Complexity: linear in the file; a tree of its records for as long as it takes.
#pragma once

#include "host/log/Log.h"
#include "host/module/GuardLimits.h"
#include "host/module/LoadedModule.h"

#include <functional>
#include <string>
#include <string_view>

namespace nphost {

struct RejectedLine {
    unsigned long number;
    DAT::NumberPortability::LineOutcome outcome;
    Log::Reject reason;
    std::string_view text;
};

// False when the file cannot be read to its end; the log says why. `goOn` as in cache/DataSummary.h; it may be empty.
bool examine(LoadedPlugIn& plugIn, Log const& log, std::string const& file,
             DAT::NumberPortability::DataSummary& summary, std::function<void(RejectedLine const&)> const& onReject,
             DAT::NumberPortability::GoOn const& goOn);

// What a guard is to know of it, but for the live data; `first` is the first rejected line in words.
LoadFigures figuresOf(DAT::NumberPortability::DataSummary const& summary, std::string first);

// "at line 17: the reason"
std::string inWords(RejectedLine const& line);

} // namespace nphost
