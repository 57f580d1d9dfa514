// The general allocator of a test program, which can be told to refuse. For one source of a program.
#pragma once

#include <atomic>
#include <cstdlib>
#include <functional>
#include <new>
#include <thread>
#include <utility>

// NOLINTBEGIN(misc-definitions-in-headers): a program has it once, as said
namespace {

std::atomic<long> liveBlocks = 0; // of operator new; a thread may free what another has made

// Allocations of this thread that still succeed; negative: all do. Then all fail, or one does.
thread_local long allowed = -1;
thread_local bool refusesOne = false;

// Refuses the next allocation of another thread than the tests'.
std::atomic<bool> refusesOthers = false;
std::thread::id const ownThread = std::this_thread::get_id();

// Called before this thread's next allocation, and by no other.
thread_local std::function<void()>* beforeAllocation = nullptr;

void* allocate(std::size_t size) {
    if (beforeAllocation != nullptr)
        (*std::exchange(beforeAllocation, nullptr))();
    if (refusesOthers && std::this_thread::get_id() != ownThread && refusesOthers.exchange(false))
        throw std::bad_alloc();
    if (allowed == 0) {
        allowed = refusesOne ? -1 : 0;
        throw std::bad_alloc();
    }
    if (allowed > 0)
        --allowed;
    void* const memory = std::malloc(size == 0 ? 1 : size); // NOLINT(cppcoreguidelines-no-malloc)
    if (memory == nullptr)
        throw std::bad_alloc();
    ++liveBlocks;
    return memory;
}

void release(void* memory) noexcept {
    liveBlocks -= memory == nullptr ? 0 : 1;
    std::free(memory); // NOLINT(cppcoreguidelines-no-malloc)
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
    release(memory);
}
[[gnu::noinline]] void operator delete[](void* memory) noexcept {
    release(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    release(memory);
}
[[gnu::noinline]] void operator delete[](void* memory, std::size_t) noexcept {
    release(memory);
}
// NOLINTEND(misc-definitions-in-headers)
