// DAT::NumberPortability::HistoryValues: how the packed trie keeps the histories of numbers.
//
// Purpose: nine numbers in ten have one record. Such a history is kept in the eight bytes of its trie node: the seconds
// of its instant and the number of its network. A history of several records is a NumberPortabilityList from a pool,
// and so is one whose network has no number because the data have too many different ones. One of many records is a
// LongHistory from there.
// Ownership: owns networks and lists. A Value is a handle; it stays valid until its history changes or clear.
// Threads: none inside; concurrent const use is safe.
// Errors: std::bad_alloc, after which everything is as before. Complexity: that of NumberPortabilityList for up to
// LongHistory::leastCM records, that of LongHistory for more; copying and visiting are linear in the records.
//
// A word (see PackedLayout.h): bits 0-1: VALUE; bit 2: one record, then bits 3-18: its network, bits 19-57: its seconds;
// or bit 2 clear, and bits 3-63: the list's or, with bit 3 set in addition, the long history's address.
#pragma once

#include "store/BlockPool.h"
#include "store/LongHistory.h"
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
    bool ownsNothing() const { return !hasTextsM; }
    void clear() noexcept;
    void print(Value value, std::ostream& out, std::string_view number) const;
    // Whether the history lies elsewhere than in its word.
    bool isApart(Value value) const { return !isRecord(value.wordM); }
    [[gnu::always_inline]] void prefetch(Value value) const {
        if (isApart(value))
            __builtin_prefetch(addressOf(value.wordM));
    }
    [[gnu::always_inline]] void prefetchContent(Value value) const {
        if (isApart(value) && !isLong(value.wordM))
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
            return isLong(value.wordM) ? longOf(value.wordM)->search(at, out) : listOf(value.wordM)->search(at, out);
        BAS::DateTime const validFrom = validFromOf(value.wordM);
        if (validFrom > at)
            return false;
        out.networkIdM = networksM[networkOf(value.wordM)]; // the one that can fail comes first
        out.validFromM = validFrom;
        return true;
    }

    // The same, and `next` tells when the next record after `at` begins; invalid when there is none.
    bool search(Value value, BAS::DateTime const& at, NumberPortabilityData& out, BAS::DateTime& next) const {
        if (!isRecord(value.wordM))
            return isLong(value.wordM) ? longOf(value.wordM)->search(at, out, next)
                                       : listOf(value.wordM)->search(at, out, next);
        next = BAS::DateTime();
        if (search(value, at, out))
            return true;
        next = validFromOf(value.wordM);
        return false;
    }

    std::uint32_t length(Value value) const;
    // Valid-from of the newest record of an ordered history; the very first instant for a history without any.
    BAS::DateTime newest(Value value) const {
        if (isRecord(value.wordM))
            return validFromOf(value.wordM);
        if (isLong(value.wordM))
            return longOf(value.wordM)->newest().validFromM;
        NumberPortabilityList const& list = *listOf(value.wordM);
        return list.length() == 0 ? BAS::DateTime::fromSeconds(0) : list.record(0).validFromM;
    }
    // Calls take(NumberPortabilityData const&) for each record, the newest first, until it returns false.
    template <class Take>
    void each(Value value, Take&& take) const {
        if (isRecord(value.wordM)) {
            take(recordOf(value.wordM));
        } else if (isLong(value.wordM)) {
            longOf(value.wordM)->each(take);
        } else {
            NumberPortabilityList const& list = *listOf(value.wordM);
            for (std::uint32_t i = 0; i < list.length() && take(list.record(i)); ++i) {
            }
        }
    }

    // A copy of another data set's history.
    Value copy(HistoryValues const& from, Value value);

    std::size_t bytes() const { return poolM.bytes() + networksM.bytes(); }

  private:
    static constexpr Word tag = 2;
    static constexpr Word recordBit = 4;
    static constexpr Word longBit = 8; // addresses are multiples of BlockPool::unitCM, so no bit of theirs
    static constexpr unsigned networkShift = 3;
    static constexpr unsigned secondsShift = 19;
    static constexpr unsigned secondsBits = 39; // holds the year 9999
    static constexpr unsigned addressShift = 3;

    static bool isRecord(Word word) { return (word & recordBit) != 0; }
    static bool isLong(Word word) { return (word & (recordBit | longBit)) == longBit; }
    static void* addressOf(Word word) {
        return std::bit_cast<void*>((word & ~longBit) >> addressShift); // user space ends below 2^47
    }
    static NumberPortabilityList* listOf(Word word) { return static_cast<NumberPortabilityList*>(addressOf(word)); }
    static LongHistory* longOf(Word word) { return static_cast<LongHistory*>(addressOf(word)); }
    static std::uint32_t networkOf(Word word) { return static_cast<std::uint32_t>(word >> networkShift & 0xffff); }
    static BAS::DateTime validFromOf(Word word) { return BAS::DateTime::fromSeconds(word >> secondsShift); }
    NumberPortabilityData recordOf(Word word) const { return {validFromOf(word), networksM[networkOf(word)]}; }

    template <class History, class... Arguments>
    History* create(Arguments&&... arguments);
    template <class History>
    void remove(History* history);
    template <class History>
    bool insert(History& history, NumberPortabilityData const& record, bool ordered);
    bool lengthen(Value& value, NumberPortabilityData const& record);
    static Value valueOf(NumberPortabilityList* list);
    static Value valueOf(LongHistory* history);

    NetworkDictionary networksM;
    BlockPool poolM;
    bool hasTextsM = false; // a text too long for its record has gone into a list or long history
};

} // namespace DAT::NumberPortability
