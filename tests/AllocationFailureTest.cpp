// Memory that runs out at any point of a load leaves the old data serving and the next load working, and nothing leaks:
// that of the general allocator, and that which the trees take from the system themselves.
#include "tests/LimitedMemory.h"
#include "tests/OwnerDouble.h"
#include "tests/TemporaryFolder.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <new>
#include <optional>
#include <random>
#include <sstream>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// What this thread asks of the system. The allocator's and the sanitizers' own calls do not come by here.
struct Mappings {
    enum Failure { ONE, ALL_FROM_THEN_ON }; // the latter also refuses all growth in place
    long allowed = -1;                      // calls that still succeed; negative: all do
    Failure failure = ONE;
    bool refused = false; // one was
    long bytes = 0;       // mapped

    bool refuse() {
        if (allowed != 0) {
            allowed -= allowed > 0 ? 1 : 0;
            return false;
        }
        allowed = failure == ONE ? -1 : 0;
        refused = true;
        errno = ENOMEM;
        return true;
    }
};
thread_local Mappings mappings;

} // namespace

// In place of the C library's, for everything that is linked into this program.
namespace {
void* address(long result) {
    return reinterpret_cast<void*>(result); // NOLINT(performance-no-int-to-ptr)
}

} // namespace

extern "C" void* mmap(void* at, std::size_t bytes, int protection, int flags, int file, off_t offset) noexcept {
    if (mappings.refuse())
        return MAP_FAILED;
    void* const range = address(syscall(SYS_mmap, at, bytes, protection, flags, file, offset));
    mappings.bytes += range == MAP_FAILED ? 0 : static_cast<long>(bytes);
    return range;
}
extern "C" void* mremap(void* range, std::size_t bytes, std::size_t grown, int flags, ...) noexcept {
    bool const isInPlace = (flags & MREMAP_MAYMOVE) == 0;
    va_list more;
    va_start(more, flags);
    bool const isPlaced = (flags & MREMAP_FIXED) != 0; // over a range that was mapped before
    void* const place = isPlaced ? va_arg(more, void*) : nullptr;
    va_end(more);
    if ((isInPlace && mappings.failure == Mappings::ALL_FROM_THEN_ON) || mappings.refuse()) {
        if (isPlaced) // the system lets go of the place before it finds that it lacks memory
            munmap(place, grown);
        return MAP_FAILED;
    }
    void* const moved = address(syscall(SYS_mremap, range, bytes, grown, flags, place));
    if (moved != MAP_FAILED)
        mappings.bytes += static_cast<long>(isPlaced ? 0 : grown) - static_cast<long>(bytes);
    return moved;
}
extern "C" int mprotect(void* range, std::size_t bytes, int protection) noexcept {
    return mappings.refuse() ? -1 : static_cast<int>(syscall(SYS_mprotect, range, bytes, protection));
}
extern "C" int munmap(void* range, std::size_t bytes) noexcept {
    int const result = static_cast<int>(syscall(SYS_munmap, range, bytes));
    mappings.bytes -= result == 0 ? static_cast<long>(bytes) : 0;
    return result;
}

using namespace DAT::NumberPortability;

namespace {

// Expects at its end what there was at its beginning.
struct NothingLeaks {
    long const blocks = liveBlocks;
    long const bytes = mappings.bytes;
    NothingLeaks() = default;
    NothingLeaks(NothingLeaks const&) = delete;
    NothingLeaks& operator=(NothingLeaks const&) = delete;
    ~NothingLeaks() {
        if (testing::Test::IsSkipped()) // the message stays
            return;
        EXPECT_EQ(liveBlocks, blocks);
        EXPECT_EQ(mappings.bytes, bytes);
    }
};

class OutOfMemory : public testing::Test {
  protected:
    OutOfMemory() {
        std::string lines = "0171 20200101000000 OLD\n0171 20100101000000 OLDER-THAN-OLD\n0172 20200101000000 OLD\n"
                            "0171 20000101000000 OLDEST-OF-ALL\n0171 19900101000000 BEFORE-ALL-OTHERS\n";
        for (std::uint32_t i = 0; i < LongHistory::leastCM; ++i) // the delta makes a long history of it
            lines += "0176 201001010000" + std::to_string(10 + i) + (i % 9 == 0 ? " A-LONG-NETWORK\n" : " OLD\n");
        folder.write("main", lines);
        folder.write("delta", "0171 20240101000000 A-LONG-NETWORK\n0173123456 20240101000000 NEW\nbad\n"
                              "0176 20240101000000 A-LONG-NETWORK\n");
        EXPECT_TRUE(cache.load());
    }

