// PBC::PtrTree<T>: a trie from digit strings to owned pointers, and PBC::PtrTreeNode<T>, its node.
//
// Purpose: exact look-up, shortest stored prefix, all stored prefixes. A level of the trie stands for one digit of the
// key; any node may carry a value. The root stands for the empty key.
// Keys: only the digits of the radix count (radix 10: '0' to '9'); every other character is passed over, so 0044 171
// and 0044171 are one key. A key without any digit reaches the root: insert stores its value there, exact search
// never finds it, a prefix search for any other key does, and printTree does not print it. A second such insert
// replaces the value without deleting it, so the number tree refuses such keys.
// Requirements on T: it can be deleted and has printTree(std::ostream&, BAS::String const&).
// Ownership: a node owns its children and its value, the trie owns the root. Pointers that a search gives are valid
// until the next init, destroy or destruction.
// Threads: no locking inside. Both search operations, visit and printTree only read and may run at once; insert, init,
// destroy and destruction need exclusive access to their own trie. nodeCountM is atomic, so different tries may be
// filled and freed at once.
// Errors: std::bad_alloc; nodes created before stay, init leaves the trie as it was.
// Complexity: insert and search one step a digit, search without allocation (but for a found-stack beyond its inline
// elements); printTree and visit one step a node and
// slot. Nothing recurses: neither printing nor destruction uses call stack by the depth of the trie.
#pragma once

#include "framework/BAS/String.h"
#include "framework/RW/RWTValSlist.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <vector>

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

template <class T>
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
    using FoundStack = RWTStack<T*, RWTValSlist<T*>>;

    PtrTree() : rootM(new Node(baseM)), nodesM(1) {}
    PtrTree(PtrTree const&) = delete;
    PtrTree& operator=(PtrTree const&) = delete;
    virtual ~PtrTree() {
        if (rootM != nullptr)
            destroy();
    }

    // Leaves the trie without a root: only init or destruction may follow.
    void destroy() {
        delete rootM;
        rootM = nullptr;
        nodesM = 0;
    }

    // Gives an empty, usable trie, whatever it was before.
    void init() {
        auto root = std::make_unique<Node>(baseM);
        delete rootM;
        rootM = root.release();
        nodesM = 1;
    }

    // Stores `value`, which is not null, under `key` and takes it over, unless it throws. Whoever may store a key twice
    // searches first.
    void insert(BAS::String const& key, T* value) {
        Node* node = rootM;
        for (char const character : key.view()) {
            int const slot = slotOf(character);
            if (slot < 0)
                continue;
            Node* next = node->child(slot);
            if (next == nullptr) {
                next = node->grow(slot);
                ++nodesM;
            }
            node = next;
        }
        node->value(value);
    }

    // Exact: the value stored under exactly the key's digits. Otherwise the value of the shortest prefix of them that
    // carries one, the empty prefix and the whole key included. Null when there is none or the key has no digit.
    T* search(BAS::String const& key, bool exact) const {
        Node const* node = rootM;
        bool significant = false;
        for (char const character : key.view()) {
            int const slot = slotOf(character);
            if (slot < 0)
                continue;
            significant = true;
            if (!exact)
                if (T* const found = node->value())
                    return found;
            node = node->child(slot);
            if (node == nullptr)
                return nullptr;
        }
        return significant ? node->value() : nullptr;
    }

    // Pushes the values of all prefixes of the key's digits that carry one, the shortest first, upon what `found`
    // holds already. A key without a digit pushes nothing.
    void search(BAS::String const& key, FoundStack& found) const {
        Node const* node = rootM;
        bool significant = false;
        for (char const character : key.view()) {
            int const slot = slotOf(character);
            if (slot < 0)
                continue;
            significant = true;
            push(found, *node);
            node = node->child(slot);
            if (node == nullptr)
                return;
        }
        if (significant)
            push(found, *node);
    }

    // Calls visitor(BAS::String const& key, T& value) for every stored value but the root's, in lexicographic order of
    // the keys, each key before its extensions.
    template <class Visitor>
    void visit(Visitor&& visitor) const {
        std::vector<Node const*> ancestors;
        std::string key;
        Node const* node = rootM;
        int slot = 0;
        for (;;) {
            if (Node const* const child = slot < baseM ? node->child(slot) : nullptr) {
                key.push_back(CHAR_INDEX[slot]);
                if (T* const value = child->value())
                    visitor(BAS::String(key), *value);
                ancestors.push_back(node);
                node = child;
                slot = 0;
            } else if (slot < baseM) {
                ++slot;
            } else if (ancestors.empty()) {
                return;
            } else {
                node = ancestors.back();
                ancestors.pop_back();
                slot = DIGIT_INDEX[static_cast<unsigned char>(key.back())] + 1;
                key.pop_back();
            }
        }
    }

    // Calls printTree(out, key) of every stored value, in the order of visit.
    void printTree(std::ostream& out) const {
        visit([&out](BAS::String const& key, T& value) { value.printTree(out, key); });
    }

    // Whether the key has a digit, that is, reaches beyond the root.
    bool isSignificant(BAS::String const& key) const {
        for (char const character : key.view())
            if (slotOf(character) >= 0)
                return true;
        return false;
    }

    std::uint64_t nodes() const { return nodesM; }

  private:
    // The slot of a digit of the radix, -1 for every other character.
    int slotOf(char character) const {
        int const slot = DIGIT_INDEX[static_cast<unsigned char>(character)];
        return slot < baseM ? slot : -1;
    }

    static void push(FoundStack& found, Node const& node) {
        if (T* const value = node.value())
            found.push(value);
    }

    int baseM = 10;
    Node* rootM;
    std::uint64_t nodesM;
};

} // namespace PBC
