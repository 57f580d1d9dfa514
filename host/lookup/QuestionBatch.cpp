#include "host/lookup/QuestionBatch.h"

#include "host/base/Instant.h"

#include <array>

namespace nphost {

QuestionBatch::QuestionBatch(LoadedPlugIn& plugIn, Output& out, NumberForm const& form, Style style)
    : outM(out), formM(form), styleM(style), batchM(plugIn, sizeCM) {}

NumberKind QuestionBatch::add(std::string_view number, BAS::DateTime at, std::optional<unsigned int> method) {
    // A very long number stands alone, so that the first place's storage is the only one that grows to hold such.
    bool const isLong = number.size() > longNumberCM;
    // A batch has one method, and answers keep the order of the questions.
    if (method != methodM || isLong)
        answer();
    methodM = method;
    NumberKind const kind = readNumber(number, styleM.normalise ? &formM : nullptr, batchM.nextNumber());
    if (kind != NumberKind::NUMBER)
        return kind;
    batchM.add(at);
    if (batchM.isFull() || isLong)
        answer();
    return kind;
}

// Also without questions, which costs nothing: callers need not ask whether there are any.
void QuestionBatch::answer() {
    styleM.ported ? batchM.describe(methodM) : batchM.search(methodM);
    for (std::size_t i = 0; i < batchM.size(); ++i)
        write(i);
    batchM.clear();
}

void QuestionBatch::countNotFound(std::string_view number) {
    allFoundM = false;
    // One is shown, the others are counted.
    if (!formM.beginsAsStored(number) && notStoredM++ == 0)
        firstNotStoredM = number;
}

void QuestionBatch::write(std::size_t i) {
    outM.append(batchM.number(i).view());
    outM.append('\t');
    outM.append(InstantDigits(batchM.instant(i)).view());
    LookUpBatch::Record const* const record = batchM.record(i);
    if (record == nullptr) {
        countNotFound(batchM.number(i).view());
        return outM.append(nothingFound());
    }
    outM.append('\t');
    outM.append(InstantDigits(record->validFromM).view());
    outM.append('\t');
    outM.append(record->networkIdM.view());
    if (styleM.ported) {
        std::optional<bool> const ported = batchM.detail(i).ported();
        outM.append(!ported ? "\t-" : (*ported ? "\ttrue" : "\tfalse"));
    }
    outM.append('\n');
}

} // namespace nphost
