// PBC::Lanes<Layout, measures>: the walks of some keys down a trie, all at once.
//
// Purpose: a walk waits for memory at every step. While the memory of one key's next node is under way, the other keys
// take their steps. Whether a key goes on, and through a node of which kind, cannot be foretold, and a wrong guess of
// the processor's costs more than a step, so there is no branch for either.
// With `measures` it also notes how far down each node with a value lies, which costs a little at each step.
// Units and ranges: up to mostCM keys of up to RemainingDigits::mostCM digits.
// Ownership: borrows the layout and the shortcuts, which must not change meanwhile. Threads: one.
// Errors: none; nothing is allocated. Complexity: a step for each node of each walk.
#pragma once

#include "store/Shortcuts.h"

#include <array>
#include <cstdint>
#include <type_traits>

namespace PBC {

template <class Layout, bool measures = false>
class Lanes {
  public:
    using Cursor = typename Layout::Cursor;
    using Value = typename Layout::Value;

    static constexpr unsigned mostCM = 32;

    Lanes(Layout const& layout, Shortcuts<Layout> const* shortcuts) : layoutM(layout), shortcutsM(shortcuts) {}

    // To be called for every lane in turn, from 0. A key without digits meets no node.
    void begin(unsigned lane, Digits const& key) {
        nodesM[lane] = layoutM.root();
        metCountsM[lane] = 0;
        restM[lane] = RemainingDigits(key);
        startsM[lane] = shortcutsM == nullptr ? Start::noneCM : shortcutsM->find(key);
        goingM[goingCountM] = lane;
        goingCountM += key.empty() ? 0 : 1;
    }

    void walk() {
        for (unsigned i = 0; i < goingCountM; ++i)
            start(goingM[i]);
        unsigned going = goingCountM; // here and below, a copy that no store can change is a register
        while (going != 0) {
            Layout const& layout = layoutM;
            unsigned left = 0;
            for (unsigned i = 0; i < going; ++i) {
                unsigned const lane = goingM[i];
                Cursor node = nodesM[lane];
                RemainingDigits rest = restM[lane];
                unsigned const metCount = metCountsM[lane];
                metM[lane][metCount] = node;
                if constexpr (measures)
                    leftM.digits[lane][metCount] = rest.length();
                metCountsM[lane] = metCount + (Layout::hasValue(node) ? 1 : 0);
                unsigned const goes = layout.step(node, rest);
                Layout::prefetch(node);
                nodesM[lane] = node;
                restM[lane] = rest;
                goingM[left] = lane;
                left += goes;
            }
            going = left;
        }
    }

    // Fetches the values of the last nodes of the first `count` lanes, and what they refer to.
    [[gnu::always_inline]] void fetchValues(unsigned count) {
        unsigned apart = 0;
        for (unsigned lane = 0; lane < count; ++lane) {
            goingM[apart] = lane;
            apart += metCountsM[lane] != 0 && layoutM.isApart(nodes(lane).back()) ? 1 : 0;
        }
        for (unsigned i = 0; i < apart; ++i)
            layoutM.prefetch(layoutM.value(nodes(goingM[i]).back()));
        for (unsigned i = 0; i < apart; ++i)
            layoutM.prefetchContent(layoutM.value(nodes(goingM[i]).back()));
    }

    // The nodes with a value that the walk has met, and the values of those that a shortcut has passed by before.
    std::span<Cursor const> nodes(unsigned lane) const { return {metM[lane].data(), metCountsM[lane]}; }
    std::span<Value const> above(unsigned lane) const {
        return startsM[lane] == Start::noneCM ? std::span<Value const>() : shortcutsM->above(startsM[lane]);
    }

    // How many of the key's digits follow those that lead to each of the nodes, and how many lead to each of the values
    // above.
    std::span<std::uint32_t const> digitsLeft(unsigned lane) const requires measures {
        return {leftM.digits[lane].data(), metCountsM[lane]};
    }
    std::span<std::uint32_t const> digitsAbove(unsigned lane) const {
        return startsM[lane] == Start::noneCM ? std::span<std::uint32_t const>()
                                              : shortcutsM->digitsAbove(startsM[lane]);
    }

  private:
    using Start = typename Shortcuts<Layout>::Start;

    template <class Element>
    using ForEachMet = std::array<std::array<Element, RemainingDigits::mostCM + 1>, mostCM>; // the root's and a digit's
    struct NoDigitsLeft {};
    struct DigitsLeft {
        ForEachMet<std::uint32_t> digits;
    };

    void start(unsigned lane) {
        if (startsM[lane] != Start::noneCM)
            restM[lane].dropBits(4 * shortcutsM->start(startsM[lane], nodesM[lane]));
    }

    Layout const& layoutM;
    Shortcuts<Layout> const* shortcutsM;
    unsigned goingCountM = 0;
    std::array<unsigned, mostCM> goingM;
    std::array<Cursor, mostCM> nodesM;
    std::array<RemainingDigits, mostCM> restM;
    std::array<typename Start::Index, mostCM> startsM;
    std::array<unsigned, mostCM> metCountsM;
    ForEachMet<Cursor> metM;
    [[no_unique_address]] std::conditional_t<measures, DigitsLeft, NoDigitsLeft> leftM;
};

} // namespace PBC
