#include "host/Log.h"

#include "framework/BAS/RegisteredObject.h"
#include "host/StandardError.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

namespace nphost {

namespace {

// The reports of rejected lines, and which of their arguments says where the line is.
constexpr std::array<std::pair<std::string_view, std::size_t>, 5> rejectsCM = {{
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

thread_local bool keepsRejectsHere = false;

} // namespace

Log::Log(MessageCatalogue const& catalogue, LogSettings const& settings) : catalogueM(catalogue), settingsM(settings) {
    BAS::RegisteredObject::installLogSink(this);
}

Log::~Log() {
    BAS::RegisteredObject::installLogSink(nullptr);
}

void Log::write(BAS::Status const& status) noexcept {
    BAS::MutexGuard const guard(lockM);
    Taken taken = Taken::HIDDEN;
    try {
        taken = take(status);
    } catch (...) { // NOLINT(bugprone-empty-catch): a reporter must not fail for want of a log
    }
    if (settingsM.observer != nullptr && taken != Taken::KEPT)
        settingsM.observer->noticed(status, taken == Taken::SHOWN ? &reportM : nullptr);
}

Log::Taken Log::take(BAS::Status const& status) {
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
    if (place < arguments.length())
        arguments[place] = BAS::String();
    lastRejectM.identifier = status.identifier().str();
    lastRejectM.detail.clear();
    catalogueM.append(lastRejectM.detail, status.identifier(), arguments);
}

bool Log::isShown(BAS::Status const& status) {
    if (settingsM.verbose)
        return true;
    if (status.severity() < BAS::Status::WARNING || status.severity() >= BAS::Status::MAJOR)
        return false;
    return !isReject(status) || ++rejectsM <= rejectLimitCM;
}

void Log::show(BAS::Status const& status) {
    reportM.at = BAS::DateTime::now();
    reportM.severity = status.severity();
    reportM.object = status.name().str();
    reportM.identifier = status.identifier().str();
    reportM.arguments.clear();
    for (BAS::String const& argument : status.arguments())
        reportM.arguments.push_back(argument.str());
    reportM.text.clear();
    catalogueM.append(reportM.text, status.identifier(), status.arguments());

    lineM.clear();
    if (settingsM.json)
        lineM = toJson(reportM).dump();
    else
        appendText(lineM, reportM);
    lineM += '\n';
    if (settingsM.target != nullptr)
        settingsM.target->write(lineM);
    else
        StandardError::write(lineM);
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
