// Memory that runs out at any point of a load leaves the old data serving and the next load working.
#include "tests/OwnerDouble.h"
#include "tests/TemporaryFolder.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <new>
#include <sstream>

namespace {

// Allocations of this thread that still succeed; negative: all do.
thread_local long allowed = -1;

void* allocate(std::size_t size) {
    if (allowed == 0)
        throw std::bad_alloc();
    if (allowed > 0)
        --allowed;
    if (void* const memory = std::malloc(size == 0 ? 1 : size)) // NOLINT(cppcoreguidelines-no-malloc)
        return memory;
    throw std::bad_alloc();
}

} // namespace

// Not inlined: the compiler would take them for the library's own and warn of a mismatch with free.
[[gnu::noinline]] void* operator new(std::size_t size) {
    return allocate(size);
}
[[gnu::noinline]] void* operator new[](std::size_t size) {
    return allocate(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory); // NOLINT(cppcoreguidelines-no-malloc)
}
[[gnu::noinline]] void operator delete[](void* memory) noexcept {
    std::free(memory); // NOLINT(cppcoreguidelines-no-malloc)
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory); // NOLINT(cppcoreguidelines-no-malloc)
}
[[gnu::noinline]] void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory); // NOLINT(cppcoreguidelines-no-malloc)
}

using namespace DAT::NumberPortability;

namespace {

class OutOfMemory : public testing::Test {
  protected:
    OutOfMemory() {
        folder.write("main", "0171 20200101000000 OLD\n0171 20100101000000 OLDER-THAN-OLD\n0172 20200101000000 OLD\n");
        folder.write("delta", "0171 20240101000000 A-LONG-NETWORK\n0173123456 20240101000000 NEW\nbad\n");
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
    std::string listing() {
        std::ostringstream out;
        cache.print(out, false);
        return out.str();
    }

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
    for (unsigned const method : {0U, 1U, 2U})
        EXPECT_TRUE(withAllocations(0, [&] { EXPECT_EQ(cache.search(number, when, out, method), method != 1); }));
}
