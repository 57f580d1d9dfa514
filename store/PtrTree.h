// PBC::PtrTree<T, Layout>: a trie from digit strings to owned pointers.
//
// Purpose: exact look-up, shortest stored prefix, all stored prefixes. A level of the trie stands for one digit of the
// key; any node may carry a value. The root stands for the empty key. How nodes lie in memory is the layout's business:
// PlainLayout has an object for each (PlainLayout.h), PackedLayout a word (PackedLayout.h). Both give the same answers,
// counts and order.
// Keys: only the digits of the radix count (radix 10: '0' to '9'); every other character is passed over, so 0044 171
// and 0044171 are one key. A key without any digit reaches the root: insert stores its value there, exact search
// never finds it, a prefix search for any other key does, and printTree does not print it. A second such insert
// replaces the value without deleting it, so the number tree refuses such keys.
// Requirements on T: it can be deleted and has printTree(std::ostream&, BAS::String const&).
// Ownership: the trie owns its nodes and their values. A Value is a T*, or a handle that stands for one where the layout
// keeps values in a form of its own. What a search gives is valid until the next change of the trie, with values that
// are pointers until the next init, destroy or destruction.
// Threads: no locking inside. All searches, visit and printTree only read and may run at once; insert, reach, init,
// destroy and destruction need exclusive access to their own trie. PtrTreeNode<T>::nodeCountM is atomic, so different
// tries may be filled and freed at once.
// Errors: std::bad_alloc; nodes created before stay, init leaves the trie as it was.
// Complexity: insert and search one step a digit, search without allocation (but for a found-stack beyond its inline
// elements); printTree and visit one step a node. Nothing recurses: neither printing nor destruction uses call stack by
// the depth of the trie.
#pragma once

#include "framework/BAS/String.h"
#include "framework/RW/RWTValSlist.h"
#include "store/Lanes.h"
#include "store/PlainLayout.h"
#include "store/Shortcuts.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace PBC {

template <class T, class Layout = PlainLayout<T>>
class PtrTree {
  public:
    // Child slot by character code: '0' to '9', then 'A' to 'F' in either case; -1 for every other code.
    static constexpr std::array<int, 256> DIGIT_INDEX = [] {
        std::array<int, 256> index{};
        index.fill(-1);
        for (unsigned char character = '0'; character <= '9'; ++character)
            index[character] = character - '0';
        for (unsigned char character = 'A'; character <= 'F'; ++character)
            index[character] = character - 'A' + 10;
        for (unsigned char character = 'a'; character <= 'f'; ++character)
            index[character] = character - 'a' + 10;
        return index;
    }();
    // Character by child slot.
    static constexpr char CHAR_INDEX[] = "0123456789ABCDEF";

    using Node = PtrTreeNode<T>;
    using Value = typename Layout::Value;
    using Place = typename Layout::Place;
    using FoundStack = RWTStack<Value, RWTValSlist<Value>>;

    using Cursor = typename Layout::Cursor;

    // The values of a key's stored prefixes, the longest first, the key itself included. Valid during the call that it
    // is handed to. Of the values hardly any but the first is asked for, and a branch's is one more read of memory that
    // is not in the processor's caches, so each is read when it is.
    class Prefixes {
      public:
        bool isEmpty() const { return nodesM.empty() && aboveM.empty(); }
        Value pop() {
            if (nodesM.empty())
                return taken(aboveM);
            return layoutM.value(taken(nodesM));
        }

      private:
        friend class PtrTree;
        Prefixes(Layout const& layout, std::span<Cursor const> nodes, std::span<Value const> above)
            : layoutM(layout), nodesM(nodes), aboveM(above) {}

        template <class T2>
        static T2 taken(std::span<T2 const>& some) {
            T2 const last = some.back();
            some = some.first(some.size() - 1);
            return last;
        }

        Layout const& layoutM;
        std::span<Cursor const> nodesM;
        std::span<Value const> aboveM; // of nodes above those
    };

