#include "store/NumberPortabilityTree.h"

#include <ostream>
#include <stdexcept>

namespace DAT::NumberPortability {

bool NumberPortabilityTree::insert(BAS::String const& number, NumberPortabilityData const& record, bool ordered) {
    if (!isStorable(number))
        return false;
    NumberPortabilityList* history = treeM.search(number, true);
    if (history == nullptr) {
        // The record goes in first: a failure later on must not leave an empty history behind.
        auto created = std::make_unique<NumberPortabilityList>();
        created->insert(record);
        treeM.insert(number, created.get());
        static_cast<void>(created.release()); // the trie's from here on
        ++numbersM;
    } else if (!ordered) {
        history->insert(record);
    } else if (!history->insertAt(record)) {
        return false;
    }
    ++entriesM;
    return true;
}

bool NumberPortabilityTree::search(BAS::String const& number, BAS::DateTime const& at, NumberPortabilityData& out,
                                   unsigned int method) const {
    if (method == BEST_MATCH)
        return searchBestMatch(number, at, out);
    NumberPortabilityList const* const history = treeM.search(number, method == EXACT_MATCH);
    return history != nullptr && history->search(at, out);
}

bool NumberPortabilityTree::searchBestMatch(BAS::String const& number, BAS::DateTime const& at,
                                            NumberPortabilityData& out) const {
    Trie::FoundStack found;
    treeM.search(number, found);
    while (!found.isEmpty())
        if (found.pop()->search(at, out))
            return true;
    return false;
}

void NumberPortabilityTree::search(std::span<BAS::String const> numbers, std::span<BAS::DateTime const> instants,
                                   std::span<NumberPortabilityData> records, std::span<bool> found,
                                   unsigned int method) const {
    if (instants.size() != numbers.size() || records.size() != numbers.size() || found.size() != numbers.size())
        throw std::invalid_argument("NumberPortabilityTree: a batch whose spans differ in length");
    for (std::size_t i = 0; i < numbers.size(); ++i)
        found[i] = search(numbers[i], instants[i], records[i], method);
}

void NumberPortabilityTree::clearAndDestroy() {
    treeM.init();
    entriesM = 0;
    numbersM = 0;
}

void NumberPortabilityTree::copyFrom(NumberPortabilityTree const& other) {
    if (this == &other)
        return;
    clearAndDestroy();
    other.visit([this](BAS::String const& number, NumberPortabilityList const& history) {
        auto copy = std::make_unique<NumberPortabilityList>(history);
        treeM.insert(number, copy.get());
        entriesM += copy.release()->length(); // the trie's from here on
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
