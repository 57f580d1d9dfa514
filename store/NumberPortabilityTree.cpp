#include "store/NumberPortabilityTree.h"

#include <algorithm>
#include <ostream>
#include <stdexcept>

namespace DAT::NumberPortability {

bool NumberPortabilityTree::insert(BAS::String const& number, NumberPortabilityData const& record, bool ordered) {
    if (!isStorable(number.view()))
        return false;
    Trie::Place place = treeM.reach(number);
    return insertAt(place, record, ordered);
}

void NumberPortabilityTree::storeNew(Trie::Place& place, HistoryValues::Value history) {
    try {
        treeM.layout().store(place, history);
    } catch (...) {
        histories().destroy(HistoryValues::word(history));
        throw;
    }
}

bool NumberPortabilityTree::insertAt(Trie::Place& place, NumberPortabilityData const& record, bool ordered) {
    HistoryValues::Value history = treeM.layout().value(place);
    if (!history) {
        // The record goes in first: a failure later on must not leave an empty history behind.
        storeNew(place, histories().make(record));
        ++numbersM;
    } else {
        if (!histories().add(history, record, ordered))
            return false;
        treeM.layout().store(place, history);
    }
    ++entriesM;
    return true;
}

bool NumberPortabilityTree::search(BAS::String const& number, BAS::DateTime const& at, NumberPortabilityData& out,
                                   unsigned int method) const {
    if (method == BEST_MATCH)
        return searchBestMatch(number, at, out);
    HistoryValues::Value const history = treeM.search(number, method == EXACT_MATCH);
    return history && histories().search(history, at, out);
}

// The longest key first, as a stack of them gives it.
template <class Prefixes>
bool NumberPortabilityTree::searchAll(Prefixes& prefixes, BAS::DateTime const& at, NumberPortabilityData& out) const {
    while (!prefixes.isEmpty())
        if (histories().search(prefixes.pop(), at, out))
            return true;
    return false;
}

bool NumberPortabilityTree::searchBestMatch(BAS::String const& number, BAS::DateTime const& at,
                                            NumberPortabilityData& out) const {
    Trie::FoundStack found;
    treeM.search(number, found);
    return searchAll(found, at, out);
}

void NumberPortabilityTree::search(std::span<BAS::String const> numbers, std::span<BAS::DateTime const> instants,
                                   std::span<NumberPortabilityData> records, std::span<bool> found,
                                   unsigned int method) const {
    if (instants.size() != numbers.size() || records.size() != numbers.size() || found.size() != numbers.size())
        throw std::invalid_argument("NumberPortabilityTree: a batch whose spans differ in length");
    if (method == BEST_MATCH)
        treeM.search(numbers, [&](std::size_t i, Trie::Prefixes& prefixes) {
            found[i] = searchAll(prefixes, instants[i], records[i]);
        });
    else
        for (std::size_t i = 0; i < numbers.size(); ++i)
            found[i] = search(numbers[i], instants[i], records[i], method);
}

// The longest key first. Whatever the method, the range is the best match of the shorter ones.
template <class Prefixes>
void NumberPortabilityTree::describe(std::size_t digits, Prefixes& prefixes, BAS::DateTime const& at,
                                     unsigned int method, LookUpDetail& detail) const {
    detail.prefixDigits = 0;
    detail.rangeDigits = 0;
    detail.nextChange = BAS::DateTime();
    detail.rangeChange = BAS::DateTime();
    while (!prefixes.isEmpty()) {
        Trie::Prefix const prefix = prefixes.pop();
        bool const isRange = prefix.digits < digits && !detail.hasRange();
        bool const isAsked = method == BEST_MATCH    ? !detail.found()
                             : method == EXACT_MATCH ? prefix.digits == digits
                                                     : prefixes.isEmpty();
        if (isAsked) {
            // A key that is asked in vain takes over when its first record begins, the one that is found gives way when
            // its next does: the answer changes at the earliest of these.
            BAS::DateTime next;
            if (histories().search(prefix.value, at, detail.record, next))
                detail.prefixDigits = static_cast<std::uint32_t>(prefix.digits);
            detail.nextChange = std::min(detail.nextChange, next);
        }
        if (isRange) {
            BAS::DateTime next;
            if (histories().search(prefix.value, at, detail.range, next))
                detail.rangeDigits = static_cast<std::uint32_t>(prefix.digits);
            detail.rangeChange = std::min(detail.rangeChange, next);
        }
        if (detail.hasRange() && (method == EXACT_MATCH || (method == BEST_MATCH && detail.found())))
            return;
    }
}

void NumberPortabilityTree::describeMany(std::span<BAS::String const> numbers, std::span<BAS::DateTime const> instants,
                                         std::span<LookUpDetail> details, unsigned int method) const {
    if (instants.size() != numbers.size() || details.size() != numbers.size())
        throw std::invalid_argument("NumberPortabilityTree: a batch whose spans differ in length");
    treeM.searchMeasured(numbers, [&](std::size_t i, std::size_t digits, auto& prefixes) {
        LookUpDetail& detail = details[i];
        describe(digits, prefixes, instants[i], method, detail);
        // A walk of its own, which few look-ups need: the others' must not be slower for it.
        detail.hasLonger = !detail.found() && !detail.nextChange.isValid() && treeM.hasLonger(numbers[i]);
    });
}

void NumberPortabilityTree::clearAndDestroy() {
    treeM.init();
    entriesM = 0;
    numbersM = 0;
}

void NumberPortabilityTree::copyFrom(NumberPortabilityTree const& other, std::function<void()> const& between) {
    if (this == &other)
        return;
    clearAndDestroy();
    other.treeM.visit([&](BAS::String const& number, HistoryValues::Value history) {
        if (between)
            between();
        Trie::Place place = treeM.reach(number);
        storeNew(place, histories().copy(other.histories(), history));
        entriesM += histories().length(treeM.layout().value(place));
        ++numbersM;
    });
}

void NumberPortabilityTree::printTree(std::ostream& out, bool header) const {
    if (header) {
        std::string const rule(59, '-');
        out << rule << std::endl << "                 Number Portability Data" << std::endl << rule << std::endl;
    }
    treeM.printTree(out);
}

} // namespace DAT::NumberPortability
