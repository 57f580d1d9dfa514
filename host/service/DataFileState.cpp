#include "host/service/DataFileState.h"

#include "host/log/OwnReport.h"

#include <poll.h>

namespace nphost {

namespace {

std::string inWords(STR::Rewriting const& rewriting) {
    switch (rewriting.way) {
    case STR::Rewriting::REPLACED:
        return "a new file takes its place";
    case STR::Rewriting::IN_PLACE:
        return "it is overwritten in place, where a crash in that moment can lose it (" + rewriting.reason.str() + ")";
    case STR::Rewriting::IMPOSSIBLE:
        break;
    }
    return "that is not possible, and records of a delta would stand in no file (" + rewriting.reason.str() + ")";
}

} // namespace

DataFileState::DataFileState(LoadedPlugIn& plugIn)
    : plugInM(plugIn), fileM(plugIn.serviceStatus().dataFileName), lockM(fileM.str()) {}

void DataFileState::begin() {
    if (unsigned const removed = STR::removeLeftovers(fileM); removed > 0)
        reportOwn("INF_HOST_LEFTOVERS", BAS::Status::NORMAL, {BAS::String(std::to_string(removed)), fileM});
    STR::Rewriting const rewriting = STR::rewritingOf(fileM);
    reportOwn("INF_HOST_REWRITE",
              rewriting.way == STR::Rewriting::REPLACED ? BAS::Status::NORMAL : BAS::Status::WARNING,
              {fileM, BAS::String(inWords(rewriting))});
    if (!lockM.take())
        reportOwn("INF_HOST_NO_DELTAS", BAS::Status::WARNING, {fileM, BAS::String(lockM.reason())});
}

// A file that is gone is no newer one.
bool DataFileState::differs(DAT::NumberPortability::ServiceStatus const& status) const {
    STR::FileVersion const none;
    STR::FileVersion const now = STR::versionOf(fileM);
    return now != none && status.dataFileVersion != none && !now.hasContentOf(status.dataFileVersion);
}

// A load of a client module may be writing the file just now; what it leaves counts.
// The status is asked before and after the look at the file: only a difference during which no load ran or ended is
// nobody's load.
bool DataFileState::isChanged() const {
    constexpr int milliseconds = 10;
    for (;; poll(nullptr, 0, milliseconds)) {
        DAT::NumberPortability::ServiceStatus const before = plugInM.serviceStatus();
        if (!differs(before))
            return false;
        DAT::NumberPortability::ServiceStatus const after = plugInM.serviceStatus();
        if (!after.loading && after.loads == before.loads)
            return true;
    }
}

// The lock comes first, and force does not pass it: each of two daemons would write a file without the other's records.
std::string DataFileState::faultOfDelta(bool force) {
    if (!lockM.take())
        return "another daemon seems to rewrite the data file (" + lockM.reason() + "): command that one";
    if (!force && isChanged())
        return "the data file is no longer what was loaded or last written, and would be overwritten: reload it first, "
               "or force the delta";
    return {};
}

bool DataFileState::refusesDelta(std::string const& file, bool force) {
    std::string const fault = faultOfDelta(force);
    if (!fault.empty())
        reportOwn("ERR_HOST_DELTA_REFUSED", BAS::Status::MAJOR, {BAS::String(file), BAS::String(fault)});
    return !fault.empty();
}

// Asking takes the lock if it has become free, so that what is told is true of the next delta. During a load the file
// may be just being rewritten: no difference is told then.
DataFileState::Standing DataFileState::standing(DAT::NumberPortability::ServiceStatus const& status) {
    return {fileM, STR::versionOf(fileM), STR::rewritingOf(fileM), !status.loading && differs(status),
            lockM.take() ? std::string() : lockM.reason()};
}

} // namespace nphost