    // A stored prefix of a key: its value, and how many digits it has.
    struct Prefix {
        Value value;
        std::size_t digits;
    };
    // As Prefixes, with the digits of each.
    class MeasuredPrefixes {
      public:
        bool isEmpty() const { return valuesM.isEmpty(); }
        Prefix pop() {
            std::size_t const digits = leftM.empty() ? Prefixes::taken(aboveM) : keyM - Prefixes::taken(leftM);
            return {valuesM.pop(), digits};
        }

      private:
        friend class PtrTree;
        MeasuredPrefixes(Prefixes const& values, std::size_t key, std::span<std::uint32_t const> left,
                         std::span<std::uint32_t const> above)
            : valuesM(values), keyM(key), leftM(left), aboveM(above) {}

        Prefixes valuesM;
        std::size_t keyM;                      // its digits
        std::span<std::uint32_t const> leftM;  // of the key's digits, below each node
        std::span<std::uint32_t const> aboveM; // that lead to each node above those
    };

    // Where the nodes along the latest key are, so that a key that begins like it starts where the two part: for keys
    // that come in order. Good for one trie, as long as all its changes are made through this path.
    class Path {
        friend class PtrTree;
        std::array<Place, Digits::mostCM + 1> placesM;
        Digits keyM;
        bool beganM = false;
        std::uint64_t createdM = 0; // nodes that nodeCountM does not count yet
    };

    PtrTree() : rootM(baseM), nodesM(1) {}
    PtrTree(PtrTree const&) = delete;
    PtrTree& operator=(PtrTree const&) = delete;
    virtual ~PtrTree() {
        if (rootM.hasRoot())
            destroy();
    }

    // Leaves the trie without a root: only init or destruction may follow.
    void destroy() {
        shortcutsM.reset();
        rootM.destroy();
        nodesM = 0;
    }

    // Gives an empty, usable trie, whatever it was before.
    void init() {
        rootM.init();
        shortcutsM.reset();
        nodesM = 1;
    }

    // Stores `value`, which is not null, under `key` and takes it over, unless it throws. Whoever may store a key twice
    // searches first.
    void insert(BAS::String const& key, T* value) {
        Place place = reach(key);
        rootM.value(place, value);
    }

    // The node of the key, with those above it; what is not there is created, without a value. The place is valid until
    // the next change but by the layout's operations on it.
    Place reach(BAS::String const& key) {
        shortcutsM.reset();
        Place place = rootM.rootPlace();
        NodeCount const count(*this);
        for (char const character : key.view())
            if (int const slot = slotOf(character); slot >= 0)
                place = step(place, slot);
        return place;
    }
    Place& reach(Digits const& key, Path& path) {
        shortcutsM.reset();
        unsigned depth = path.beganM ? key.commonWith(path.keyM) : 0;
        if (!path.beganM)
            path.placesM[0] = rootM.rootPlace();
        path.beganM = true;
        path.keyM = key.first(depth); // should it break off below, this much is true
        for (; depth < key.length(); ++depth) {
            path.placesM[depth + 1] = path.placesM[depth];
            if (!rootM.descend(path.placesM[depth + 1], key.at(depth)))
                break;
        }
        for (; depth < key.length(); ++depth) {
            path.placesM[depth + 1] = rootM.grow(path.placesM[depth], key.at(depth));
            ++nodesM;
            ++path.createdM;
        }
        path.keyM = key;
        return path.placesM[depth];
    }
    // To be called when the path will not be used any more, or starts anew: counts its nodes in nodeCountM.
    void leave(Path& path) {
        rootM.countNodes(path.createdM);
        path = Path();
    }

    // Makes searches faster, for a trie of `bytes`, until the next change. Does nothing when memory lacks.
    void makeShortcuts(std::size_t bytes) noexcept {
        try {
            shortcutsM = Shortcuts<Layout>::make(rootM, bytes);
        } catch (std::bad_alloc const&) { // NOLINT(bugprone-empty-catch): searches go from the root
        }
    }
    std::size_t shortcutBytes() const { return shortcutsM == nullptr ? 0 : shortcutsM->bytes(); }

