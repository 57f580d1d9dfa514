// What a test and the allocator of the program under test share (RefusingAllocator.cpp).
#pragma once

#include <atomic>

struct Refusal {
    static constexpr char const* variableCM = "NP_TEST_REFUSAL";

    std::atomic<long> allowed{-1};  // allocations that still succeed; negative: all do
    std::atomic<bool> lasts{false}; // all after them fail, not one
    std::atomic<bool> met{false};   // one has failed
    std::atomic<long> givenBack{0}; // bytes that the program had in reserve

    bool isLasting() const { return lasts.load() && allowed.load() == 0; }

    bool refuses(long size) {
        if (isLasting() && givenBack.load() >= size) {
            givenBack -= size;
            return false;
        }
        for (long left = allowed.load(); left >= 0;) {
            bool const last = left == 0;
            if (!allowed.compare_exchange_weak(left, last && lasts.load() ? 0 : left - 1))
                continue;
            if (last)
                met.store(true);
            return last;
        }
        return false;
    }
};
static_assert(std::atomic<long>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);
