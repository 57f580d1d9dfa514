// PBC::PackedLayout<T, Values>: a trie in words of eight bytes.
//
// Purpose: what costs a look-up time is memory that is not in the processor's caches, so the trie is made as small as
// can be, and what a step needs lies together. A node is one word in its parent's run of children; a node without
// children needs nothing else, and a row of nodes with one child each is one word and the word at its end.
//
// A word, by its two lowest bits:
//   BRANCH  bit 2: the node has a value; bits 3-18: which children it has; bits 29-63: where its run is. The run holds
//           the value's word, if any, then the children's words by ascending slot. A word of 0 is a node without both.
//   CHAIN   a row of one to six nodes with one child each and without values, the word's own node the first. Bits 2-4:
//           how many; bits 5-28: the slots that lead down from them, four bits each, the first highest; bits 29-63: where
//           the word of the node below the last is.
//   VALUE   a node with a value and no children; bits 2-63 are the value's, as Values has it.
//   FREE    not a node: the first word of a released run (WordArena.h).
// A run is allocated for exactly what it holds and replaced when that changes. A branch without a value has two
// children or more.
//
// Values says what a value is (PointerValues below: a pointer to a T on the heap):
//   Value                        what a search finds; false when there is none
//   Word word(Value value)       its word, of tag VALUE
//   Value at(Word word)          the value of a word; 0 gives none
//   Value adopt(T* value)        takes the object over, for PtrTree::insert; must not fail
//   void destroy(Word word)      frees what the word's value owns
//   bool ownsNothing()           destroy has nothing to do for any of them
//   void clear()                 frees everything that values own together, after each was destroyed or owned nothing
//   bool isApart(Value)          it lies elsewhere than in its word, so that fetching it ahead is worth while
//   void print(Value, out, key), void prefetch(Value), void prefetchContent(Value)
// What only prefetches is always inline: the compiler takes a call of it for one without effect and drops it.
//
// Ownership: owns all nodes and, through Values, all values. Threads: none inside; concurrent const use is safe.
// Errors: std::bad_alloc, after which everything is as before.
// Complexity: a step down is constant, a change linear in the children of one node. Freeing costs the system's
// unmapping; where values own things, also a scan of the memory in its order.
#pragma once

#include "store/PlainLayout.h"
#include "store/WordArena.h"

#include <bit>
#include <cstdint>
#include <ostream>

namespace PBC {

// Values that are pointers to objects on the heap.
template <class T>
class PointerValues {
  public:
    using Word = WordArena::Word;
    using Value = T*;

    Value at(Word word) const { return std::bit_cast<T*>(word >> shiftCM); } // user space ends below 2^47
    static Word word(Value value) { return std::bit_cast<Word>(value) << shiftCM | 2; }
    Value adopt(T* value) { return value; }
    void destroy(Word word) { delete at(word); }
    bool ownsNothing() const { return false; }
    void clear() {}
    void print(Value value, std::ostream& out, std::string_view key) const { value->printTree(out, BAS::String(key)); }
    bool isApart(Value) const { return true; }
    [[gnu::always_inline]] void prefetch(Value value) const { __builtin_prefetch(value); }
    void prefetchContent(Value) const {}

  private:
    static constexpr unsigned shiftCM = 2;
};

template <class T, class Values = PointerValues<T>>
class PackedLayout {
  public:
    using Word = WordArena::Word;
    using Node = PtrTreeNode<T>; // whose nodeCountM counts the nodes of this layout too
    using Value = typename Values::Value;
    // Where a node's word is; never within a chain.
    using Cursor = Word const*;
    static constexpr unsigned mostAtOnceCM = 6;
    // Where a node's word is. Within a chain: where the chain's word is, and how many nodes of it come before.
    struct Place {
        Word index;
        unsigned position;
        Word chain; // the chain that ends in this word, so that it can be made longer; noneCM when there is none
    };

    explicit PackedLayout(int base) : baseM(base) { countNodes(1); }
    PackedLayout(PackedLayout const&) = delete;
    PackedLayout& operator=(PackedLayout const&) = delete;
    ~PackedLayout() {
        if (hasRoot())
            destroy();
    }

    bool hasRoot() const { return !arenaM.isDropped(); }
    void destroy() {
        freeValues();
        arenaM.drop();
        uncountNodes();
    }
    void init() {
        WordArena fresh;
        if (hasRoot())
            destroy();
        arenaM.swap(fresh);
        countNodes(1);
    }

