// DAT::NumberPortability::HistoryValues: how the packed trie keeps the histories of numbers.
//
// Purpose: nine numbers in ten have one record. Such a history is kept in the eight bytes of its trie node: the seconds
// of its instant and the number of its network. A history of several records is a NumberPortabilityList from a pool,
// and so is one whose network has no number because the data have too many different ones.
// Ownership: owns networks and lists. A Value is a handle; it stays valid until its history changes or clear.
// Threads: none inside; concurrent const use is safe.
// Errors: std::bad_alloc, after which everything is as before. Complexity: that of NumberPortabilityList.
//
// A word (see PackedLayout.h): bits 0-1: VALUE; bit 2: one record, then bits 3-18: its network, bits 19-57: its seconds;
// or bit 2 clear, and bits 3-63: the list's address.
#pragma once

#include "store/BlockPool.h"
#include "store/NetworkDictionary.h"
#include "store/NumberPortabilityList.h"
#include "store/WordArena.h"

#include <bit>
#include <iosfwd>

namespace DAT::NumberPortability {

class HistoryValues {
  public:
    using Word = PBC::WordArena::Word;

    class Value {
      public:
        Value() = default;
        explicit operator bool() const { return wordM != 0; }

      private:
        friend class HistoryValues;
        explicit Value(Word word) : wordM(word) {}
        Word wordM;
    };

    HistoryValues() = default;
    HistoryValues(HistoryValues const&) = delete;
    HistoryValues& operator=(HistoryValues const&) = delete;

    // What the layout asks for, but for adopt: histories are made here.
    Value at(Word word) const { return Value(word); }
    static Word word(Value value) { return value.wordM; }
    void destroy(Word word);
    bool ownsNothing() const { return listsWithTextsM == 0; }
    void clear() noexcept;
    void print(Value value, std::ostream& out, std::string_view number) const;
    // Whether the history lies elsewhere than in its word.
    bool isApart(Value value) const { return !isRecord(value.wordM); }
    void prefetch(Value value) const {
        if (isApart(value))
            __builtin_prefetch(listOf(value.wordM));
    }
    void prefetchContent(Value value) const {
        if (isApart(value))
            listOf(value.wordM)->prefetch();
    }

    // A history of one record.
    Value make(NumberPortabilityData const& record);
    // Adds a record to a history, in date order or at its end. The value stands for it from then on; false, and nothing
    // changes, when ordered insertion meets a record with the same valid-from.
    bool add(Value& value, NumberPortabilityData const& record, bool ordered);

    // As NumberPortabilityList::search.
    bool search(Value value, BAS::DateTime const& at, NumberPortabilityData& out) const {
        if (!isRecord(value.wordM))
            return listOf(value.wordM)->search(at, out);
        BAS::DateTime const validFrom = validFromOf(value.wordM);
        if (validFrom > at)
            return false;
        out.networkIdM = networksM[networkOf(value.wordM)]; // the one that can fail comes first
        out.validFromM = validFrom;
        return true;
    }

    std::uint32_t length(Value value) const;
    // Valid-from of the newest record of an ordered history; the very first instant for a history without any.
    BAS::DateTime newest(Value value) const {
        if (isRecord(value.wordM))
            return validFromOf(value.wordM);
        NumberPortabilityList const& list = *listOf(value.wordM);
        return list.length() == 0 ? BAS::DateTime::fromSeconds(0) : list.record(0).validFromM;
    }
    // Calls visitor(NumberPortabilityList const&); the list is valid during the call.
    template <class Visitor>
    void visit(Value value, Visitor&& visitor) const {
        if (!isRecord(value.wordM))
            return visitor(*listOf(value.wordM));
        NumberPortabilityList list;
        list.insert(recordOf(value.wordM));
        visitor(list);
    }

    // A copy of another data set's history.
    Value copy(HistoryValues const& from, Value value);

    std::size_t bytes() const { return poolM.bytes() + networksM.bytes(); }

  private:
    static constexpr Word tag = 2;
    static constexpr Word recordBit = 4;
    static constexpr unsigned networkShift = 3;
    static constexpr unsigned secondsShift = 19;
    static constexpr unsigned secondsBits = 39; // holds the year 9999
    static constexpr unsigned addressShift = 3;

    static bool isRecord(Word word) { return (word & recordBit) != 0; }
    static NumberPortabilityList* listOf(Word word) {
        return std::bit_cast<NumberPortabilityList*>(word >> addressShift); // user space ends below 2^47
    }
    static std::uint32_t networkOf(Word word) { return static_cast<std::uint32_t>(word >> networkShift & 0xffff); }
    static BAS::DateTime validFromOf(Word word) { return BAS::DateTime::fromSeconds(word >> secondsShift); }
    NumberPortabilityData recordOf(Word word) const { return {validFromOf(word), networksM[networkOf(word)]}; }

    Value copyOf(NumberPortabilityList const& list);
    NumberPortabilityList* newList();
    void deleteList(NumberPortabilityList* list);
    bool insert(NumberPortabilityList& list, NumberPortabilityData const& record, bool ordered);
    Value listValue(NumberPortabilityList* list) const;

    NetworkDictionary networksM;
    BlockPool poolM;
    std::uint64_t listsWithTextsM = 0; // how often a text too long for its record went into a list
};

} // namespace DAT::NumberPortability