    // Takes digits off the front of `key`, with the characters between them that are none, until there are as many as
    // Digits holds.
    void takeDigits(std::string_view& key, Digits& digits) const {
        if (baseM == 10)
            return digits.appendDecimal(key);
        while (!key.empty() && digits.length() < Digits::mostCM) {
            if (int const slot = slotOf(key.front()); slot >= 0)
                digits.append(slot);
            key.remove_prefix(1);
        }
    }

    // Exact: the value stored under exactly the key's digits. Otherwise the value of the shortest prefix of them that
    // carries one, the empty prefix and the whole key included. None when there is none or the key has no digit.
    Value search(BAS::String const& key, bool exact) const {
        Walk walk(*this, key);
        if (!walk.isSignificant())
            return Value{};
        if (!exact && !walk.above().empty())
            return walk.above().front();
        while (!walk.isAtEnd()) {
            if (!exact)
                if (Value const found = walk.value())
                    return found;
            if (!walk.descend())
                return Value{};
        }
        return walk.value();
    }

    // Calls visitor(std::size_t digits, Value value) for every prefix of the key's digits that carries a value, the
    // shortest first, with the count of its digits; not for the empty one.
    template <class Visitor>
    void visitPrefixes(BAS::String const& key, Visitor&& visitor) const {
        std::string_view rest = key.view();
        Digits digits;
        Cursor node = rootM.root();
        for (std::size_t taken = 0;;) {
            if (digits.length() < Layout::mostAtOnceCM && !rest.empty())
                takeDigits(rest, digits);
            unsigned const before = digits.length();
            if (before == 0 || !rootM.descend(node, digits))
                return;
            taken += before - digits.length();
            if (Value const value = rootM.value(node))
                visitor(taken, value);
        }
    }

    // Whether longer keys begin with the key's digits; true of a key without any, as soon as something is stored.
    bool hasLonger(BAS::String const& key) const {
        std::string_view rest = key.view();
        Digits digits;
        for (Cursor node = rootM.root();;) {
            if (digits.length() < Layout::mostAtOnceCM && !rest.empty())
                takeDigits(rest, digits);
            Cursor child{};
            Digits const way = rootM.wayDown(node, digits.empty() ? 0 : digits.first(), child);
            unsigned const common = digits.commonWith(way);
            if (way.empty())
                return false;
            if (common < way.length()) // its digits end on the way to the next node, or part from it
                return common == digits.length();
            digits.drop(common);
            node = child;
        }
    }

    // Pushes the values of all prefixes of the key's digits that carry one, the shortest first, upon what `found`
    // holds already. A key without a digit pushes nothing.
    void search(BAS::String const& key, FoundStack& found) const {
        Walk walk(*this, key);
        if (!walk.isSignificant())
            return;
        for (Value const value : walk.above())
            found.push(value);
        do {
            if (Value const value = walk.value())
                found.push(value);
        } while (!walk.isAtEnd() && walk.descend());
    }

    // The same for many keys at once: while the memory of one key's next node is under way, the others' walks go on.
    // Calls found(std::size_t i, Prefixes& prefixes) once for each keys[i], in order.
    template <class Found>
    void search(std::span<BAS::String const> keys, Found&& found) const {
        for (std::size_t begin = 0; begin < keys.size(); begin += lanesCM)
            searchSome<Lanes<Layout>>(keys.subspan(begin, std::min(lanesCM, keys.size() - begin)), begin, found);
    }
    // The same with the digits of each prefix: found(std::size_t i, std::size_t digits, auto& prefixes), with the count of
    // the key's digits; prefixes.isEmpty(), and Prefix prefixes.pop(), the longest first.
    template <class Found>
    void searchMeasured(std::span<BAS::String const> keys, Found&& found) const {
        for (std::size_t begin = 0; begin < keys.size(); begin += lanesCM)
            searchSome<Lanes<Layout, true>>(keys.subspan(begin, std::min(lanesCM, keys.size() - begin)), begin, found);
    }