    Cursor root() const { return arenaM.data(); }
    Value value(Cursor cursor) const { return valuesM.at(valueWord(*cursor)); }
    static bool hasValue(Cursor cursor) { return hasValue(*cursor); }
    bool descend(Cursor& cursor, Digits& digits) const {
        Word const word = *cursor;
        if (tagOf(word) == BRANCH) {
            int const slot = digits.first();
            digits.drop(1);
            cursor = arenaM.data() + indexOf(word) + before(word, slot);
            return (word & childBit(slot)) != 0;
        }
        unsigned const count = countOf(word);
        if (tagOf(word) != CHAIN || count > digits.length() ||
            ((slotsOf(word) ^ digits.bits()) >> (64 - 4 * count)) != 0)
            return false;
        digits.drop(count);
        cursor = arenaM.data() + indexOf(word);
        return true;
    }
    // As descend, without a branch: 1 when there is a step down, otherwise 0. At a node without children the cursor
    // stays, so that whoever fetches its memory beforehand fetches nothing else.
    unsigned step(Cursor& cursor, RemainingDigits& digits) const {
        Word const word = *cursor;
        Word const chain = -(word & CHAIN); // masks
        Word const end = -(word >> 1 & 1);
        unsigned const slot = digits.first();
        Word const chainBits = word & (Word{7} << countShift); // four for each digit
        Word const differs = (slotsOf(word) ^ digits.bits()) >> (-chainBits & 63);
        Word const lacks = ~word >> (childrenShift + slot) & 1;
        auto const skipped = static_cast<Word>(std::popcount(word & (childBit(slot) - 1) & ~chain));
        digits.dropBits(static_cast<unsigned>((chainBits & chain) | (4 & ~chain)));
        Cursor const next = arenaM.data() + indexOf(word) + skipped;
        cursor = end != 0 ? cursor : next;
        return ((differs & chain) | (lacks & ~chain) | end | digits.isOver()) == 0 ? 1 : 0;
    }
    // Not for a branch's value, which would have to be read to know.
    bool isApart(Cursor cursor) const { return tagOf(*cursor) == VALUE && valuesM.isApart(valuesM.at(*cursor)); }
    Digits wayDown(Cursor cursor, int from, Cursor& child) const {
        Word const word = *cursor;
        if (tagOf(word) == CHAIN) {
            child = arenaM.data() + indexOf(word);
            return from <= slotAt(word, 0) ? Digits(slotsOf(word), countOf(word)) : Digits();
        }
        Word const children = tagOf(word) == BRANCH ? (word & childrenMask) >> childrenShift >> from : 0;
        if (children == 0)
            return {};
        int const slot = from + std::countr_zero(children);
        child = arenaM.data() + indexOf(word) + before(word, slot);
        return Digits::of(slot);
    }
    static bool isLeaf(Cursor cursor) { return tagOf(*cursor) == VALUE; }
    [[gnu::always_inline]] static void prefetch(Cursor cursor) { __builtin_prefetch(cursor); }
    // Fetches what lies below a node's children, for whoever will go through all of it.
    [[gnu::always_inline]] void prefetchBelow(Cursor cursor) const {
        Word const word = *cursor;
        if (tagOf(word) != BRANCH)
            return;
        Word const* const run = arenaM.data() + indexOf(word);
        for (unsigned i = 0; i < lengthOf(word); ++i)
            if (tagOf(run[i]) == VALUE)
                valuesM.prefetch(valuesM.at(run[i]));
            else
                __builtin_prefetch(arenaM.data() + indexOf(run[i]));
    }
    // A node's word, apart from its trie, but good until that changes; and a cursor at it.
    using Copy = Word;
    static Copy copyOf(Cursor cursor) { return *cursor; }
    static Cursor at(Copy const& copy) { return &copy; }
    [[gnu::always_inline]] void prefetch(Value value) const { valuesM.prefetch(value); }
    [[gnu::always_inline]] void prefetchContent(Value value) const { valuesM.prefetchContent(value); }
    void print(Value value, std::ostream& out, std::string_view key) const { valuesM.print(value, out, key); }

