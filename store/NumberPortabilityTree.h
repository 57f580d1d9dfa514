// DAT::NumberPortability::NumberPortabilityTree: one complete portability data set.
//
// Purpose: holds the history of every stored number or number prefix and resolves a number and an instant to a record.
// Numbers are taken as they stand: in stored form, normalised by whoever calls; only their decimal digits count. A
// number without any decimal digit names nothing and is refused.
// Ownership: owns the trie, every history and every record. Created on the heap by the cache manager, never copied.
// Threads: no locking inside. search, visit and printTree only read and may run at once; insert, copyFrom,
// clearAndDestroy and destruction need exclusive access. Different trees may be filled and cleared at once.
// Errors: results as said below; std::bad_alloc travels, and what was inserted before stays.
// Complexity: a look-up is one walk along the number's digits and a short scan of one history (of several for
// BEST_MATCH), without allocation for numbers of up to 32 digits and identifiers that fit into `out` as it is (up to
// seven characters always do); an insertion the same and one reallocation.
#pragma once

#include "store/HistoryValues.h"
#include "store/LookUpDetail.h"
#include "store/PackedLayout.h"
#include "store/PtrTree.h"

#include <functional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace DAT::NumberPortability {

class NumberPortabilityTree {
  public:
    // Search methods; every other code acts as ANY_PREFIX_MATCH.
    static constexpr unsigned int BEST_MATCH = 0;       // longest stored prefix with a record valid at the instant
    static constexpr unsigned int EXACT_MATCH = 1;      // the number itself
    static constexpr unsigned int ANY_PREFIX_MATCH = 2; // shortest stored prefix, and no other

    NumberPortabilityTree() = default;
    NumberPortabilityTree(NumberPortabilityTree const&) = delete;
    NumberPortabilityTree& operator=(NumberPortabilityTree const&) = delete;

    // Adds the record to the number's history, in date order or (not ordered) at its end. False, and nothing changes,
    // when ordered insertion meets a record with the same valid-from, or when the number has no decimal digit.
    bool insert(BAS::String const& number, NumberPortabilityData const& record, bool ordered);

    // Ordered insertion of many records whose numbers come nearly in order: each starts where its number and the one
    // before part. While it is in use, the tree must not be changed but through it.
    class Filler {
      public:
        explicit Filler(NumberPortabilityTree& tree) : treeM(tree) {}
        Filler(Filler const&) = delete;
        Filler& operator=(Filler const&) = delete;
        ~Filler() { treeM.treeM.leave(pathM); }

        // A number by its digits; not empty.
        bool insert(PBC::Digits const& number, NumberPortabilityData const& record) {
            return treeM.insertAt(treeM.treeM.reach(number, pathM), record, true);
        }
        bool insert(BAS::String const& number, NumberPortabilityData const& record) {
            treeM.treeM.leave(pathM);
            return treeM.insert(number, record, true);
        }

      private:
        NumberPortabilityTree& treeM;
        PBC::PtrTree<NumberPortabilityList, PBC::PackedLayout<NumberPortabilityList, HistoryValues>>::Path pathM;
    };

    // False, and `out` unchanged, when no record is found.
    bool search(BAS::String const& number, BAS::DateTime const& at, NumberPortabilityData& out,
                unsigned int method) const;

    // The same for many at once: found[i] tells whether records[i] was filled in for numbers[i] at instants[i]. The four
    // spans are of one length; another throws std::invalid_argument and nothing is looked up.
    void search(std::span<BAS::String const> numbers, std::span<BAS::DateTime const> instants,
                std::span<NumberPortabilityData> records, std::span<bool> found, unsigned int method) const;

    // What there is to know around each of many look-ups: details[i] is filled in for numbers[i] at instants[i]. The three
    // spans are of one length; another throws std::invalid_argument and nothing is looked up.
    void describeMany(std::span<BAS::String const> numbers, std::span<BAS::DateTime const> instants,
                      std::span<LookUpDetail> details, unsigned int method) const;

    // Makes look-ups faster until the next change; to be called when a tree has been filled.
    void prepare() noexcept { treeM.makeShortcuts(bytes()); }

    // Frees everything and leaves an empty, usable tree.
    void clearAndDestroy();

