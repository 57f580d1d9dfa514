#include "store/HistoryValues.h"

#include <array>
#include <cstring>
#include <new>
#include <ostream>
#include <utility>

namespace DAT::NumberPortability {

static_assert(BAS::DateTime::invalidSecsCM < (1ULL << 39), "an instant must fit");
using Memory = NumberPortabilityList::Memory;

static_assert(NetworkDictionary::mostCM <= 65536, "a network's number must fit");

template <class History, class... Arguments>
History* HistoryValues::create(Arguments&&... arguments) {
    void* const block = poolM.allocate(sizeof(History));
    try {
        return new (block) History(std::forward<Arguments>(arguments)...);
    } catch (...) {
        poolM.release(block, sizeof(History));
        throw;
    }
}

template <class History>
void HistoryValues::remove(History* history) {
    history->~History();
    poolM.release(history, sizeof(History));
}

void HistoryValues::destroy(Word word) {
    if (isLong(word))
        remove(longOf(word));
    else if (!isRecord(word))
        remove(listOf(word));
}

void HistoryValues::clear() noexcept {
    poolM.clear();
    networksM.clear();
    hasTextsM = false;
}

HistoryValues::Value HistoryValues::make(NumberPortabilityData const& record) {
    std::uint32_t const network = networksM.numberOf(record.networkIdM);
    if (network != NetworkDictionary::noneCM)
        return Value(record.validFromM.seconds() << secondsShift | static_cast<Word>(network) << networkShift |
                     recordBit | tag);
    NumberPortabilityList* const list = create<NumberPortabilityList>(Memory::POOL);
    try {
        insert(*list, record, false);
    } catch (...) {
        remove(list);
        throw;
    }
    return valueOf(list);
}

bool HistoryValues::add(Value& value, NumberPortabilityData const& record, bool ordered) {
    if (isLong(value.wordM))
        return insert(*longOf(value.wordM), record, ordered);
    if (!isRecord(value.wordM))
        return ordered && listOf(value.wordM)->length() == LongHistory::leastCM
                   ? lengthen(value, record)
                   : insert(*listOf(value.wordM), record, ordered);
    NumberPortabilityData const first = recordOf(value.wordM);
    if (ordered && first.validFromM == record.validFromM)
        return false;
    NumberPortabilityList* const list = create<NumberPortabilityList>(Memory::POOL);
    try {
        insert(*list, first, ordered);
        insert(*list, record, ordered);
    } catch (...) {
        remove(list);
        throw;
    }
    value = valueOf(list);
    return true;
}

// Makes a long history of a list. The copy comes first: a record that is refused must leave the list as it was.
bool HistoryValues::lengthen(Value& value, NumberPortabilityData const& record) {
    NumberPortabilityList* const list = listOf(value.wordM);
    auto* const history = create<LongHistory>(std::as_const(*list));
    bool inserted = false;
    try {
        inserted = insert(*history, record, true);
    } catch (...) {
        remove(history);
        throw;
    }
    if (!inserted) {
        remove(history);
        return false;
    }
    remove(list);
    value = valueOf(history);
    return true;
}

template <class History>
bool HistoryValues::insert(History& history, NumberPortabilityData const& record, bool ordered) {
    if (!ordered)
        history.insert(record);
    else if (!history.insertAt(record))
        return false;
    hasTextsM = hasTextsM || !record.networkIdM.isShort();
    return true;
}

std::uint32_t HistoryValues::length(Value value) const {
    if (isLong(value.wordM))
        return longOf(value.wordM)->length();
    return isRecord(value.wordM) ? 1 : listOf(value.wordM)->length();
}

HistoryValues::Value HistoryValues::copy(HistoryValues const& from, Value value) {
    if (isRecord(value.wordM))
        return make(from.recordOf(value.wordM));
    hasTextsM = hasTextsM || from.hasTextsM;
    if (isLong(value.wordM))
        return valueOf(create<LongHistory>(std::as_const(*longOf(value.wordM))));
    return valueOf(create<NumberPortabilityList>(std::as_const(*listOf(value.wordM)), Memory::POOL));
}

HistoryValues::Value HistoryValues::valueOf(NumberPortabilityList* list) {
    return Value(reinterpret_cast<Word>(list) << addressShift | tag);
}

HistoryValues::Value HistoryValues::valueOf(LongHistory* history) {
    return Value(reinterpret_cast<Word>(history) << addressShift | longBit | tag);
}

void HistoryValues::print(Value value, std::ostream& out, std::string_view number) const {
    if (isRecord(value.wordM))
        printRecord(out, number, validFromOf(value.wordM), networksM[networkOf(value.wordM)]);
    else if (isLong(value.wordM))
        longOf(value.wordM)->each([&](NumberPortabilityData const& record) {
            printRecord(out, number, record.validFromM, record.networkIdM);
            return true;
        });
    else
        listOf(value.wordM)->printTree(out, BAS::String(number));
}

} // namespace DAT::NumberPortability
