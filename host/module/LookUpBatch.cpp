#include "host/module/LookUpBatch.h"

#include <new>
#include <span>

namespace nphost {

LookUpBatch::LookUpBatch(LoadedPlugIn& plugIn, std::size_t capacity)
    : plugInM(plugIn), numbersM(capacity), instantsM(capacity), recordsM(capacity),
      foundM(std::make_unique<bool[]>(capacity)) {}

// Where memory does not suffice for all, it may for each. What cannot be looked up even so is not "not found".
void LookUpBatch::search(std::optional<unsigned int> method) {
    describedM = false;
    try {
        searchTogether(method);
    } catch (std::bad_alloc const&) {
        for (std::size_t i = 0; i < countM; ++i)
            foundM[i] = searchOne(i, method);
    }
}

void LookUpBatch::describe(std::optional<unsigned int> method) {
    detailsM.resize(numbersM.size());
    describedM = true;
    try {
        describeSome(0, countM, method);
    } catch (std::bad_alloc const&) {
        for (std::size_t i = 0; i < countM; ++i)
            describeSome(i, 1, method);
    }
}

void LookUpBatch::clear() {
    // Storage that a very long number needed is not kept for the next ones.
    for (std::size_t i = 0; holdsLongM && i < countM; ++i)
        numbersM[i] = BAS::String();
    holdsLongM = false;
    countM = 0;
}

void LookUpBatch::searchTogether(std::optional<unsigned int> method) {
    // Only as much of each as there are look-ups: the plug-in refuses spans of different lengths.
    std::span const numbers(numbersM.cbegin(), countM);
    std::span const instants(instantsM.cbegin(), countM);
    std::span const records(recordsM.begin(), countM);
    std::span const found(foundM.get(), countM);
    if (method)
        plugInM.search(numbers, instants, records, found, *method);
    else
        plugInM.search(numbers, instants, records, found);
}

bool LookUpBatch::searchOne(std::size_t i, std::optional<unsigned int> method) {
    return method ? plugInM.search(numbersM[i], instantsM[i], recordsM[i], *method)
                  : plugInM.search(numbersM[i], instantsM[i], recordsM[i]);
}

void LookUpBatch::describeSome(std::size_t begin, std::size_t count, std::optional<unsigned int> method) {
    std::span const numbers = std::span(numbersM).subspan(begin, count);
    std::span const instants = std::span(instantsM).subspan(begin, count);
    std::span const details = std::span(detailsM).subspan(begin, count);
    if (method)
        plugInM.describe(numbers, instants, details, *method);
    else
        plugInM.describe(numbers, instants, details);
}

} // namespace nphost
