#include "host/log/Log.h"

#include "framework/BAS/RegisteredObject.h"
#include "host/base/StandardError.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

namespace nphost {

namespace {

// The reports of rejected lines, and which of their arguments says where the line is.
constexpr std::size_t rejectKindsCM = 5;
constexpr std::array<std::pair<std::string_view, std::size_t>, rejectKindsCM> rejectsCM = {{
    {"ERR_NUMBER_OF_FIELDS_IN_RECORD", 3},
    {"ERR_INVALID_DATETIME", 0},
    {"ERR_INVALID_NUMBER", 0},
    {"ERR_INVALID_NETWORK_ID", 0},
    {"ERR_DUPLICATE_NUMPORTDATA", 0},
}};

auto findReject(BAS::Status const& status) {
    return std::find_if(rejectsCM.begin(), rejectsCM.end(),
                        [&](auto const& reject) { return reject.first == status.identifier().view(); });
}

bool isReject(BAS::Status const& status) {
    return findReject(status) != rejectsCM.end();
}

LogReport reportOf(BAS::Status const& status, MessageCatalogue const& catalogue) {
    LogReport report;
    report.at = BAS::DateTime::now();
    report.severity = status.severity();
    report.object = status.name().str();
    report.identifier = status.identifier().str();
    for (BAS::String const& argument : status.arguments())
        report.arguments.push_back(argument.str());
    catalogue.append(report.text, status.identifier(), status.arguments());
    return report;
}

BAS::Status ownStatus(char const* identifier, BAS::Status::Severity severity, BAS::Status::Arguments const& arguments) {
    BAS::Status status;
    status.set("nphost", identifier, severity, arguments);
    return status;
}

// An examination wants the rejected lines of its own thread; those of a load that runs meanwhile are for the log.
thread_local bool keepsRejectsHere = false;

} // namespace

Log::Log(MessageCatalogue const& catalogue, LogSettings const& settings) : catalogueM(catalogue), settingsM(settings) {
    // In the body, when all members are there: from here on any thread may report.
    BAS::RegisteredObject::installLogSink(this);
}

Log::~Log() {
    // Before the members go, of which every report makes use.
    BAS::RegisteredObject::installLogSink(nullptr);
}

// On the reporting thread, whichever it is. The lock is held until the line is written, so that lines keep their order;
// that is why a service must not wait long for a reader (StandardError.h).
void Log::write(BAS::Status const& status) noexcept {
    BAS::MutexGuard const guard(lockM);
    Taken taken = Taken::HIDDEN;
    try {
        endLoad(status);
        taken = take(status);
    } catch (...) { // a reporter must not fail for want of a log
        lose();
    }
    // Also what is not shown: an outcome may hang on its severity.
    if (settingsM.observer != nullptr && taken != Taken::KEPT)
        settingsM.observer->noticed(status, taken == Taken::SHOWN ? &reportM : nullptr);
}

Log::Taken Log::take(BAS::Status const& status) {
    // The first failure is the cause; those behind it follow from it.
    if (status.severity() >= BAS::Status::MAJOR && !failureM) {
        failureM.emplace();
        failureM->identifier = status.identifier().str();
        catalogueM.append(failureM->text, status.identifier(), status.arguments());
    }
    if (keepsRejectsHere && isReject(status)) {
        keep(status);
        return Taken::KEPT;
    }
    if (!isShown(status))
        return Taken::HIDDEN;
    show(status);
    return Taken::SHOWN;
}

void Log::keep(BAS::Status const& status) {
    BAS::Status::Arguments arguments = status.arguments();
    std::size_t const place = findReject(status)->second;
    // Its place is told by the line's number; in the reason it would only repeat that.
    if (place < arguments.length())
        arguments[place] = BAS::String();
    lastRejectM.identifier = status.identifier().str();
    lastRejectM.detail.clear();
    catalogueM.append(lastRejectM.detail, status.identifier(), arguments);
}

bool Log::isShown(BAS::Status const& status) {
    auto const* const reject = findReject(status);
    bool const isReject = reject != rejectsCM.end();
    if (settingsM.verbose)
        return !isReject || isAmongFirst(static_cast<std::size_t>(reject - rejectsCM.begin()));
    if (status.severity() < BAS::Status::WARNING || status.severity() >= BAS::Status::MAJOR)
        return false;
    // Each line is reported for both trees of a first load: the second report is left out.
    return !isReject || (!isRepeated(status) && ++rejectsM <= rejectLimitCM);
}

// Whose load it is shows by the thread.
bool Log::isAmongFirst(std::size_t kind) {
    loaderM = std::this_thread::get_id();
    if (++loadRejectsM <= loadRejectLimitCM)
        return true;
    ++loadHiddenM[kind];
    return false;
}

// A line's place is among the arguments, so that equal reports are of one line.
bool Log::isRepeated(BAS::Status const& status) {
    BAS::Status::Arguments const& before = previousRejectM.arguments();
    BAS::Status::Arguments const& now = status.arguments();
    bool const repeated = previousRejectM.identifier() == status.identifier() &&
                          std::equal(before.begin(), before.end(), now.begin(), now.end());
    previousRejectM = status;
    return repeated;
}

// Loads do not overlap: whoever else reports a rejected line has begun the next one.
void Log::endLoad(BAS::Status const& status) {
    bool const sameThread = loaderM == std::this_thread::get_id();
    bool const ends = sameThread ? status.severity() != BAS::Status::WARNING : isReject(status);
    if (loadRejectsM == 0 || keepsRejectsHere || !ends)
        return;
    // Before anything that may fail: a load's end comes only once.
    loadRejectsM = 0;
    auto const hidden = std::exchange(loadHiddenM, {});
    unsigned long sum = 0;
    std::string kinds;
    for (std::size_t kind = 0; kind < hidden.size(); ++kind)
        if (hidden[kind] > 0) {
            sum += hidden[kind];
            kinds +=
                (kinds.empty() ? "" : ", ") + std::string(rejectsCM[kind].first) + " " + std::to_string(hidden[kind]);
        }
    if (sum == 0)
        return;
    BAS::Status const own = ownStatus("ERR_HOST_REJECTS_NOT_LOGGED", BAS::Status::WARNING,
                                      {BAS::String(std::to_string(sum)), BAS::String(kinds)});
    show(own);
    if (settingsM.observer != nullptr)
        settingsM.observer->noticed(own, &reportM);
}

void Log::show(BAS::Status const& status) {
    // Before the report that follows: the gap stands where it is.
    if (unsaidM > 0 &&
        put(reportOf(ownStatus("ERR_HOST_LOG_LOST", BAS::Status::MAJOR, {BAS::String(std::to_string(unsaidM))}),
                     catalogueM)))
        unsaidM = 0;
    reportM = reportOf(status, catalogueM);
    if (!put(reportM))
        lose();
}

bool Log::put(LogReport const& report) {
    // One text for all lines: it keeps its storage, so that most reports need no memory.
    lineM.clear();
    if (settingsM.json)
        appendJson(lineM, report);
    else
        appendText(lineM, report);
    lineM += '\n';
    return settingsM.target != nullptr ? settingsM.target->write(lineM) : StandardError::write(lineM);
}

void Log::lose() {
    ++lostM;
    ++unsaidM;
}

std::optional<Log::Failure> Log::failure() const {
    BAS::MutexGuard const guard(lockM);
    return failureM;
}

Log::RejectScope::RejectScope() {
    keepsRejectsHere = true;
}

Log::RejectScope::~RejectScope() {
    keepsRejectsHere = false;
}

Log::Reject Log::lastReject() const {
    BAS::MutexGuard const guard(lockM);
    return lastRejectM;
}

unsigned long Log::hiddenRejects() const {
    BAS::MutexGuard const guard(lockM);
    return rejectsM > rejectLimitCM ? rejectsM - rejectLimitCM : 0;
}

} // namespace nphost
