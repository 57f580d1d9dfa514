#include "store/HistoryValues.h"

#include <array>
#include <cstring>
#include <ostream>

namespace DAT::NumberPortability {

static_assert(BAS::DateTime::invalidSecsCM < (1ULL << 39), "an instant must fit");
static_assert(NetworkDictionary::mostCM <= 65536, "a network's number must fit");

void HistoryValues::destroy(Word word) {
    if (!isRecord(word))
        deleteList(listOf(word));
}

void HistoryValues::clear() noexcept {
    poolM.clear();
    networksM.clear();
    listsWithTextsM = 0;
}

HistoryValues::Value HistoryValues::make(NumberPortabilityData const& record) {
    std::uint32_t const network = networksM.numberOf(record.networkIdM);
    if (network != NetworkDictionary::noneCM)
        return Value(record.validFromM.seconds() << secondsShift | static_cast<Word>(network) << networkShift |
                     recordBit | tag);
    NumberPortabilityList* const list = newList();
    try {
        insert(*list, record, false);
    } catch (...) {
        deleteList(list);
        throw;
    }
    return listValue(list);
}

bool HistoryValues::add(Value& value, NumberPortabilityData const& record, bool ordered) {
    if (!isRecord(value.wordM))
        return insert(*listOf(value.wordM), record, ordered);
    NumberPortabilityData const first = recordOf(value.wordM);
    if (ordered && first.validFromM == record.validFromM)
        return false;
    NumberPortabilityList* const list = newList();
    try {
        insert(*list, first, ordered);
        insert(*list, record, ordered);
    } catch (...) {
        deleteList(list);
        throw;
    }
    value = listValue(list);
    return true;
}

std::uint32_t HistoryValues::length(Value value) const {
    return isRecord(value.wordM) ? 1 : listOf(value.wordM)->length();
}

HistoryValues::Value HistoryValues::copy(HistoryValues const& from, Value value) {
    return isRecord(value.wordM) ? make(from.recordOf(value.wordM)) : copyOf(*listOf(value.wordM));
}

HistoryValues::Value HistoryValues::copyOf(NumberPortabilityList const& list) {
    if (list.length() == 0)
        return listValue(newList());
    Value copied = make(list.record(0));
    try {
        for (std::uint32_t i = 1; i < list.length(); ++i)
            add(copied, list.record(i), false);
    } catch (...) { // nobody knows of the copy yet, so nobody would free its texts
        destroy(copied.wordM);
        throw;
    }
    return copied;
}

NumberPortabilityList* HistoryValues::newList() {
    void* const block = poolM.allocate(sizeof(NumberPortabilityList));
    return new (block) NumberPortabilityList(NumberPortabilityList::Memory::POOL);
}

void HistoryValues::deleteList(NumberPortabilityList* list) {
    list->~NumberPortabilityList();
    poolM.release(list, sizeof(NumberPortabilityList));
}

bool HistoryValues::insert(NumberPortabilityList& list, NumberPortabilityData const& record, bool ordered) {
    if (!ordered)
        list.insert(record);
    else if (!list.insertAt(record))
        return false;
    listsWithTextsM += record.networkIdM.isShort() ? 0 : 1;
    return true;
}

HistoryValues::Value HistoryValues::listValue(NumberPortabilityList* list) const {
    return Value(reinterpret_cast<Word>(list) << addressShift | tag);
}

void HistoryValues::print(Value value, std::ostream& out, std::string_view number) const {
    if (isRecord(value.wordM))
        printRecord(out, number, validFromOf(value.wordM), networksM[networkOf(value.wordM)]);
    else
        listOf(value.wordM)->printTree(out, BAS::String(number));
}

} // namespace DAT::NumberPortability
