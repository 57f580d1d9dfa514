#include "host/http/Questions.h"

#include "host/base/Text.h"
#include "host/fields/DataClock.h"
#include "host/fields/Numbers.h"
#include "host/service/QuestionError.h"

#include <algorithm>
#include <string>

namespace nphost {

void readAskedNumber(std::string_view text, bool normalise, NumberForm const& form, BAS::String& out) {
    if (text.size() > mostNumberBytesCM)
        throw QuestionError("the number is longer than " + std::to_string(mostNumberBytesCM) + " characters");
    bool const isGlobal = text.starts_with('+');
    std::string_view const digits = isGlobal ? text.substr(1) : text;
    bool const isPlain = !digits.empty() && std::all_of(digits.begin(), digits.end(), isDigit);
    if (!normalise && !isPlain)
        throw QuestionError("'" + shortened(text) +
                            "' is not a number in E.164 (+ and digits) or stored form (digits); normalise=true takes "
                            "other forms");
    if (!normalise && !isGlobal) { // the usual one
        out.assign(text.data(), text.size());
        return;
    }
    NumberKind const kind = readNumber(text, normalise || isGlobal ? &form : nullptr, out);
    if (kind != NumberKind::NUMBER)
        throw QuestionError(notANumber(text, kind));
    // What is answered shows it as it is stored: nothing but digits.
    if (!std::all_of(out.view().begin(), out.view().end(), isDigit))
        throw QuestionError(notANumber(text, NumberKind::UNREADABLE));
}

BAS::DateTime readAskedInstant(std::string_view text, DataClock const& clock) {
    BAS::DateTime const at = clock.read(text);
    if (!at.isValid())
        throw QuestionError("'" + shortened(text) +
                            "' is not a valid instant: 14 digits, or ISO 8601 with or without an offset");
    return at;
}

unsigned int readAskedMethod(std::string_view text) {
    std::optional<unsigned int> const method = searchMethodOf(text);
    if (!method)
        throw QuestionError("the method '" + shortened(text) + "' is not best, exact or shortest");
    return *method;
}

bool readAskedFlag(std::string_view text, char const* name) {
    if (text != "true" && text != "false" && !text.empty())
        throw QuestionError(std::string("'") + name + "' must be true or false");
    return text != "false";
}

} // namespace nphost
