// PBC::WordArena: the memory of a packed trie, one growing range of 64-bit words on huge pages.
//
// Purpose: hands out runs of one to mostCM words by number, not by address, so that the whole range can move when it
// grows and all of it can be dropped at once. Word 0 is handed out from the start: it is the trie's root.
// Units and ranges: words of eight bytes; up to 2^35 of them (256 GiB), of which the last fifth cannot be reached by
// growing.
// Ownership: owns the range. A reference to a word is valid until the next allocate; a number until it is released.
// Threads: none inside; concurrent reading is safe.
// Errors: construction and allocate throw std::bad_alloc, after which everything is as before. release never fails.
// Complexity: constant; a growth moves page tables, not bytes. Dropping costs the system's unmapping and nothing per
// word.
//
// A released run is kept in a list by its length, for the next allocate of that length. Its first word has both tag bits
// (freeTagCM) set, its other words are 0: whoever scans the arena can tell what is in use from what is not.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace PBC {

class WordArena {
  public:
    using Word = std::uint64_t;

    static constexpr unsigned mostCM = 17; // words of a run: sixteen children and a value
    static constexpr unsigned indexBitsCM = 35;
    static constexpr Word freeTagCM = 3;

    WordArena();
    WordArena(WordArena const&) = delete;
    WordArena& operator=(WordArena const&) = delete;
    ~WordArena() { drop(); }

    // A run of `count` words, 1 to mostCM, whose content is not defined but for runs never used before, which are 0.
    Word allocate(unsigned count) {
        Word const index = freeM[count];
        if (index == 0)
            return allocateNew(count);
        freeM[count] = wordsM[index] >> freeShiftCM;
        return index;
    }
    void release(Word index, unsigned count) {
        wordsM[index] = freeM[count] << freeShiftCM | freeTagCM;
        for (unsigned i = 1; i < count; ++i)
            wordsM[index + i] = 0;
        freeM[count] = index;
    }

    Word& operator[](Word index) { return wordsM[index]; }
    Word const& operator[](Word index) const { return wordsM[index]; }
    Word const* data() const { return wordsM; }

    // Words handed out so far, those released included.
    Word size() const { return usedM; }

    // Bytes of the range that hold or held something.
    std::size_t bytes() const { return usedM * sizeof(Word); }

    // Gives all memory back; only isDropped, swap and destruction may follow.
    void drop() noexcept;
    bool isDropped() const { return wordsM == nullptr; }

    void swap(WordArena& other) noexcept {
        std::swap(wordsM, other.wordsM);
        std::swap(usedM, other.usedM);
        std::swap(capacityM, other.capacityM);
        std::swap(freeM, other.freeM);
    }

  private:
    static constexpr unsigned freeShiftCM = 2;

    Word allocateNew(unsigned count) {
        if (capacityM - usedM < count)
            grow();
        Word const index = usedM;
        usedM += count;
        return index;
    }
    void grow();

    Word* wordsM = nullptr;
    Word usedM = 0;
    Word capacityM = 0;
    std::array<Word, mostCM + 1> freeM{}; // first released run by length; 0 is none
};

} // namespace PBC