    // Replaces the content by a copy of `other`'s. `between` is called before each number; what it throws travels, and
    // what was copied before stays.
    void copyFrom(NumberPortabilityTree const& other, std::function<void()> const& between = {});

    // The listing: with `header` three heading lines, then the lines of every history in lexicographic order of the
    // numbers' digits. Without it the listing is a data file.
    void printTree(std::ostream& out, bool header) const;

    // The records of one number, as they are shown to visitors; valid during the call.
    class History {
      public:
        std::uint32_t length() const { return valuesM.length(valueM); }
        // Calls take(NumberPortabilityData const&) for each record, the newest first, until it returns false.
        template <class Take>
        void each(Take&& take) const {
            valuesM.each(valueM, take);
        }

      private:
        friend class NumberPortabilityTree;
        History(HistoryValues const& values, HistoryValues::Value value) : valuesM(values), valueM(value) {}

        HistoryValues const& valuesM;
        HistoryValues::Value valueM;
    };

    // Calls visitor(BAS::String const& number, History const& history) in the listing's order.
    template <class Visitor>
    void visit(Visitor&& visitor) const {
        treeM.visit([&](BAS::String const& number, HistoryValues::Value value) {
            visitor(number, History(histories(), value));
        });
    }

    // Calls visitor(BAS::String const& number, NumberPortabilityData const& record) for every record that is valid from
    // later than `after`, in the listing's order. Histories without such a record cost a glance. between() is called
    // before each history, and ends the visit by throwing.
    template <class Visitor, class Between>
    void visitLaterThan(BAS::DateTime after, Visitor&& visitor, Between&& between) const {
        treeM.visit([&](BAS::String const& number, HistoryValues::Value value) {
            between();
            if (histories().newest(value) <= after)
                return;
            histories().each(value, [&](NumberPortabilityData const& record) {
                bool const isLater = record.validFromM > after;
                if (isLater)
                    visitor(number, record);
                return isLater;
            });
        });
    }

    // Whether the number has a decimal digit, so that it can be stored.
    bool isStorable(std::string_view number) const { return treeM.isSignificant(number); }

    // Calls visitor(BAS::String const& key, History const& history) for every stored key that is a prefix of the number's
    // digits, the whole number included, the longest first. Linear in the number and in the keys found.
    template <class Visitor>
    void visitPrefixes(BAS::String const& number, Visitor&& visitor) const {
        std::vector<std::pair<std::size_t, HistoryValues::Value>> found;
        treeM.visitPrefixes(number,
                            [&](std::size_t length, HistoryValues::Value value) { found.emplace_back(length, value); });
        std::string digits;
        for (char const character : number.view())
            if (PBC::Digits::isDecimal(character))
                digits += character;
        for (; !found.empty(); found.pop_back()) {
            digits.resize(found.back().first);
            visitor(BAS::String(digits), History(histories(), found.back().second));
        }
    }

    // Records, not numbers.
    std::uint32_t entries() const { return entriesM; }
    // Different numbers and prefixes.
    std::uint64_t numbers() const { return numbersM; }
    // Memory of nodes, histories and networks, in bytes.
    std::size_t bytes() const { return treeM.layout().bytes() + treeM.shortcutBytes() + histories().bytes(); }

  private:
    using Trie = PBC::PtrTree<NumberPortabilityList, PBC::PackedLayout<NumberPortabilityList, HistoryValues>>;

    HistoryValues& histories() { return treeM.layout().values(); }
    HistoryValues const& histories() const { return treeM.layout().values(); }
    void storeNew(Trie::Place& place, HistoryValues::Value history);
    bool insertAt(Trie::Place& place, NumberPortabilityData const& record, bool ordered);

    template <class Prefixes>
    bool searchAll(Prefixes& prefixes, BAS::DateTime const& at, NumberPortabilityData& out) const;
    bool searchBestMatch(BAS::String const& number, BAS::DateTime const& at, NumberPortabilityData& out) const;
    template <class Prefixes>
    void describe(std::size_t digits, Prefixes& prefixes, BAS::DateTime const& at, unsigned int method,
                  LookUpDetail& detail) const;

    Trie treeM;
    std::uint32_t entriesM = 0;
    std::uint64_t numbersM = 0;
};

} // namespace DAT::NumberPortability
