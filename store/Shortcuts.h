// PBC::Shortcuts<Layout>: a table from the leading digits of a key to the node where its walk can begin.
//
// Purpose: the first levels of a trie of millions are walked by every search and branch nearly everywhere. One step
// through a table takes their place. The digits that all keys begin with, a country's code, are compared and cost no
// table.
// Units and ranges: for radix 10. The table stands for up to mostDigitsCM digits after the common ones, fewer for a small
// trie, so that it is a small part of the trie's own memory.
// Ownership: owns the table; it refers to nodes and values, and means nothing once the trie changes.
// Threads: constant once made. Errors: make throws std::bad_alloc. Complexity: making is linear in the table and the
// nodes above its depth; begin is constant.
#pragma once

#include "store/Digits.h"
#include "store/HugePages.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

namespace PBC {

template <class Layout>
class Shortcuts {
  public:
    using Cursor = typename Layout::Cursor;
    using Value = typename Layout::Value;

    static constexpr unsigned mostDigitsCM = 6;

    // Null when a table is of no use.
    static std::unique_ptr<Shortcuts> make(Layout const& layout, std::size_t bytesOfTrie) {
        for (unsigned digits = mostDigitsCM; digits != 0; --digits) {
            if (powerOfTen(digits) * entryBytes * leastRatio > bytesOfTrie)
                continue;
            std::unique_ptr<Shortcuts> made(new Shortcuts(layout, digits));
            if (made->pathsM.size() <= mostPaths)
                return made;
        }
        return nullptr;
    }

    // An entry of the table.
    struct Start {
        using Index = std::uint32_t;
        static constexpr Index noneCM = ~Index{0};
    };

    // Where the walk of a key can begin, asked for but not read yet; Start::noneCM when it must begin at the root.
    typename Start::Index find(Digits const& key) const {
        if (key.length() < leastLengthM || ((key.bits() ^ commonM.bits()) & commonMaskM) != 0)
            return Start::noneCM;
        auto const start =
            static_cast<typename Start::Index>(indexOf(key.bits() << 4 * commonM.length() >> (64 - 4 * digitsM)));
        __builtin_prefetch(nodesM + start);
        __builtin_prefetch(waysM + start);
        return start;
    }
    // Its node, and the count of the key's digits that lead there.
    unsigned start(typename Start::Index start, Cursor& node) const {
        node = Layout::at(nodesM[start]);
        return commonM.length() + (waysM[start] >> takenShift);
    }
    // The values of the nodes above it, the shortest key's first.
    std::span<Value const> above(typename Start::Index start) const {
        Path const path = pathsM[waysM[start] & pathMask];
        return {valuesM.data() + path.begin, path.count};
    }

    // How many digits lead to each of those nodes.
    std::span<std::uint32_t const> digitsAbove(typename Start::Index start) const {
        Path const path = pathsM[waysM[start] & pathMask];
        return {digitsOfValuesM.data() + path.begin, path.count};
    }

    // All of it at once. False, and nothing changes, when the walk must begin at the root.
    bool begin(Digits& digits, Cursor& node, std::span<Value const>& above) const {
        auto const index = find(digits);
        if (index == Start::noneCM)
            return false;
        digits.drop(start(index, node));
        above = this->above(index);
        return true;
    }

    std::size_t bytes() const {
        return tableM.size + pathsM.size() * sizeof(Path) + valuesM.size() * (sizeof(Value) + sizeof(std::uint32_t));
    }

  private:
    using Copy = typename Layout::Copy;
    // How a node is reached. Bits 0-12: the path above it; bits 13-15: how many digits, after the common ones, lead
    // there.
    using Way = std::uint16_t;
    struct Path {
        std::uint32_t begin, count; // in valuesM
    };
    struct Above {
        Value value;
        std::uint32_t digits; // that lead there
    };
    // On huge pages when it is large.
    struct Table {
        explicit Table(std::size_t bytes)
            : isMapped(bytes >= HugePages::pageCM), size(isMapped ? HugePages::rounded(bytes) : bytes),
              memory(isMapped ? HugePages::map(size) : ::operator new(size)) {}
        Table(Table const&) = delete;
        Table& operator=(Table const&) = delete;
        ~Table() {
            if (isMapped)
                HugePages::unmap(memory, size);
            else
                ::operator delete(memory);
        }

        bool isMapped;
        std::size_t size;
        void* memory;
    };

