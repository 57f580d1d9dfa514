#include "host/base/MemoryReserve.h"

#include <new>
#include <sys/mman.h>
#include <utility>

namespace nphost {

namespace {

// The new handler is the process's, the reserve one thread's: only there may it be given away.
thread_local MemoryReserve* reserveHere = nullptr;

} // namespace

MemoryReserve::MemoryReserve() {
    if (!isWhole())
        throw std::bad_alloc();
    reserveHere = this;
    std::set_new_handler(giveWay);
}

MemoryReserve::~MemoryReserve() {
    std::set_new_handler(nullptr);
    reserveHere = nullptr;
    for (void* const half : halvesM)
        if (half != nullptr)
            munmap(half, halfCM);
}

bool MemoryReserve::isWhole() noexcept {
    for (void*& half : halvesM) {
        if (half != nullptr)
            continue;
        // Mapped and not allocated: what is unmapped goes back to the system, where the allocator can get it.
        void* const place = mmap(nullptr, halfCM, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        half = place == MAP_FAILED ? nullptr : place;
    }
    return halvesM[0] != nullptr && halvesM[1] != nullptr;
}

// The new handler: returning means that the allocation is tried again.
void MemoryReserve::giveWay() {
    if (reserveHere == nullptr)
        throw std::bad_alloc();
    auto& [first, second] = reserveHere->halvesM;
    bool const tryAgain = first != nullptr;
    void* const half = std::exchange(tryAgain ? first : second, nullptr);
    if (half != nullptr)
        munmap(half, halfCM);
    if (!tryAgain)
        throw std::bad_alloc();
}

} // namespace nphost
