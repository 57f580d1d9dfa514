#include "host/module/GuardLimits.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

namespace nphost {

namespace {

constexpr std::uint64_t mebibyteCM = 1024UL * 1024;

// Thousandths as they were configured: "5", "0.25".
std::string percent(std::uint32_t thousandths) {
    std::string text = std::to_string(thousandths / 1000);
    if (std::uint32_t const rest = thousandths % 1000; rest != 0) {
        text += '.' + std::to_string(1000 + rest).substr(1);
        text.erase(text.find_last_not_of('0') + 1);
    }
    return text;
}

// Of a whole that is not 0: of nothing no share is above a limit, so nobody asks for one.
// A share above the limit, with as many decimals as it takes to see that it is above.
std::string percent(std::uint64_t part, std::uint64_t whole, std::uint32_t limit) {
    constexpr int mostDecimals = 9;
    double const share = 100.0 * static_cast<double>(part) / static_cast<double>(whole);
    std::array<char, 32> text{};
    for (int decimals = 1; decimals <= mostDecimals; ++decimals) {
        // The text is compared and not the share: rounding may show the limit itself, as if it were no more.
        std::snprintf(text.data(), text.size(), "%.*f", decimals, share);
        if (std::stod(text.data()) * 1000 > limit)
            break;
    }
    return text.data();
}

// In whole numbers, so that exactly at the limit is not above it. 10^14 records times 10^5 stay below 2^64.
bool isAbove(std::uint64_t part, std::uint64_t whole, std::uint32_t limit) {
    return part * GuardLimits::wholeCM > whole * limit;
}

// The sentences of a verdict.
class Verdict {
  public:
    Verdict(GuardLimits const& limits, LoadKind kind, LoadFigures const& figures)
        : limitsM(limits), kindM(kind), figuresM(figures) {}

    std::vector<std::string> reasons() {
        // What has not been read to its end says nothing but that memory was at its limit.
        if (figuresM.readToEnd)
            all();
        memory();
        return std::move(reasonsM);
    }

  private:
    void all() {
        if (kindM == LoadKind::RELOAD)
            loss();
        rejects();
        withoutDigits();
        // A delta is small by nature, and takes nothing away.
        if (kindM != LoadKind::DELTA)
            fewRecords();
        if (limitsM.requireCompleteLastLine && !figuresM.lastLineComplete)
            add("the last line (" + grouped(figuresM.lines) +
                ") does not end with a newline, and requireCompleteLastLine = true");
    }

    void loss() {
        std::uint64_t const live = figuresM.liveRecords;
        // A file with more records than are live loses none.
        std::uint64_t const lost = live - std::min(live, figuresM.records);
        if (limitsM.maxLossPercent && isAbove(lost, live, *limitsM.maxLossPercent))
            add(share(lost, live, *limitsM.maxLossPercent, " of the records would be lost") +
                "maxLossPercent = " + percent(*limitsM.maxLossPercent));
    }

    void rejects() {
        if (!limitsM.maxRejectedPercent || !isAbove(figuresM.rejected, figuresM.lines, *limitsM.maxRejectedPercent))
            return;
        add(share(figuresM.rejected, figuresM.lines, *limitsM.maxRejectedPercent, " of the lines are rejected") +
            "maxRejectedPercent = " + percent(*limitsM.maxRejectedPercent) + ", the first " + figuresM.firstReject);
    }

    void fewRecords() {
        if (figuresM.records < limitsM.minRecords)
            add("the file has " + grouped(figuresM.records) +
                " records, fewer than minRecords = " + std::to_string(limitsM.minRecords));
    }

    void withoutDigits() {
        if (limitsM.maxNumbersWithoutDigits && figuresM.withoutDigits > *limitsM.maxNumbersWithoutDigits)
            add(grouped(figuresM.withoutDigits) + " records have no digit in their number field, the first at line " +
                grouped(figuresM.firstWithoutDigits) +
                ", more than maxNumbersWithoutDigits = " + std::to_string(*limitsM.maxNumbersWithoutDigits));
    }

    void memory() {
        if (!hasRoom(limitsM, kindM, figuresM))
            add("the load would take " + std::string(figuresM.readToEnd ? "up to " : "more than ") +
                grouped(mebibytes(memoryAtPeak(kindM, figuresM))) +
                " MiB of memory, more than maxMemoryMiB = " + std::to_string(*limitsM.maxMemoryMiB));
    }

    static std::string share(std::uint64_t part, std::uint64_t whole, std::uint32_t limit, char const* what) {
        return percent(part, whole, limit) + " %" + what + " (" + grouped(part) + " of " + grouped(whole) +
               "), more than ";
    }

    void add(std::string reason) { reasonsM.push_back(std::move(reason)); }

