// PBC::PtrTreeNode<T>, a node of a trie that is allocated by itself, and PBC::PlainLayout<T>, a trie of such nodes.
//
// Purpose: the plain way to keep a trie in memory: every node an object with a fixed array of child slots and a pointer
// to its value. It is simple to see that it is right, and the packed layout is held against it.
// Ownership: a node owns its children and its value, the layout owns the root. Values are deleted with their node.
// Threads: none inside; concurrent const use is safe. nodeCountM is atomic, so that several tries may change at once.
// Errors: std::bad_alloc; nodes created before stay.
// Complexity: a step down is constant; freeing visits every node, without recursion and without memory of its own.
#pragma once

#include "store/Digits.h"

#include <atomic>
#include <cstdint>
#include <ostream>
#include <vector>

namespace BAS {
class String;
}

namespace PBC {

template <class T>
class PtrTreeNode {
  public:
    // Live nodes of this instantiation in the whole process, that is, in the shared object that holds the code.
    static inline std::atomic<std::uint64_t> nodeCountM{0};

    explicit PtrTreeNode(int size)
        : childrenM(static_cast<std::size_t>(size)), sizeM(static_cast<std::uint64_t>(size)) {
        nodeCountM.fetch_add(1, std::memory_order_relaxed);
    }
    PtrTreeNode(PtrTreeNode const&) = delete;
    PtrTreeNode& operator=(PtrTreeNode const&) = delete;

    // Counts the node out, deletes the children from slot 0 upward, each with all that is under it, then the value.
    virtual ~PtrTreeNode() {
        if (!countedOutM)
            countOut();
        deleteChildren();
        delete valueM;
    }

    // Creates a child in `slot` and returns it; null, and nothing changes, when the slot is out of range or taken.
    PtrTreeNode* grow(int slot) {
        if (slot < 0 || static_cast<std::uint64_t>(slot) >= sizeM || childrenM[static_cast<std::size_t>(slot)])
            return nullptr;
        return childrenM[static_cast<std::size_t>(slot)] = new PtrTreeNode(static_cast<int>(sizeM));
    }

    // Takes `value` over; a value that is there already is replaced, not deleted.
    void value(T* value) {
        valueM = value;
        hasValueM = true;
    }

    T* value() const { return hasValueM ? valueM : nullptr; }

    // Null when the slot is empty or out of range.
    PtrTreeNode* child(int slot) const {
        return slot < 0 || static_cast<std::uint64_t>(slot) >= sizeM ? nullptr
                                                                     : childrenM[static_cast<std::size_t>(slot)];
    }

  private:
    void countOut() {
        countedOutM = true;
        nodeCountM.fetch_sub(1, std::memory_order_relaxed);
    }

    // The first taken slot at or after `slot`, or sizeM.
    std::size_t takenSlot(std::size_t slot) const {
        while (slot < sizeM && childrenM[slot] == nullptr)
            ++slot;
        return slot;
    }

    // Walks down and up without recursion or memory of its own: on the way down, the slot that leads to a child holds
    // the pointer back to the node above instead. It is then the first slot that is not null, because the slots
    // before it have been deleted. The topmost node points back to itself.
    void deleteChildren() {
        PtrTreeNode* above = this;
        PtrTreeNode* node = this;
        for (std::size_t slot = takenSlot(0);;) {
            if (slot < sizeM) {
                PtrTreeNode* const below = node->childrenM[slot];
                node->childrenM[slot] = above;
                above = node;
                node = below;
                node->countOut();
                slot = node->takenSlot(0);
            } else if (node == this) {
                return;
            } else {
                delete node; // has no children left
                node = above;
                slot = node->takenSlot(0);
                above = node->childrenM[slot];
                node->childrenM[slot] = nullptr;
                slot = node->takenSlot(slot + 1);
            }
        }
    }

