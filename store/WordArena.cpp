#include "store/WordArena.h"

#include "store/HugePages.h"

#include <algorithm>
#include <new>

namespace PBC {

namespace {
constexpr std::size_t firstBytes = 64UL * 1024;
constexpr WordArena::Word mostWords = WordArena::Word{1} << WordArena::indexBitsCM;
} // namespace

WordArena::WordArena() {
    wordsM = static_cast<Word*>(HugePages::map(firstBytes));
    capacityM = firstBytes / sizeof(Word);
    usedM = 1; // the root, which is 0
}

void WordArena::drop() noexcept {
    if (wordsM != nullptr)
        HugePages::unmap(wordsM, capacityM * sizeof(Word));
    wordsM = nullptr;
    usedM = capacityM = 0;
    freeM.fill(0);
}

// By a quarter or more: what is mapped and not yet touched costs nothing but address space.
void WordArena::grow() {
    std::size_t const bytes = capacityM * sizeof(Word);
    std::size_t const grown = HugePages::rounded(bytes + std::max(bytes / 4, firstBytes));
    if (grown / sizeof(Word) > mostWords)
        throw std::bad_alloc();
    wordsM = static_cast<Word*>(HugePages::remap(wordsM, bytes, grown));
    capacityM = grown / sizeof(Word);
}

} // namespace PBC
