// nphost::MemoryReserve: memory that is kept back for one thread, for when there is no other.
//
// Purpose: the event loop must answer when a load has taken all memory, and the JSON library ends the process where it
// cannot allocate while it frees a value. The first allocation of the owner's that fails gets the first half of the
// reserve, so that most work is finished; the next one that fails is a std::bad_alloc, and the second half is there
// for what is freed then. Work that frees such values begins only while the reserve is whole.
// Ownership: owns its memory, and the process's new handler while it lives: one object in a process at a time.
// Threads: construction, isWhole and destruction by the owner, which is the thread that constructs it. Others get their
// std::bad_alloc as without it.
// Errors: construction throws std::bad_alloc.
// Complexity: constant; a system call or two when it must be filled again.
#pragma once

#include <array>
#include <cstddef>

namespace nphost {

class MemoryReserve {
  public:
    static constexpr std::size_t halfCM = 1024UL * 1024; // bytes

    MemoryReserve();
    MemoryReserve(MemoryReserve const&) = delete;
    MemoryReserve& operator=(MemoryReserve const&) = delete;
    ~MemoryReserve();

    // Fills it again where it can. It is memory's address range that is kept, not pages.
    bool isWhole() noexcept;

  private:
    static void giveWay();

    std::array<void*, 2> halvesM{};
};

} // namespace nphost
