// DAT::NumberPortability::LongHistory: the history of a number with many records.
//
// Purpose: a list of exactly its length (NumberPortabilityList) moves all its records for every one that comes. That is
// the leanest for the few that nearly every number has, and takes hours for a million. Here a record that comes moves
// the records of one run at the most.
// Invariant: as that of a list: records stand newest first, no two with the same valid-from. insert does not keep it; the
// two ways must not be mixed.
// Ownership: owns its records. It lies in a block of a BlockPool and takes its memory from there: the pool may be cleared
// instead of ending the history, if its records own nothing.
// Threads: none inside; concurrent const use is safe.
// Errors: std::bad_alloc, after which the history is as before.
// Complexity: insertion and search are logarithmic in the length, an insertion also linear in one run and, once in a run's
// length, in the number of runs. Memory is at most about twice that of the records.
//
// How: runs of up to mostInRunCM records, and an array of them in the records' order. A run that is full is split; at
// either end of the history a new one is begun, so that records that come in order fill their runs.
#pragma once

#include "store/BlockPool.h"
#include "store/NumberPortabilityList.h"

#include <cstdint>

namespace DAT::NumberPortability {

class alignas(BlockPool::unitCM) LongHistory {
  public:
    static constexpr std::uint32_t leastCM = 32; // records; a list that grows beyond becomes a long history
    static constexpr std::uint32_t mostInRunCM = 256;

    // Copies, for a history that lies in a block of a pool.
    explicit LongHistory(NumberPortabilityList const& list);
    LongHistory(LongHistory const& other);
    LongHistory& operator=(LongHistory const&) = delete;
    ~LongHistory();

    // As those of a list.
    bool insertAt(NumberPortabilityData const& record);
    void insert(NumberPortabilityData const& record);
    bool search(BAS::DateTime const& at, NumberPortabilityData& out) const;
    bool search(BAS::DateTime const& at, NumberPortabilityData& out, BAS::DateTime& next) const;
    std::uint32_t length() const noexcept { return lengthM; }
    NumberPortabilityData const& newest() const { return runsM[0].records[0]; }

    // Calls take(NumberPortabilityData const&) for each record, the newest first, until it returns false.
    template <class Take>
    void each(Take&& take) const {
        for (std::uint32_t i = 0; i < runCountM; ++i)
            for (std::uint32_t j = 0; j < runsM[i].count; ++j)
                if (!take(runsM[i].records[j]))
                    return;
    }

  private:
    struct Run {
        NumberPortabilityData* records;
        std::uint32_t count;
        std::uint32_t capacity; // all of them are constructed
    };

    BlockPool& pool() { return BlockPool::of(this); }
    Run makeRun(std::uint32_t capacity);
    void freeRun(Run const& run) noexcept;
    void freeAll() noexcept;
    std::uint32_t runOf(BAS::DateTime const& at) const;
    void makeRoom(std::uint32_t& run, std::uint32_t& position);
    void addRun(std::uint32_t at);
    void growRuns();
    void put(std::uint32_t run, std::uint32_t position, NumberPortabilityData const& record);

    Run* runsM = nullptr;
    std::uint32_t runCountM = 0;
    std::uint32_t runCapacityM = 0;
    std::uint32_t lengthM = 0;
};

} // namespace DAT::NumberPortability