    // Runs the action with memory for `count` allocations; true when that was enough for it not to throw.
    template <class Action>
    bool withAllocations(long count, Action&& action) {
        allowed = count;
        bool finished = true;
        try {
            action();
        } catch (std::bad_alloc const&) {
            finished = false;
        }
        allowed = -1;
        return finished;
    }
    std::string listing() { return listingOf(cache); }
    static std::string listingOf(CacheManager& listed) {
        std::ostringstream out;
        listed.print(out, false);
        return out.str();
    }

    NothingLeaks const nothingLeaks; // ends last
    TemporaryFolder folder;
    PlugIn plugIn;
    BAS::String const national = "0", international = "00", country = "44", sign = "+";
    CacheManager cache{&plugIn, national, international, country, sign, 3, BAS::String(folder.file("main"))};
};

} // namespace

TEST_F(OutOfMemory, AReloadLeavesOldOrNewDataWhole) {
    std::string const old = listing();
    folder.write("main", "0174 20240101000000 ANOTHER-LONG-ONE\n0175 20240101000000 NEW\n");
    std::string const fresh = "0044174  20240101000000  ANOTHER-LONG-ONE\n0044175  20240101000000  NEW\n";
    std::string const newFile = contentOf(folder.file("main"));
    long count = 0;
    for (bool finished = false; !finished; ++count) {
        finished = withAllocations(count, [&] { EXPECT_TRUE(cache.cacheReload(false)); });
        std::string const now = listing();
        ASSERT_TRUE(now == (finished ? fresh : old) || now == fresh) << "after " << count << " allocations:\n" << now;
        // The standby tree, which a delta makes active, holds the same; then from the start again.
        folder.write("delta", "");
        ASSERT_TRUE(cache.cacheDeltaLoad(BAS::String(folder.file("delta"))));
        ASSERT_EQ(listing(), now);
        folder.write("main", old);
        ASSERT_TRUE(cache.cacheReload(false));
        folder.write("main", newFile);
    }
    EXPECT_GT(count, 20);
}

TEST_F(OutOfMemory, WhatCannotBeReportedOfALoadLeavesItsOutcome) {
    plugIn.onReport = [](PlugIn::Report const& report) {
        if (report.identifier.starts_with("INF_"))
            throw std::bad_alloc();
    };
    EXPECT_TRUE(cache.load()); // again
    EXPECT_TRUE(cache.cacheReload(false));
    EXPECT_EQ(plugIn.takeIdentifiers().back(), "INF_DELETE_OLD_DATA");
}

TEST_F(OutOfMemory, ADeltaIsMergedWholeOrNotAtAll) {
    std::string const old = listing();
    std::string const mainFile = contentOf(folder.file("main"));
    std::string merged;
    bool finished = false;
    long count = 0;
    for (; !finished; ++count) {
        finished =
            withAllocations(count, [&] { EXPECT_TRUE(cache.cacheDeltaLoad(BAS::String(folder.file("delta")))); });
        std::string const now = listing();
        std::string const file = contentOf(folder.file("main"));
        if (now == old) {
            EXPECT_EQ(file, mainFile);
        } else { // live, so the main file must have it, unless memory ran out for writing it: then it is untouched
            EXPECT_TRUE(file == now || file == mainFile);
            ServiceStatus status;
            cache.describe(status);
            EXPECT_TRUE(file == now || status.unsaved) << count;
            merged = now;
            // From the start again, with the old data.
            folder.write("main", mainFile);
            ASSERT_TRUE(cache.cacheReload(false));
        }
        ASSERT_TRUE(now == old || now == merged) << "after " << count << " allocations:\n" << now;
    }
    EXPECT_GT(count, 20);
    EXPECT_NE(merged.find("0044173123456"), std::string::npos);
    // Whatever went before, the next delta merges into the whole of the old data.
    ASSERT_TRUE(cache.cacheDeltaLoad(BAS::String(folder.file("delta"))));
    EXPECT_EQ(listing(), merged);
    EXPECT_EQ(contentOf(folder.file("main")), merged);
}