    std::vector<PtrTreeNode*> childrenM;
    bool hasValueM = false;
    bool countedOutM = false; // on its way out; lies in the padding
    T* valueM = nullptr;
    std::uint64_t sizeM;
};

// What PtrTree asks of a layout; PackedLayout.h has the same operations, and some for values of its own.
template <class T>
class PlainLayout {
  public:
    using Node = PtrTreeNode<T>;
    using Value = T*;                           // what a search finds; false when there is none
    using Cursor = Node const*;                 // a node, for reading
    using Place = Node*;                        // a node that may be changed
    static constexpr unsigned mostAtOnceCM = 1; // digits that descend looks at

    explicit PlainLayout(int base) : baseM(base), rootM(new Node(base)) {}
    PlainLayout(PlainLayout const&) = delete;
    PlainLayout& operator=(PlainLayout const&) = delete;
    ~PlainLayout() { delete rootM; }

    bool hasRoot() const { return rootM != nullptr; }
    void destroy() {
        delete rootM;
        rootM = nullptr;
    }
    void init() {
        Node* const fresh = new Node(baseM);
        delete rootM;
        rootM = fresh;
    }

    Cursor root() const { return rootM; }
    Value value(Cursor cursor) const { return cursor->value(); }
    static bool hasValue(Cursor cursor) { return cursor->value() != nullptr; }
    // Goes one way down, along one or more of the key's digits, and takes those off. False, and the cursor means nothing
    // more, when no node with a value or several children lies there.
    bool descend(Cursor& cursor, Digits& digits) const {
        cursor = cursor->child(digits.first());
        digits.drop(1);
        return cursor != nullptr;
    }
    // The same for Lanes: 1 or 0, and without a way down the cursor stays.
    unsigned step(Cursor& cursor, RemainingDigits& digits) const {
        unsigned const slot = digits.first();
        digits.dropBits(4);
        Cursor const child = digits.isOver() ? nullptr : cursor->child(static_cast<int>(slot));
        cursor = child == nullptr ? cursor : child;
        return child == nullptr ? 0 : 1;
    }
    // Whether the node's value is worth fetching ahead.
    static bool isApart(Cursor) { return true; }
    // The first way down at or after the slot `from`: its child and the digits that lead there; none when there is none.
    Digits wayDown(Cursor cursor, int from, Cursor& child) const {
        while (from < baseM && cursor->child(from) == nullptr)
            ++from;
        if (from == baseM)
            return {};
        child = cursor->child(from);
        return Digits::of(from);
    }
    // Whether it surely has no children, so that nothing is below.
    static bool isLeaf(Cursor) { return false; }
    [[gnu::always_inline]] static void prefetch(Cursor cursor) { __builtin_prefetch(cursor); }
    static void prefetchBelow(Cursor) {}
    // What stands for a node in a table of them, and a cursor at it.
    using Copy = Cursor;
    static Copy copyOf(Cursor cursor) { return cursor; }
    static Cursor at(Copy const& copy) { return copy; }
    // Fetches a value, and then what it refers to.
    [[gnu::always_inline]] static void prefetch(Value value) { __builtin_prefetch(value); }
    static void prefetchContent(Value) {}
    void print(Value value, std::ostream& out, std::string_view key) const { value->printTree(out, BAS::String(key)); }

    Place rootPlace() { return rootM; }
    bool descend(Place& place, int slot) {
        Node* const child = place->child(slot);
        if (child == nullptr)
            return false;
        place = child;
        return true;
    }
    // Creates the child in `slot`, which is empty, and returns it. A place that was reached on the way to `place` stays
    // valid, and `place` is corrected where it has moved.
    Place grow(Place& place, int slot) { return place->grow(slot); }
    Value value(Place place) { return place->value(); }
    // Sets the value, which the layout then owns; one that was there is not deleted.
    void value(Place& place, T* value) { place->value(value); }
    // To be told of nodes made by grow; here they count themselves.
    void countNodes(std::uint64_t) {}

  private:
    int baseM;
    Node* rootM;
};

} // namespace PBC
