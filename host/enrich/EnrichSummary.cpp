#include "host/enrich/EnrichSummary.h"

#include "host/base/JsonWriter.h"
#include "host/base/Text.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <numeric>

namespace nphost {

namespace {

// For people; the rest is counted.
constexpr std::size_t shownNetworksCM = 20;

void appendCount(std::string& text, std::string const& label, std::uint64_t number) {
    constexpr std::size_t width = 36;
    std::string const digits = std::to_string(number);
    // A label that is too long for its column keeps one blank before the number.
    std::size_t const used = std::min(width - 1, characters(label) + digits.size());
    text += label + std::string(width - used, ' ') + digits + "\n";
}

// 0 of a run that was too short to be measured.
std::uint64_t rateOf(EnrichSummary const& summary) {
    return summary.seconds > 0
               ? static_cast<std::uint64_t>(std::llround(static_cast<double>(summary.counts.records) / summary.seconds))
               : 0;
}

} // namespace

// The first of the problems is NONE.
std::uint64_t EnrichCounts::rejected() const {
    return std::accumulate(problems.begin() + 1, problems.end(), std::uint64_t(0));
}

EnrichCounts& EnrichCounts::operator+=(EnrichCounts const& other) {
    records += other.records;
    found += other.found;
    notFound += other.notFound;
    withoutNumber += other.withoutNumber;
    unreadable += other.unreadable;
    ambiguous += other.ambiguous;
    impossible += other.impossible;
    std::transform(problems.begin(), problems.end(), other.problems.begin(), problems.begin(), std::plus<>());
    return *this;
}

void NetworkCounts::add(NetworkCounts const& other) {
    for (auto const& [network, number] : other.countsM)
        add(network, number);
}

std::vector<std::pair<std::string, std::uint64_t>> NetworkCounts::sorted() const {
    std::vector<std::pair<std::string, std::uint64_t>> all(countsM.begin(), countsM.end());
    // By name where counts are equal, so that the threads' order does not show.
    std::sort(all.begin(), all.end(), [](auto const& left, auto const& right) {
        return left.second != right.second ? left.second > right.second : left.first < right.first;
    });
    return all;
}

// Blocks are taken in the order of the input, so these are its first ones.
void EnrichSummary::addUnreadable(std::vector<UnreadableNumber> const& more) {
    std::size_t const count = std::min(more.size(), shownUnreadableCM - unreadable.size());
    unreadable.insert(unreadable.end(), more.begin(), more.begin() + static_cast<std::ptrdiff_t>(count));
}

std::string EnrichSummary::text() const {
    std::string text;
    appendCount(text, "Records:", counts.records);
    appendCount(text, "Numbers found:", counts.found);
    appendCount(text, "Numbers not found:", counts.notFound);
    appendCount(text, "Fields without a number:", counts.withoutNumber);
    if (counts.unreadable > 0)
        appendCount(text, "Unreadable numbers:", counts.unreadable);
    for (UnreadableNumber const& number : unreadable)
        text += "  " + number.file + ":" + std::to_string(number.line) + ": '" + shortened(number.text) + "'\n";
    appendCount(text, kept ? "Unusable records, kept:" : "Rejected records:", counts.rejected());
    for (std::size_t i = 1; i < problemsCM; ++i)
        if (counts.problems[i] > 0)
            appendCount(text, std::string("  ") + nameOf(static_cast<Problem>(i)) + ":", counts.problems[i]);
    if (counts.ambiguous + counts.impossible > 0) {
        appendCount(text, "Times that came twice:", counts.ambiguous);
        appendCount(text, "Times that never came:", counts.impossible);
    }
    auto const all = networks.sorted();
    if (!all.empty())
        text += "Numbers by network";
    if (all.size() > shownNetworksCM)
        text += ", the first " + std::to_string(shownNetworksCM) + " of " + std::to_string(all.size());
    text += all.empty() ? "" : ":\n";
    for (std::size_t i = 0; i < std::min(all.size(), shownNetworksCM); ++i)
        appendCount(text, "  " + shortened(all[i].first), all[i].second);
    appendCount(text, "Records a second:", rateOf(*this));
    return text;
}

std::string EnrichSummary::json() const {
    std::map<std::string_view, std::uint64_t> reasons;
    for (std::size_t i = 1; i < problemsCM; ++i)
        if (counts.problems[i] > 0)
            reasons[nameOf(static_cast<Problem>(i))] = counts.problems[i];
    auto const all = networks.sorted();
    std::string text;
    JsonWriter json(text);
    json.beginObject().member("ambiguousTimes", counts.ambiguous).member("complete", stopped.empty());
    json.key("firstUnreadable").beginArray();
    for (UnreadableNumber const& number : unreadable)
        json.beginObject()
            .member("file", number.file)
            .member("line", number.line)
            .member("text", number.text)
            .endObject();
    json.endArray()
        .member("found", counts.found)
        .member("impossibleTimes", counts.impossible)
        .member("kept", kept)
        .member("networks", all.size())
        .member("notFound", counts.notFound)
        .member("records", counts.records)
        .member("recordsPerSecond", rateOf(*this))
        .member("rejected", counts.rejected())
        .member("rejectedByReason", reasons)
        .member("seconds", std::round(seconds * 1000) / 1000);
    // The other keys stay whatever the numbers are.
    if (!stopped.empty())
        json.member("stopped", stopped);
    json.key("topNetworks").beginArray();
    for (std::size_t i = 0; i < std::min(all.size(), shownNetworksCM); ++i)
        json.beginObject().member("network", all[i].first).member("numbers", all[i].second).endObject();
    json.endArray().member("unreadable", counts.unreadable).member("withoutNumber", counts.withoutNumber).endObject();
    return text + "\n";
}

} // namespace nphost
