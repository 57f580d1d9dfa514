// nphost::GuardLimits: the limits that a data file must keep to be loaded, and the verdict on one.
//
// Purpose: the table [host.guard] says what a sound file looks like, a check says what a file holds, and crossedLimits
// says in words which limits it crosses. Every limit but minRecords is off unless it is configured; a file exactly at
// one passes.
//
//     maxLossPercent            of the live records, that a reload would lose: live records less those of the file. Not
//                               for a delta, which loses none; of no live records none are lost
//     maxRejectedPercent        of the file's lines, that are rejected, duplicates included; of no lines none are
//     maxNumbersWithoutDigits   records whose number field has no digit, so that they answer for all of the country
//     minRecords                that the file holds; 1 unless it is configured, 0 is off; not for a delta
//     requireCompleteLastLine   the last line has its newline; a file without lines has none that lacks it
//     maxMemoryMiB              that the process takes at the load's peak, as memoryAtPeak reckons it
//
// Units and ranges: percentages in thousandths of a percent, 0 to 100,000, so that they are compared exactly; memory in
// bytes, the limit in MiB; counts of records and lines up to 10^14.
// Ownership: values. Threads: no state. Errors: std::bad_alloc. Complexity: constant.
#pragma once

#include "host/config/Configuration.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace nphost {

enum class LoadKind { FIRST_LOAD, RELOAD, DELTA };

// "first load", "reload", "delta"
char const* nameOf(LoadKind kind);

struct GuardLimits {
    static constexpr std::uint32_t wholeCM = 100'000; // a hundred percent

    std::optional<std::uint32_t> maxLossPercent;     // in thousandths
    std::optional<std::uint32_t> maxRejectedPercent; // in thousandths
    std::optional<std::uint64_t> maxNumbersWithoutDigits;
    std::uint64_t minRecords = 1; // a file without records takes all numbers out of service
    bool requireCompleteLastLine = false;
    std::optional<std::uint64_t> maxMemoryMiB;

    // The keys of [host.guard].
    static void declare(Section& host, Configuration& configuration);

    bool any() const {
        return maxLossPercent || maxRejectedPercent || maxNumbersWithoutDigits || minRecords > 0 ||
               requireCompleteLastLine || maxMemoryMiB;
    }
    // Nothing is asked but that there is a record: no need to read further than to the first.
    bool onlyAnyRecord() const {
        GuardLimits others = *this;
        others.minRecords = 0;
        return minRecords == 1 && !others.any();
    }
    // Those that are asked of such a load.
    GuardLimits askedOf(LoadKind kind) const {
        GuardLimits asked = *this;
        if (kind != LoadKind::RELOAD)
            asked.maxLossPercent.reset();
        if (kind == LoadKind::DELTA)
            asked.minRecords = 0;
        return asked;
    }
};

// What a check has found: of the file, and of the live data.
struct LoadFigures {
    // False: memory was at its limit before the file was at its end, and all figures are too small.
    bool readToEnd = false;
    std::uint64_t lines = 0;
    std::uint64_t records = 0;
    std::uint64_t rejected = 0;
    std::string firstReject; // where and why; empty when there is none
    std::uint64_t withoutDigits = 0;
    std::uint64_t firstWithoutDigits = 0; // its line
    bool lastLineComplete = true;
    std::uint64_t lineBytes = 0;
    std::uint64_t longestLine = 0;
    std::uint64_t treeBytes = 0; // of a tree with the file's records
    std::uint64_t liveRecords = 0;
    std::uint64_t liveTreeBytes = 0; // of one of the two
    std::uint64_t otherBytes = 0;    // what the process has besides these two
};

// What the process takes at the most while it checks the file and loads it, rather too much than too little: trees that
// exist at once, the lines that a load keeps, what it gathers before it inserts it, what the process has besides, and
// an eighth for what growing scatters (docs/operations.md).
std::uint64_t memoryAtPeak(LoadKind kind, LoadFigures const& figures);

// In words, each with figure and limit. Empty when the file passes.
std::vector<std::string> crossedLimits(GuardLimits const& limits, LoadKind kind, LoadFigures const& figures);

// Whether there is memory for the load by these figures; true without a limit.
bool hasRoom(GuardLimits const& limits, LoadKind kind, LoadFigures const& figures);

// "maxLossPercent = 5, minRecords = 1000"; "-" when all are off.
std::string textOf(GuardLimits const& limits);

// Reasons in one line, separated by "; ".
std::string joined(std::vector<std::string> const& reasons);

// "1,240,000"
std::string grouped(std::uint64_t number);

// MiB, rounded up.
std::uint64_t mebibytes(std::uint64_t bytes);

} // namespace nphost
