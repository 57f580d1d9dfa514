#include "store/LongHistory.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace DAT::NumberPortability {

namespace {

constexpr std::uint32_t firstRuns = 4;

// The first of the records, newest first, that has started by `at`.
NumberPortabilityData* firstStarted(NumberPortabilityData* records, std::uint32_t count, BAS::DateTime const& at) {
    return std::partition_point(records, records + count,
                                [&](NumberPortabilityData const& record) { return record.validFromM > at; });
}

} // namespace

LongHistory::LongHistory(NumberPortabilityList const& list) {
    try {
        for (std::uint32_t i = 0; i < list.length(); ++i)
            insert(list.record(i));
    } catch (...) {
        freeAll();
        throw;
    }
}

LongHistory::LongHistory(LongHistory const& other) {
    try {
        other.each([this](NumberPortabilityData const& record) {
            insert(record);
            return true;
        });
    } catch (...) {
        freeAll();
        throw;
    }
}

LongHistory::~LongHistory() {
    freeAll();
}

LongHistory::Run LongHistory::makeRun(std::uint32_t capacity) {
    auto* const records =
        static_cast<NumberPortabilityData*>(pool().allocate(capacity * sizeof(NumberPortabilityData)));
    std::uninitialized_default_construct_n(records, capacity);
    return {records, 0, capacity};
}

void LongHistory::freeRun(Run const& run) noexcept {
    std::destroy_n(run.records, run.capacity);
    pool().release(run.records, run.capacity * sizeof(NumberPortabilityData));
}

void LongHistory::freeAll() noexcept {
    for (std::uint32_t i = 0; i < runCountM; ++i)
        freeRun(runsM[i]);
    if (runsM != nullptr)
        pool().release(runsM, runCapacityM * sizeof(Run));
}

// The first run with a record that has started by `at`, or the number of runs.
std::uint32_t LongHistory::runOf(BAS::DateTime const& at) const {
    Run const* const found = std::partition_point(
        runsM, runsM + runCountM, [&](Run const& run) { return run.records[run.count - 1].validFromM > at; });
    return static_cast<std::uint32_t>(found - runsM);
}

bool LongHistory::insertAt(NumberPortabilityData const& record) {
    std::uint32_t const found = runOf(record.validFromM);
    if (found == runCountM) { // older than all
        insert(record);
        return true;
    }
    Run const& run = runsM[found];
    NumberPortabilityData const* const next = firstStarted(run.records, run.count, record.validFromM);
    if (next->validFromM == record.validFromM)
        return false;
    put(found, static_cast<std::uint32_t>(next - run.records), record);
    return true;
}

void LongHistory::insert(NumberPortabilityData const& record) {
    if (runCountM == 0)
        addRun(0);
    put(runCountM - 1, runsM[runCountM - 1].count, record);
}

void LongHistory::put(std::uint32_t run, std::uint32_t position, NumberPortabilityData const& record) {
    NumberPortabilityData added(record); // what can fail comes first
    if (runsM[run].count == runsM[run].capacity)
        makeRoom(run, position);
    Run& grown = runsM[run];
    std::move_backward(grown.records + position, grown.records + grown.count, grown.records + grown.count + 1);
    grown.records[position] = std::move(added);
    ++grown.count;
    ++lengthM;
}

// Where the record goes to then is corrected.
void LongHistory::makeRoom(std::uint32_t& run, std::uint32_t& position) {
    Run& full = runsM[run];
    if (full.capacity < mostInRunCM) {
        Run larger = makeRun(full.capacity * 2);
        std::move(full.records, full.records + full.count, larger.records);
        larger.count = full.count;
        freeRun(std::exchange(full, larger));
    } else if (run == 0 && position == 0) {
        addRun(0);
    } else if (run + 1 == runCountM && position == full.count) {
        addRun(++run);
        position = 0;
    } else {
        addRun(run + 1);
        Run& first = runsM[run]; // the runs may have moved
        Run& second = runsM[run + 1];
        std::uint32_t const half = first.count / 2;
        std::move(first.records + half, first.records + first.count, second.records);
        second.count = std::exchange(first.count, half) - half;
        if (position > half) {
            ++run;
            position -= half;
        }
    }
}

// An empty run in front of that at `at`. The first run of all begins small.
void LongHistory::addRun(std::uint32_t at) {
    if (runCountM == runCapacityM)
        growRuns();
    Run const added = makeRun(runCountM == 0 ? 2 * leastCM : mostInRunCM);
    std::move_backward(runsM + at, runsM + runCountM, runsM + runCountM + 1);
    runsM[at] = added;
    ++runCountM;
}

void LongHistory::growRuns() {
    std::uint32_t const capacity = runCapacityM == 0 ? firstRuns : runCapacityM * 2;
    auto* const grown = static_cast<Run*>(pool().allocate(capacity * sizeof(Run)));
    std::copy_n(runsM, runCountM, grown);
    if (runsM != nullptr)
        pool().release(runsM, runCapacityM * sizeof(Run));
    runsM = grown;
    runCapacityM = capacity;
}

bool LongHistory::search(BAS::DateTime const& at, NumberPortabilityData& out) const {
    std::uint32_t const found = runOf(at);
    if (found == runCountM)
        return false;
    out = *firstStarted(runsM[found].records, runsM[found].count, at);
    return true;
}

bool LongHistory::search(BAS::DateTime const& at, NumberPortabilityData& out, BAS::DateTime& next) const {
    std::uint32_t const found = runOf(at);
    // The record before the one found, which may be the last of the run before.
    next = found == 0 ? BAS::DateTime() : runsM[found - 1].records[runsM[found - 1].count - 1].validFromM;
    if (found == runCountM)
        return false;
    NumberPortabilityData const* const record = firstStarted(runsM[found].records, runsM[found].count, at);
    if (record != runsM[found].records)
        next = record[-1].validFromM;
    out = *record;
    return true;
}

} // namespace DAT::NumberPortability
