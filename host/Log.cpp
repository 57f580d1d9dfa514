#include "host/Log.h"

#include "framework/BAS/DateTime.h"
#include "framework/BAS/RegisteredObject.h"
#include "host/StandardError.h"
#include "host/Text.h"

#include <algorithm>
#include <array>
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

std::string_view nameOf(BAS::Status::Severity severity) {
    constexpr std::array<std::string_view, 5> names = {"NORMAL", "WARNING", "MINOR", "MAJOR", "CRITICAL"};
    auto const position = static_cast<std::size_t>(severity) - 1;
    return position < names.size() ? names[position] : "UNKNOWN";
}

} // namespace

Log::Log(MessageCatalogue const& catalogue, bool verbose) : catalogueM(catalogue), verboseM(verbose) {
    BAS::RegisteredObject::installLogSink(this);
}

Log::~Log() {
    BAS::RegisteredObject::installLogSink(nullptr);
}

void Log::write(BAS::Status const& status) noexcept {
    try {
        BAS::MutexGuard const guard(lockM);
        take(status);
    } catch (...) { // NOLINT(bugprone-empty-catch): a reporter must not fail for want of a log
    }
}

void Log::take(BAS::Status const& status) {
    if (status.severity() >= BAS::Status::MAJOR && !failureM) {
        failureM.emplace();
        failureM->identifier = status.identifier().str();
        catalogueM.append(failureM->text, status.identifier(), status.arguments());
    }
    if (keepRejectsM && isReject(status))
        keep(status);
    else if (isShown(status))
        show(status);
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
    if (verboseM)
        return true;
    if (status.severity() < BAS::Status::WARNING || status.severity() >= BAS::Status::MAJOR)
        return false;
    return !isReject(status) || ++rejectsM <= rejectLimitCM;
}

void Log::show(BAS::Status const& status) {
    lineM = BAS::DateTime::now().asString("%Y-%m-%dT%H:%M:%SZ ").str();
    lineM += nameOf(status.severity());
    lineM += ' ';
    appendVisible(lineM, status.identifier().view());
    for (BAS::String const& argument : status.arguments()) {
        lineM += " \"";
        appendShortened(lineM, argument.view(), "\"\\");
        lineM += '"';
    }
    lineM += " : ";
    catalogueM.append(lineM, status.identifier(), status.arguments());
    lineM += '\n';
    StandardError::write(lineM);
}

std::optional<Log::Failure> Log::failure() const {
    BAS::MutexGuard const guard(lockM);
    return failureM;
}

void Log::keepRejects() {
    BAS::MutexGuard const guard(lockM);
    keepRejectsM = true;
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