    // Calls visitor(BAS::String const& key, Value value) for every stored value but the root's, in lexicographic order of
    // the keys, each key before its extensions.
    template <class Visitor>
    void visit(Visitor&& visitor) const {
        BAS::String text;
        visitViews([&](std::string_view key, Value value) {
            text.assign(key.data(), key.size());
            visitor(std::as_const(text), value);
        });
    }

    // Calls printTree(out, key) of every stored value, in the order of visit.
    void printTree(std::ostream& out) const {
        visitViews([&](std::string_view key, Value value) { rootM.print(value, out, key); });
    }

    // Whether the key has a digit, that is, reaches beyond the root.
    bool isSignificant(std::string_view key) const {
        for (char const character : key)
            if (slotOf(character) >= 0)
                return true;
        return false;
    }

    std::uint64_t nodes() const { return nodesM; }

    // For values that the layout keeps in a form of its own.
    Layout& layout() { return rootM; }
    Layout const& layout() const { return rootM; }

  private:
    static constexpr std::size_t lanesCM = Lanes<Layout>::mostCM;

    // Counts the nodes that an insertion creates, also when it breaks off.
    class NodeCount {
      public:
        explicit NodeCount(PtrTree& tree) : treeM(tree), beforeM(tree.nodesM) {}
        NodeCount(NodeCount const&) = delete;
        NodeCount& operator=(NodeCount const&) = delete;
        ~NodeCount() { treeM.rootM.countNodes(treeM.nodesM - beforeM); }

      private:
        PtrTree& treeM;
        std::uint64_t beforeM;
    };

    // The walk of a key's digits down the trie, for reading.
    class Walk {
      public:
        Walk(PtrTree const& tree, BAS::String const& key) : treeM(&tree), nodeM(tree.rootM.root()), restM(key.view()) {
            tree.takeDigits(restM, digitsM);
            significantM = !digitsM.empty();
            if (tree.shortcutsM != nullptr)
                tree.shortcutsM->begin(digitsM, nodeM, aboveM);
        }

        // Whether the key has a digit.
        bool isSignificant() const { return significantM; }
        // The values of the nodes that a shortcut has passed by.
        std::span<Value const> above() const { return aboveM; }

        // Whether there is no digit left to follow. Sees to it that there are as many digits as descend() may want at
        // once, as long as the key has some.
        bool isAtEnd() {
            if (digitsM.length() < Layout::mostAtOnceCM && !restM.empty())
                treeM->takeDigits(restM, digitsM);
            return digitsM.empty();
        }
        bool descend() { return treeM->rootM.descend(nodeM, digitsM); }
        Value value() const { return treeM->rootM.value(nodeM); }
        Cursor node() const { return nodeM; }

      private:
        PtrTree const* treeM;
        Cursor nodeM;
        std::string_view restM; // after digitsM
        Digits digitsM;
        std::span<Value const> aboveM;
        bool significantM = false;
    };

    template <class SomeLanes, class Found>
    void searchSome(std::span<BAS::String const> keys, std::size_t first, Found&& found) const {
        SomeLanes lanes(rootM, shortcutsM.get());
        std::array<std::uint32_t, lanesCM> lengths; // asked for by those who measure
        auto const count = static_cast<unsigned>(keys.size());
        std::uint32_t tooLong = 0;
        static_assert(lanesCM <= 32);
        for (unsigned i = 0; i < count; ++i) {
            std::string_view rest = keys[i].view();
            Digits digits;
            takeDigits(rest, digits);
            bool const fits = rest.empty() && digits.length() <= RemainingDigits::mostCM;
            tooLong |= (fits ? 0U : 1U) << i;
            lengths[i] = digits.length();
            lanes.begin(i, fits ? digits : Digits());
        }
        lanes.walk();
        lanes.fetchValues(count);
        for (unsigned i = 0; i < count; ++i)
            if ((tooLong >> i & 1) != 0) {
                searchLong(lanes, keys[i], first + i, found);
            } else {
                present(lanes, i, lengths[i], first + i, found);
            }
    }

