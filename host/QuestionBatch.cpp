#include "host/QuestionBatch.h"

#include "host/Instant.h"
#include "host/Numbers.h"

#include <span>

namespace nphost {

QuestionBatch::QuestionBatch(LoadedPlugIn& plugIn, Output& out, bool normalise)
    : plugInM(plugIn), outM(out), normaliseM(normalise), numbersM(sizeCM), instantsM(sizeCM), recordsM(sizeCM) {}

void QuestionBatch::add(std::string_view number, BAS::DateTime at, std::optional<unsigned int> method) {
    // A very long number stands alone, so that the first place's storage is the only one that grows to hold such.
    bool const isLong = number.size() > longNumberCM;
    if (method != methodM || isLong)
        answer();
    methodM = method;
    keep(number, at);
    if (countM == sizeCM || isLong)
        answer();
}

void QuestionBatch::keep(std::string_view number, BAS::DateTime at) {
    readNumber(number, normaliseM, plugInM, numbersM[countM]);
    instantsM[countM] = at;
    ++countM;
}

void QuestionBatch::answer() {
    search();
    for (std::size_t i = 0; i < countM; ++i)
        write(i);
    countM = 0;
}

// Where memory does not suffice for all, it may for each: only what really failed is then answered as not found.
void QuestionBatch::search() {
    if (countM == 0 || searchTogether())
        return;
    for (std::size_t i = 0; i < countM; ++i)
        foundM[i] = searchOne(i);
}

bool QuestionBatch::searchTogether() {
    std::span const numbers(numbersM.cbegin(), countM);
    std::span const instants(instantsM.cbegin(), countM);
    std::span const records(recordsM.begin(), countM);
    std::span const found(foundM.begin(), countM);
    return methodM ? plugInM.search(numbers, instants, records, found, *methodM)
                   : plugInM.search(numbers, instants, records, found);
}

bool QuestionBatch::searchOne(std::size_t i) {
    return methodM ? plugInM.search(numbersM[i], instantsM[i], recordsM[i], *methodM)
                   : plugInM.search(numbersM[i], instantsM[i], recordsM[i]);
}

void QuestionBatch::write(std::size_t i) {
    outM.append(numbersM[i].view());
    outM.append('\t');
    writeInstant(instantsM[i]);
    if (!foundM[i]) {
        allFoundM = false;
        return outM.append(nothingFoundCM);
    }
    outM.append('\t');
    writeInstant(recordsM[i].validFromM);
    outM.append('\t');
    outM.append(recordsM[i].networkIdM.view());
    outM.append('\n');
}

void QuestionBatch::writeInstant(BAS::DateTime at) {
    std::array<char, instantDigitsCM> digits{};
    at.toDigits(digits.data());
    outM.append({digits.data(), digits.size()});
}

} // namespace nphost