TEST_F(OutOfMemory, LookingUpUsualNumbersAllocatesNothing) {
    BAS::String const number("00441711234567890123456789012345"); // 32 digits
    BAS::DateTime const when(BAS::String("20210101000000"));
    NumberPortabilityData out;
    NumberPortabilityData roomy(when, BAS::SimpleString("room for a long identifier"));
    BAS::DateTime const earlier("20150101000000");
    EXPECT_TRUE(withAllocations(0, [&] { EXPECT_TRUE(cache.search("0044171", earlier, roomy, 0)); }));
    EXPECT_STREQ(roomy.networkIdM.c_str(), "OLDER-THAN-OLD");
    EXPECT_FALSE(withAllocations(0, [&] { cache.search("0044171", earlier, out, 0); }));
    EXPECT_FALSE(out.validFromM.isValid()) << "unchanged when it could not be filled in";
    LookUpDetail detail;
    detail.record = detail.range = roomy;
    for (unsigned const method : {0U, 1U, 2U}) {
        EXPECT_TRUE(withAllocations(0, [&] { EXPECT_EQ(cache.search(number, when, out, method), method != 1); }));
        EXPECT_TRUE(withAllocations(0, [&] {
            cache.describeMany({&number, 1}, {&when, 1}, {&detail, 1}, method);
            EXPECT_TRUE(detail.hasRange());
        }));
    }
}

namespace {

// Data by the listing's order. Long numbers, so that few of them make the trie outgrow small and large pages, and with
// addLongHistory a history that outgrows the pool's chunks and the blocks that are cut from them.
using Records = std::map<std::string, std::vector<std::string>>; // newest first

Records manyRecords(unsigned seed, int numbers) {
    std::mt19937 random(seed);
    Records records;
    for (int i = 0; i < numbers; ++i) {
        std::string number = "0044";
        for (auto length = 8 + random() % 400; length > 0; --length)
            number += static_cast<char>('0' + random() % 10);
        std::vector<std::string>& history = records[number];
        for (auto year = 2020 + random() % 5; year >= 2020; --year)
            history.push_back(std::to_string(year) +
                              (random() % 2 == 0 ? "0101000000  SHORT" : "0101000000  A-LONG-NETWORK"));
    }
    return records;
}

void addLongHistory(Records& records, int length) {
    BAS::DateTime const newest("20200101000000");
    for (int i = 0; i < length; ++i) {
        auto const validFrom = BAS::DateTime::fromSeconds(newest.seconds() - static_cast<std::uint64_t>(i));
        records["0044"].push_back(validFrom.asString("%Y%m%d%H%M%S").str() + "  A-LONG-NETWORK");
    }
}

std::vector<std::string> linesOf(Records const& records) {
    std::vector<std::string> lines;
    for (auto const& [number, history] : records)
        for (std::string const& record : history)
            lines.emplace_back(number).append("  ").append(record).append("\n");
    return lines;
}

std::string joined(std::vector<std::string> const& lines) {
    std::string text;
    for (std::string const& line : lines)
        text += line;
    return text;
}

std::string shuffled(std::vector<std::string> lines) {
    std::shuffle(lines.begin(), lines.end(), std::mt19937(1));
    return joined(lines);
}

class OutOfMappings : public OutOfMemory, public testing::WithParamInterface<Mappings::Failure> {
  protected:
    // Runs the action and refuses one call, or all, after `count` of them. True when it did not throw.
    template <class Action>
    bool withMappings(long count, Action&& action) {
        mappings.failure = GetParam();
        mappings.refused = false;
        mappings.allowed = count;
        bool const finished = withAllocations(-1, action);
        mappings.allowed = -1;
        return finished;
    }
    bool wasRefused() const { return mappings.refused; }
    static Records recordsWith(int numbers, int longHistory) {
        Records records = manyRecords(1, numbers);
        addLongHistory(records, longHistory);
        return records;
    }

