#include "host/fields/Numbers.h"

#include "host/base/Text.h"
#include "host/fields/NumberText.h"

#include <algorithm>
#include <array>

namespace nphost {

namespace {

constexpr std::array<char const*, searchMethodsCM> methodsCM = {"best", "exact", "shortest"};

} // namespace

NumberKind readNumber(std::string_view number, NumberForm const* form, BAS::String& out) {
    if (form != nullptr)
        return form->toStored(number, out);
    // Its digits are those of several values; the look-up would take them for one number.
    if (number.starts_with('[') || number.starts_with('{'))
        return NumberKind::UNREADABLE;
    // As it stands: the look-up passes over what is no digit.
    out.assign(number.data(), number.size());
    return hasDigit(number) ? NumberKind::NUMBER : NumberKind::NONE;
}

char const* sentenceOf(NumberKind kind) {
    switch (kind) {
    case NumberKind::UNREADABLE:
        return "the number cannot be read";
    case NumberKind::DECIMAL:
        return "the number has a decimal point, as spreadsheets write quantities";
    case NumberKind::NO_COUNTRY:
        return "a 0 follows the plus, and no country code begins with 0";
    default:
        return "there is no number";
    }
}

std::string notANumber(std::string_view text, NumberKind kind) {
    bool const hasReason = kind == NumberKind::DECIMAL || kind == NumberKind::NO_COUNTRY;
    return "'" + shortened(text) + "' is not a number" + (hasReason ? std::string(": ") + sentenceOf(kind) : "");
}

std::string notOneNumber(std::string_view text) {
    return "'" + shortened(text) + "' is not one number: a line break, a tab or an instant is in it";
}

std::optional<unsigned int> searchMethodOf(std::string_view name) {
    auto const* const found = std::find(methodsCM.begin(), methodsCM.end(), name);
    return found == methodsCM.end() ? std::nullopt
                                    : std::optional(static_cast<unsigned int>(found - methodsCM.begin()));
}

// The plug-in takes any number above for the shortest prefix, too.
char const* nameOfSearchMethod(unsigned int method) {
    return methodsCM[std::min<std::size_t>(method, methodsCM.size() - 1)];
}

} // namespace nphost