    Place rootPlace() { return {0, 0, noneCM}; }
    bool descend(Place& place, int slot) {
        Word const word = arenaM[place.index];
        if (tagOf(word) == BRANCH) {
            if ((word & childBit(slot)) == 0)
                return false;
            place = {indexOf(word) + before(word, slot), 0, noneCM};
            return true;
        }
        if (tagOf(word) != CHAIN || slotAt(word, place.position) != slot)
            return false;
        place = below(place, word);
        return true;
    }
    Place grow(Place& place, int slot) {
        Word const word = arenaM[place.index];
        if (word == 0)
            return growChain(place, slot);
        if (tagOf(word) == CHAIN) {
            unsigned const added = slotAt(word, place.position) < slot ? 1 : 0;
            Word const run = split(place, childBit(slot), added);
            return {run + added, 0, noneCM};
        }
        Word const bits = tagOf(word) == VALUE ? valueBit : word & bitsMask;
        unsigned const added = before(bits, slot);
        Word const run = replaceRun(place.index, word, bits | childBit(slot), added);
        arenaM[run + added] = 0;
        return {run + added, 0, noneCM};
    }
    Value value(Place place) {
        Word const word = arenaM[place.index];
        return valuesM.at(place.position == 0 ? valueWord(word) : 0);
    }
    void value(Place& place, T* value) { setWord(place, Values::word(valuesM.adopt(value))); }
    // The same for a value that Values has made.
    void store(Place& place, Value value) { setWord(place, Values::word(value)); }
    void countNodes(std::uint64_t nodes) {
        if (nodes == 0) // most insertions of a second record
            return;
        Node::nodeCountM.fetch_add(nodes, std::memory_order_relaxed);
        nodesM += nodes;
    }

    Values& values() { return valuesM; }
    Values const& values() const { return valuesM; }
    std::size_t bytes() const { return arenaM.bytes(); }

  private:
    enum Tag : Word { BRANCH = 0, CHAIN = 1, VALUE = 2, FREE = WordArena::freeTagCM };

    static constexpr Word noneCM = ~Word{0};
    static constexpr Word tagMask = 3;
    static constexpr Word valueBit = 4;
    static constexpr unsigned childrenShift = 3;
    static constexpr Word childrenMask = Word{0xffff} << childrenShift;
    static constexpr Word bitsMask = valueBit | childrenMask;
    static constexpr unsigned indexShift = 64 - WordArena::indexBitsCM;
    static constexpr unsigned countShift = 2;
    static constexpr unsigned slotsShift = 5;
    static constexpr unsigned mostInChain = mostAtOnceCM;

    static Tag tagOf(Word word) { return static_cast<Tag>(word & 3); }
    static Word indexOf(Word word) { return word >> indexShift; }
    static Word childBit(unsigned slot) { return Word{1} << (childrenShift + slot); }
    static Word childBit(int slot) { return childBit(static_cast<unsigned>(slot)); }
    // How many words of a branch's run come before that of the child.
    static unsigned before(Word branch, int slot) {
        return static_cast<unsigned>(std::popcount(branch & (childBit(slot) - 1)));
    }
    static unsigned lengthOf(Word bits) { return static_cast<unsigned>(std::popcount(bits & bitsMask)); }
    static Word branch(Word run, Word bits) { return run << indexShift | bits; }

    static unsigned countOf(Word chain) { return static_cast<unsigned>(chain >> countShift & 7); }
    static int slotAt(Word chain, unsigned position) {
        return static_cast<int>(chain >> (slotsShift + 4 * (mostInChain - 1 - position)) & 15);
    }
    // As Digits has them.
    static Word slotsOf(Word chain) { return chain >> slotsShift << (64 - 4 * mostInChain); }
    static Word chain(Word end, Digits slots) {
        return end << indexShift | slots.bits() >> (64 - 4 * mostInChain) << slotsShift |
               static_cast<Word>(slots.length()) << countShift | CHAIN;
    }
    static Digits digitsOf(Word chain) { return {slotsOf(chain), countOf(chain)}; }
    static Digits first(Word chain, unsigned count) {
        return {slotsOf(chain) >> (64 - 4 * count) << (64 - 4 * count), count};
    }
    static Word withoutFirst(Word word, unsigned count) {
        Digits slots = digitsOf(word);
        slots.drop(count);
        return chain(indexOf(word), slots);
    }