    static constexpr unsigned takenShift = 13;
    static constexpr Way pathMask = (1U << takenShift) - 1;
    static constexpr std::size_t mostPaths = pathMask + 1;
    static constexpr std::size_t entryBytes = sizeof(Copy) + sizeof(Way);
    static constexpr std::size_t leastRatio = 20; // the trie's bytes for one of the table's
    static constexpr unsigned mostCommon = 9;
    static_assert(mostCommon + mostDigitsCM < Digits::mostCM && mostDigitsCM < 8);

    static std::size_t powerOfTen(unsigned exponent) {
        std::size_t power = 1;
        while (exponent-- > 0)
            power *= 10;
        return power;
    }
    // The number that up to six decimal digits of four bits say.
    static std::size_t indexOf(std::uint64_t digits) {
        std::uint64_t const pairs = (digits >> 4 & 0x0f0f0f) * 10 + (digits & 0x0f0f0f);
        return (pairs >> 16) * 10'000 + (pairs >> 8 & 0xff) * 100 + (pairs & 0xff);
    }

    Shortcuts(Layout const& layout, unsigned digits)
        : digitsM(digits), tableM(powerOfTen(digits) * entryBytes), nodesM(static_cast<Copy*>(tableM.memory)),
          waysM(reinterpret_cast<Way*>(nodesM + powerOfTen(digits))) {
        std::vector<Above> above;
        Cursor const node = afterCommon(layout, above);
        commonMaskM = commonM.empty() ? 0 : ~std::uint64_t{0} << (64 - 4 * commonM.length());
        leastLengthM = commonM.length() + digitsM;
        fill(layout, node, 0, 0, above, addPath(above));
    }

    // Follows the digits that all keys begin with.
    Cursor afterCommon(Layout const& layout, std::vector<Above>& above) {
        Cursor node = layout.root();
        for (;;) {
            Cursor child{}, other{};
            Digits const way = layout.wayDown(node, 0, child);
            if (way.empty() || commonM.length() + way.length() > mostCommon ||
                !layout.wayDown(node, way.first() + 1, other).empty())
                return node;
            if (Value const value = layout.value(node))
                above.push_back({value, commonM.length()});
            for (unsigned i = 0; i < way.length(); ++i)
                commonM.append(way.at(i));
            node = child;
        }
    }

    // The node serves all keys through it, until those through its children are overwritten by them. It recurses at most
    // digitsM deep.
    void fill(Layout const& layout, Cursor node, unsigned taken, std::size_t index, std::vector<Above>& above,
              std::size_t path) {
        std::size_t const size = powerOfTen(digitsM - taken);
        std::fill_n(nodesM + index, size, Layout::copyOf(node));
        std::fill_n(waysM + index, size, static_cast<Way>(taken << takenShift | (path & pathMask)));
        Value const value = layout.value(node);
        if (value)
            above.push_back({value, commonM.length() + taken});
        bool isPathNew = static_cast<bool>(value); // added when a child in the table needs it
        Cursor child{};
        for (int slot = 0; slot < 10;) {
            Digits const way = layout.wayDown(node, slot, child);
            if (way.empty())
                break;
            slot = way.first() + 1;
            if (taken + way.length() > digitsM)
                continue;
            if (std::exchange(isPathNew, false))
                path = addPath(above);
            fill(layout, child, taken + way.length(),
                 index + indexOf(way.bits() >> (64 - 4 * way.length())) * (size / powerOfTen(way.length())), above,
                 path);
        }
        if (value)
            above.pop_back();
    }

    std::size_t addPath(std::vector<Above> const& above) {
        pathsM.push_back({static_cast<std::uint32_t>(valuesM.size()), static_cast<std::uint32_t>(above.size())});
        for (Above const& one : above) {
            valuesM.push_back(one.value);
            digitsOfValuesM.push_back(one.digits);
        }
        return pathsM.size() - 1;
    }

    Digits commonM;
    std::uint64_t commonMaskM = 0;
    unsigned digitsM;
    unsigned leastLengthM = 0; // of a key that the table serves
    Table tableM;
    Copy* nodesM; // in the table, and behind them:
    Way* waysM;
    std::vector<Path> pathsM;
    std::vector<Value> valuesM;
    std::vector<std::uint32_t> digitsOfValuesM; // apart from the values, which more is asked for
};

} // namespace PBC
