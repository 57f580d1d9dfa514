#include "host/service/Service.h"

#include "host/base/ResidentMemory.h"
#include "host/base/Text.h"
#include "host/fields/Numbers.h"
#include "host/fields/QuestionLine.h"
#include "host/module/LookUpBatch.h"

#include <algorithm>
#include <filesystem>
#include <utility>

namespace nphost {

namespace {

constexpr std::size_t lookUpsAtOnceCM = 32; // few, because each may bring a network's name of any length

constexpr std::array<std::string_view, 4> updateKeysCM = {"Reload", "ReuseOnFailure", "AdditionalNumPortData",
                                                          "PrintData"};

std::string updateKeys() {
    std::string names;
    for (std::string_view const key : updateKeysCM)
        names.append(names.empty() ? "" : ", ").append(key);
    return names;
}

// The daemon's own folder means nothing to those who ask.
void checkName(std::string const& file, std::string const& key) {
    if (file.empty() || file.find('\0') != std::string::npos)
        throw QuestionError("'" + key + "' must name a file");
    if (file.front() != '/')
        throw QuestionError("'" + key + "' must be an absolute path");
}

} // namespace

Standing Service::standing() {
    Standing standing;
    standing.data = partsM.plugIn.serviceStatus();
    // By the same status, so that the parts of one answer agree.
    standing.file = partsM.dataFile.standing(standing.data);
    if (DAT::NumberPortability::LoadProgress const* const progress = partsM.plugIn.progress())
        standing.progress = {progress->lines(), progress->bytes(), progress->totalBytes()};
    standing.limits = partsM.guard.limits();
    standing.guard = partsM.guard.standing();
    standing.reportsLost = partsM.log.lost();
    standing.memoryBytes = residentBytes();
    return standing;
}

void Service::describe(LookUpQuestion const& question, DescribeVisitor const& visit) {
    // At least one place: without any the batch would be full before its first number.
    LookUpBatch batch(partsM.plugIn, std::clamp<std::size_t>(question.numbers.size(), 1, lookUpsAtOnceCM));
    auto const answer = [&] {
        batch.describe(question.method);
        for (std::size_t i = 0; i < batch.size(); ++i)
            visit({batch.number(i), batch.instant(i), batch.detail(i)});
        batch.clear();
    };
    for (std::string const& number : question.numbers) {
        batch.nextNumber() = stored(number, question.normalise);
        batch.add(question.at);
        if (batch.isFull())
            answer();
    }
    answer();
}

Explained Service::explain(std::string_view number, BAS::DateTime at, bool normalise) {
    BAS::String key = stored(number, normalise);
    if (key.length() > mostExplainBytesCM)
        throw QuestionError("the number is longer than " + std::to_string(mostExplainBytesCM) + " characters");
    unsigned int const configured = partsM.plugIn.serviceStatus().searchMethod;
    Explanation::Prefixes prefixes = partsM.plugIn.explain(key);
    return {std::move(key), at, configured, std::move(prefixes)};
}

// In stored form nothing is taken for a separator: the digits of an instant behind the number would become its own.
BAS::String Service::stored(std::string_view written, bool normalise) const {
    BAS::String number;
    if (!normalise && holdsColumns(written))
        throw QuestionError(notOneNumber(written));
    NumberKind const kind = readNumber(written, normalise ? &partsM.numbers : nullptr, number);
    if (kind != NumberKind::NUMBER)
        throw QuestionError(notANumber(written, kind));
    return number;
}

void Service::reload(bool reuse, bool force, Waiter waiter) {
    push({LoadLane::RELOAD, reuse ? "TRUE" : "FALSE", {}, waiter, false, force}, "requests");
}

// The lane asks the same when the request's turn comes, for what the name means may change meanwhile. Here the client
// learns at once.
void Service::delta(std::string file, bool force, Waiter waiter) {
    checkName(file, "file");
    refuseDelta(file);
    push({LoadLane::DELTA_LOAD, std::move(file), {}, waiter, false, force}, "requests");
}

void Service::print(std::optional<std::string> target, Waiter waiter) {
    if (target) {
        checkName(*target, "file");
        refuseKeptFile(*target);
    }
    // "NULL" is the probe's word for the console.
    push({LoadLane::PRINT, target ? std::move(*target) : "NULL", {}, waiter, false, false}, "requests");
}

// All keys are looked at before anything is taken in: an update is taken whole or refused whole.
void Service::update(LoadLane::Keys keys, bool force, Waiter waiter) {
    for (auto const& [key, value] : keys) {
        checkUpdateKey(key);
        if (key == "AdditionalNumPortData") {
            checkName(value, key);
            refuseDelta(value);
        } else if (key == "PrintData" && !value.empty()) {
            checkName(value, key);
            refuseKeptFile(value);
        }
    }
    push({LoadLane::UPDATE, {}, std::move(keys), waiter, false, force}, "updates");
}

void Service::checkUpdateKey(std::string const& key) {
    if (std::find(updateKeysCM.begin(), updateKeysCM.end(), key) == updateKeysCM.end())
        throw QuestionError("there is no key '" + shortened(key) + "' of an update; the keys are " + updateKeys());
}

void Service::push(LoadLane::Request request, char const* what) {
    if (!partsM.lane.push(std::move(request)))
        throw QuestionError(std::string("too many ") + what + " are waiting");
}

// A listing with its heading would be no data file any more.
void Service::refuseKeptFile(std::string const& target) const {
    if (char const* const kept = partsM.lane.keptFiles().nameOf(target))
        throw QuestionError("the output " + target + " is " + kept);
}

// Its rejected lines would be in the answer.
void Service::refuseDelta(std::string const& file) const {
    if (std::string const reason = partsM.lane.deltaFolders().find(file).refusal; !reason.empty())
        throw QuestionError(reason);
}

} // namespace nphost