    std::vector<std::string> const freshLines = linesOf(recordsWith(8000, 600));
    std::string const fresh = joined(freshLines);
    std::string const freshFile = shuffled(freshLines);
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Refusing, OutOfMappings, testing::Values(Mappings::ONE, Mappings::ALL_FROM_THEN_ON),
                         [](auto const& mode) { return mode.param == Mappings::ONE ? "One" : "AllFromThenOn"; });

// Every call is refused in turn; where a sanitizer makes each try ten times as long, one of 29.
#ifdef NP_SANITIZED
constexpr long stepCM = 29;
#else
constexpr long stepCM = 1;
#endif

TEST_P(OutOfMappings, AFirstLoadThatFailedIsMadeGoodByAReload) {
    std::vector<std::string> const lines = linesOf(recordsWith(8000, 2051));
    std::string const expected = joined(lines);
    folder.write("main", shuffled(lines));
    long count = 0;
    do {
        NothingLeaks const nothing;
        PlugIn owner;
        std::optional<CacheManager> other;
        bool const finished = withMappings(count, [&] {
            other.emplace(&owner, national, international, country, sign, 3, BAS::String(folder.file("main")));
            EXPECT_TRUE(other->load());
        });
        if (!other)
            continue;
        if (!finished) {
            ASSERT_TRUE(other->cacheReload(false));
        }
        ASSERT_TRUE(listingOf(*other) == expected) << "after " << count << " calls";
    } while (count += stepCM, wasRefused());
    EXPECT_GT(count, 30) << "too little data to grow";
}

TEST_P(OutOfMappings, AReloadLeavesOldOrNewDataWhole) {
    std::string const old = listing();
    long count = 0;
    do {
        folder.write("main", freshFile);
        bool const finished = withMappings(count, [&] { EXPECT_TRUE(cache.cacheReload(false)); });
        std::string const now = listing();
        ASSERT_TRUE(now == fresh || (now == old && !finished)) << "after " << count << " calls";
        ASSERT_TRUE(cache.cacheReload(false));
        ASSERT_TRUE(listing() == fresh) << "after " << count << " calls";
        folder.write("main", old);
        ASSERT_TRUE(cache.cacheReload(false));
        ASSERT_EQ(listing(), old);
    } while (count += stepCM, wasRefused());
    EXPECT_GT(count, 30) << "too little data to grow";
}

// A failure leaves the standby tree to be filled again by the next delta, which fails on in that.
TEST_P(OutOfMappings, ADeltaIsMergedWholeOrNotAtAll) {
    folder.write("main", freshFile);
    ASSERT_TRUE(cache.cacheReload(false));
    Records records = manyRecords(2, 8000);
    folder.write("delta", shuffled(linesOf(records)));
    records.merge(recordsWith(8000, 600));
    std::string const merged = joined(linesOf(records));
    long count = 0;
    do {
        withMappings(count, [&] { EXPECT_TRUE(cache.cacheDeltaLoad(BAS::String(folder.file("delta")))); });
        std::string const now = listing();
        ASSERT_TRUE(now == fresh || now == merged) << "after " << count << " calls";
        ASSERT_TRUE(contentOf(folder.file("main")) == (now == merged ? merged : freshFile));
        if (now == merged) { // from the start again
            folder.write("main", freshFile);
            ASSERT_TRUE(cache.cacheReload(false));
            ASSERT_TRUE(listing() == fresh);
        }
    } while (++count, wasRefused());
    EXPECT_GE(count, 3) << "too little data to grow";
    ASSERT_TRUE(cache.cacheDeltaLoad(BAS::String(folder.file("delta"))));
    EXPECT_TRUE(listing() == merged);
}
