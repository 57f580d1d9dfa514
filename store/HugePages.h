// PBC::HugePages: zeroed memory straight from the system, on huge pages where it is large enough for them.
//
// Purpose: the arenas of a tree are walked at random. On pages of 4 KiB nearly every step would miss the processor's
// address cache, on pages of 2 MiB few do. The memory is not the allocator's, so it goes back to the system at once when
// it is dropped, and never scatters what comes after it.
// Units and ranges: sizes in bytes, of one 64 KiB or more; ranges of pageCM or more begin on a multiple of it.
// Ownership: the caller's. Threads: any.
// Errors: std::bad_alloc when the system refuses; a range that was to grow is then as before. Where the system gives
// no huge pages the memory is the same on ordinary ones.
// Complexity: a few system calls; growing moves page tables and copies nothing.
#pragma once

#include <cstddef>

namespace PBC::HugePages {

constexpr std::size_t pageCM = 2UL * 1024 * 1024;

// The size that a range of at least `bytes` should have.
std::size_t rounded(std::size_t bytes);

void* map(std::size_t bytes);
// The same content at a place that may be another one; what was added is zero.
void* remap(void* range, std::size_t bytes, std::size_t grown);
void unmap(void* range, std::size_t bytes) noexcept;

// `bytes`, a multiple of pageCM, that begin on a multiple of pageCM; with huge pages only when asked.
void* mapAligned(std::size_t bytes, bool huge);

} // namespace PBC::HugePages
