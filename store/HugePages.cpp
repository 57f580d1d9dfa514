#include "store/HugePages.h"

#include <cstdint>
#include <new>
#include <sys/mman.h>

namespace PBC::HugePages {

namespace {

constexpr std::size_t smallPage = 64UL * 1024;

void* orThrow(void* range) {
    if (range == MAP_FAILED)
        throw std::bad_alloc();
    return range;
}

// Address space of `bytes` on a multiple of pageCM, not yet memory.
char* reserveAligned(std::size_t bytes) {
    void* const range =
        orThrow(mmap(nullptr, bytes + pageCM, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    auto* const begin = static_cast<char*>(range);
    std::size_t const before = (pageCM - reinterpret_cast<std::uintptr_t>(begin) % pageCM) % pageCM;
    if (before != 0)
        munmap(begin, before);
    munmap(begin + before + bytes, pageCM - before);
    return begin + before;
}

// After a move there that failed. The system may have let go of the place already, and another thread may have it now:
// only what can be taken afresh is surely nobody else's. What cannot is address space lost, no memory.
void giveBack(void* place, std::size_t bytes) {
    int const flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE;
    if (mmap(place, bytes, PROT_NONE, flags, -1, 0) == place)
        munmap(place, bytes);
}

void adviseHuge(void* range, std::size_t bytes) {
    madvise(range, bytes, MADV_HUGEPAGE); // a wish: it may be refused
}

} // namespace

std::size_t rounded(std::size_t bytes) {
    std::size_t const page = bytes < pageCM ? smallPage : pageCM;
    return (bytes + page - 1) / page * page;
}

void* map(std::size_t bytes) {
    if (bytes >= pageCM)
        return mapAligned(bytes, true);
    return orThrow(mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
}

void* mapAligned(std::size_t bytes, bool huge) {
    char* const place = reserveAligned(bytes);
    if (mprotect(place, bytes, PROT_READ | PROT_WRITE) != 0) {
        munmap(place, bytes);
        throw std::bad_alloc();
    }
    if (huge)
        adviseHuge(place, bytes);
    return place;
}

void* remap(void* range, std::size_t bytes, std::size_t grown) {
    if (bytes >= pageCM && mremap(range, bytes, grown, 0) != MAP_FAILED) // it can stay where it is
        return range;
    if (grown < pageCM)
        return orThrow(mremap(range, bytes, grown, MREMAP_MAYMOVE));
    char* const place = reserveAligned(grown);
    if (mremap(range, bytes, grown, MREMAP_MAYMOVE | MREMAP_FIXED, place) == MAP_FAILED) {
        giveBack(place, grown);
        throw std::bad_alloc();
    }
    adviseHuge(place, grown);
    return place;
}

void unmap(void* range, std::size_t bytes) noexcept {
    munmap(range, bytes);
}

} // namespace PBC::HugePages