    template <class Found>
    void present(Lanes<Layout> const& lanes, unsigned lane, std::uint32_t, std::size_t i, Found&& found) const {
        Prefixes prefixes(rootM, lanes.nodes(lane), lanes.above(lane));
        found(i, prefixes);
    }
    template <class Found>
    void present(Lanes<Layout, true> const& lanes, unsigned lane, std::uint32_t digits, std::size_t i,
                 Found&& found) const {
        MeasuredPrefixes prefixes({rootM, lanes.nodes(lane), lanes.above(lane)}, digits, lanes.digitsLeft(lane),
                                  lanes.digitsAbove(lane));
        found(i, std::size_t{digits}, prefixes);
    }

    // A key too long for a lane.
    template <class Found>
    void searchLong(Lanes<Layout> const&, BAS::String const& key, std::size_t i, Found&& found) const {
        Walk walk(*this, key);
        std::vector<Cursor> nodes;
        do {
            if (Layout::hasValue(walk.node()))
                nodes.push_back(walk.node());
        } while (!walk.isAtEnd() && walk.descend());
        Prefixes prefixes(rootM, nodes, walk.above());
        found(i, prefixes);
    }
    template <class Found>
    void searchLong(Lanes<Layout, true> const&, BAS::String const& key, std::size_t i, Found&& found) const {
        RWTStack<Prefix, RWTValSlist<Prefix>> prefixes;
        if (Value const value = rootM.value(rootM.root()))
            prefixes.push({value, 0});
        visitPrefixes(key, [&](std::size_t digits, Value value) { prefixes.push({value, digits}); });
        auto const isDigit = [this](char character) { return slotOf(character) >= 0; };
        found(i, static_cast<std::size_t>(std::count_if(key.view().begin(), key.view().end(), isDigit)), prefixes);
    }

    // As visit, with the key as a view that is valid during the call.
    template <class Visitor>
    void visitViews(Visitor&& visitor) const {
        struct Ancestor {
            Cursor node;
            int slot; // to go on with
            std::size_t keyLength;
        };
        std::vector<Ancestor> ancestors;
        std::string key;
        Cursor node = rootM.root();
        for (int slot = 0;;) {
            Cursor child{};
            Digits const way = rootM.wayDown(node, slot, child);
            if (way.empty()) {
                if (ancestors.empty())
                    return;
                node = ancestors.back().node;
                slot = ancestors.back().slot;
                key.resize(ancestors.back().keyLength);
                ancestors.pop_back();
                continue;
            }
            std::size_t const length = key.size();
            slot = way.first() + 1;
            for (unsigned i = 0; i < way.length(); ++i)
                key.push_back(CHAR_INDEX[way.at(i)]);
            if (Value const value = rootM.value(child))
                visitor(std::string_view(key), value);
            if (Layout::isLeaf(child)) {
                key.resize(length);
                continue;
            }
            ancestors.push_back({node, slot, length});
            node = child;
            slot = 0;
            rootM.prefetchBelow(node);
        }
    }

    // The child in `slot`, created if it is not there.
    Place step(Place& place, int slot) {
        Place child = place;
        if (rootM.descend(child, slot))
            return child;
        child = rootM.grow(place, slot);
        ++nodesM;
        return child;
    }

    // The slot of a digit of the radix, -1 for every other character.
    int slotOf(char character) const {
        int const slot = DIGIT_INDEX[static_cast<unsigned char>(character)];
        return slot < baseM ? slot : -1;
    }

    int baseM = 10;
    Layout rootM; // the root node and all below it
    std::uint64_t nodesM;
    std::unique_ptr<Shortcuts<Layout>> shortcutsM;
};

} // namespace PBC