    GuardLimits const& limitsM;
    LoadKind kindM;
    LoadFigures const& figuresM;
    std::vector<std::string> reasonsM;
};

} // namespace

void GuardLimits::declare(Section& host, Configuration& configuration) {
    constexpr std::uint64_t mostRecords = 4'294'967'295; // as many as the module numbers
    // In bytes far below 2^64, for hasRoom compares bytes.
    constexpr std::uint64_t mostMebibytes = 1'000'000'000;
    Section& keys = host.table("guard");
    auto& limits = configuration.place<GuardLimits>();
    keys.percent("maxLossPercent", limits.maxLossPercent);
    keys.percent("maxRejectedPercent", limits.maxRejectedPercent);
    keys.number("maxNumbersWithoutDigits", 0, mostRecords, limits.maxNumbersWithoutDigits);
    // 0 turns off the one limit that is on by itself.
    keys.number("minRecords", 0, mostRecords, limits.minRecords);
    keys.flag("requireCompleteLastLine", limits.requireCompleteLastLine);
    // From 1: no load takes less, so 0 would refuse every file.
    keys.number("maxMemoryMiB", 1, mostMebibytes, limits.maxMemoryMiB);
}

char const* nameOf(LoadKind kind) {
    switch (kind) {
    case LoadKind::FIRST_LOAD:
        return "first load";
    case LoadKind::RELOAD:
        return "reload";
    case LoadKind::DELTA:
        break;
    }
    return "delta";
}

std::uint64_t memoryAtPeak(LoadKind kind, LoadFigures const& figures) {
    // Of a batch of lines; what doubled while it grew may still lie in the heap beside it.
    // Lines and text: the bounds of the module's batch (cache/RecordBatch.h).
    constexpr std::uint64_t gatheredLines = 1UL << 18;
    constexpr std::uint64_t bytesALine = 192;
    constexpr std::uint64_t gatheredText = 16 * mebibyteCM;
    constexpr std::uint64_t copiesOfText = 3;
    constexpr std::uint64_t copiesOfALine = 8; // a line of any length: read, gathered, kept, reported
    constexpr std::uint64_t historyBytes = 64; // a number's second record moves both from its word to a history
    std::uint64_t const live = figures.liveTreeBytes;
    std::uint64_t const fresh = figures.treeBytes;
    std::uint64_t const lines = figures.lineBytes;
    std::uint64_t bytes = figures.otherBytes + std::min(figures.lines, gatheredLines) * bytesALine +
                          std::min(lines, gatheredText) * copiesOfText + figures.longestLine * copiesOfALine;
    switch (kind) {
    case LoadKind::FIRST_LOAD:
        // Both trees are filled at once.
        bytes += 2 * fresh;
        break;
    case LoadKind::RELOAD: // checking: live twice and fresh; filling: live, fresh and lines; refilling: fresh twice
        bytes += live + fresh + std::max({live, fresh, lines});
        break;
    case LoadKind::DELTA: // the records go into both live trees
        bytes += 2 * live + 2 * (fresh + figures.records * historyBytes) + lines;
        break;
    }
    // An eighth more, for what growing scatters.
    return bytes + bytes / 8;
}

std::vector<std::string> crossedLimits(GuardLimits const& limits, LoadKind kind, LoadFigures const& figures) {
    return Verdict(limits, kind, figures).reasons();
}

bool hasRoom(GuardLimits const& limits, LoadKind kind, LoadFigures const& figures) {
    return !limits.maxMemoryMiB || memoryAtPeak(kind, figures) <= *limits.maxMemoryMiB * mebibyteCM;
}

std::string textOf(GuardLimits const& limits) {
    std::string text;
    auto const add = [&text](char const* key, std::string const& value) {
        text += (text.empty() ? "" : ", ") + std::string(key) + " = " + value;
    };
    if (limits.maxLossPercent)
        add("maxLossPercent", percent(*limits.maxLossPercent));
    if (limits.maxRejectedPercent)
        add("maxRejectedPercent", percent(*limits.maxRejectedPercent));
    if (limits.maxNumbersWithoutDigits)
        add("maxNumbersWithoutDigits", std::to_string(*limits.maxNumbersWithoutDigits));
    if (limits.minRecords > 0)
        add("minRecords", std::to_string(limits.minRecords));
    if (limits.requireCompleteLastLine)
        add("requireCompleteLastLine", "true");
    if (limits.maxMemoryMiB)
        add("maxMemoryMiB", std::to_string(*limits.maxMemoryMiB));
    return text.empty() ? "-" : text;
}

std::string joined(std::vector<std::string> const& reasons) {
    std::string text;
    for (std::string const& reason : reasons)
        text += (text.empty() ? "" : "; ") + reason;
    return text;
}

std::string grouped(std::uint64_t number) {
    std::string text = std::to_string(number);
    for (std::size_t place = text.size(); place > 3; place -= 3)
        text.insert(place - 3, 1, ',');
    return text;
}

// Rounded up: a figure that is above the limit must not be shown as the limit.
std::uint64_t mebibytes(std::uint64_t bytes) {
    return (bytes + mebibyteCM - 1) / mebibyteCM;
}

} // namespace nphost