    static bool hasValue(Word word) { return ((word >> 1 | (word >> 2 & ~word)) & 1) != 0; }
    // One test for both: whether a word is a branch cannot be foretold, that it has a value hardly ever is so.
    static bool isBranchWithValue(Word word) { return (word & (tagMask | valueBit)) == (BRANCH | valueBit); }
    Word valueWord(Word word) const {
        if ((word & VALUE) != 0)
            return word;
        return isBranchWithValue(word) ? arenaM[indexOf(word)] : 0;
    }

    // The node below one of a chain's.
    static Place below(Place const& place, Word word) {
        if (place.position + 1 == countOf(word))
            return {indexOf(word), 0, place.index};
        return {place.index, place.position + 1, noneCM};
    }

    // Under a node that has neither children nor value: at the end of a chain that has room, or at the root of a new one.
    Place growChain(Place& place, int slot) {
        if (place.chain != noneCM && countOf(arenaM[place.chain]) < mostInChain) {
            Digits slots = digitsOf(arenaM[place.chain]);
            slots.append(slot);
            arenaM[place.chain] = chain(place.index, slots);
            Place const child{place.index, 0, place.chain};
            place = {place.chain, slots.length() - 1, noneCM};
            return child;
        }
        Word const end = arenaM.allocate(1);
        arenaM[end] = 0;
        arenaM[place.index] = chain(end, Digits::of(slot));
        return {end, 0, place.index};
    }

    // Gives the branch or value `word`, which lies at `index`, a run with room for one word more at `added`; returns it.
    Word replaceRun(Word index, Word word, Word bits, unsigned added) {
        bool const isBranch = tagOf(word) == BRANCH;
        unsigned const length = isBranch ? lengthOf(word) : 1;
        Word const run = arenaM.allocate(length + 1);
        Word const* const old = isBranch ? &arenaM[indexOf(word)] : &word;
        for (unsigned i = 0; i < added; ++i)
            arenaM[run + i] = old[i];
        for (unsigned i = added; i < length; ++i)
            arenaM[run + i + 1] = old[i];
        if (isBranch)
            arenaM.release(indexOf(word), length);
        arenaM[index] = branch(run, bits);
        return run;
    }

    // Makes a branch of a chain's node, with `bit`, a child or the value, beside the child that it has. The branch's run,
    // which is returned, has 0 for it at `added`, 0 or 1. `place` is where the branch is then.
    Word split(Place& place, Word bit, unsigned added) {
        Word const word = arenaM[place.index];
        unsigned const count = countOf(word);
        bool const isLast = place.position + 1 == count;
        Word const run = arenaM.allocate(2);
        Word end = indexOf(word); // where the branch goes
        if (place.position != 0 && !isLast)
            end = allocateOr(run);
        Word const rest = isLast ? arenaM[indexOf(word)] : withoutFirst(word, place.position + 1);
        if (place.position == 0 && isLast)
            arenaM.release(indexOf(word), 1);
        arenaM[run + added] = 0;
        arenaM[run + 1 - added] = rest;
        Word const node = branch(run, bit | childBit(slotAt(word, place.position)));
        if (place.position == 0) {
            arenaM[place.index] = node;
        } else {
            arenaM[end] = node;
            arenaM[place.index] = chain(end, first(word, place.position));
            place = {end, 0, place.index};
        }
        return run;
    }

    Word allocateOr(Word run) {
        try {
            return arenaM.allocate(1);
        } catch (...) {
            arenaM.release(run, 2);
            throw;
        }
    }

    void setWord(Place& place, Word value) {
        Word const word = arenaM[place.index];
        if (word == 0 || tagOf(word) == VALUE)
            arenaM[place.index] = value;
        else if (tagOf(word) == CHAIN)
            arenaM[split(place, valueBit, 0)] = value;
        else if ((word & valueBit) != 0)
            arenaM[indexOf(word)] = value;
        else
            arenaM[replaceRun(place.index, word, (word & bitsMask) | valueBit, 0)] = value;
    }

    void freeValues() {
        if (!valuesM.ownsNothing())
            for (Word i = 0; i < arenaM.size(); ++i)
                if (tagOf(arenaM[i]) == VALUE)
                    valuesM.destroy(arenaM[i]);
        valuesM.clear();
    }
    void uncountNodes() {
        Node::nodeCountM.fetch_sub(nodesM, std::memory_order_relaxed);
        nodesM = 0;
    }

    int baseM;
    std::uint64_t nodesM = 0;
    WordArena arenaM; // word 0 is the root's
    Values valuesM;
};

} // namespace PBC
