#include "host/fields/NumberForm.h"

#include "host/base/Text.h"
#include "host/fields/NumberText.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>

namespace nphost {

namespace {

bool isSeparator(char c) {
    return c == ' ' || c == '\t' || c == '-' || c == '.' || c == '(' || c == ')' || c == '/';
}

// A number has at most 15 digits (E.164), with an access code before them. More, with a blank or a slash, are two
// numbers, or a number and something else.
constexpr std::size_t mostDigitsCM = 15;
// For numbers that stay as they are, whose access code nobody has configured.
constexpr std::size_t longAccessCodeCM = 4;

bool areDigits(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), isDigit);
}

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// `number` is what was read of the text.
bool holdsTwoNumbers(std::string_view text, std::string_view number, std::size_t accessCode) {
    // The length alone tells nearly always, without counting.
    if (number.size() <= mostDigitsCM + accessCode)
        return false;
    auto const digits = std::count_if(number.begin(), number.end(), isDigit);
    return text.find_first_of("/ \t") != std::string_view::npos &&
           static_cast<std::size_t>(digits) > mostDigitsCM + accessCode;
}

// Of ASCII letters, in any case.
bool isSame(std::string_view text, std::string_view lowerCase) {
    return std::equal(text.begin(), text.end(), lowerCase.begin(), lowerCase.end(),
                      [](char one, char other) { return lower(one) == other; });
}

bool takePrefix(std::string_view& text, std::string_view lowerCase) {
    if (!isSame(text.substr(0, lowerCase.size()), lowerCase))
        return false;
    text.remove_prefix(lowerCase.size());
    return true;
}

// The text up to the separator, which goes too; the whole if there is none.
std::string_view takeUntil(std::string_view& text, char separator) {
    std::size_t const end = std::min(text.find(separator), text.size());
    std::string_view const part = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return part;
}

std::string withoutSeparators(std::string_view text) {
    std::string result(text);
    std::erase_if(result, isSeparator);
    return result;
}

// Nothing when an escape is none.
std::optional<std::string> unescaped(std::string_view text) {
    std::string result;
    for (; !text.empty(); text.remove_prefix(1)) {
        unsigned char byte = static_cast<unsigned char>(text.front());
        if (text.front() == '%') {
            std::string_view const code = text.substr(1, 2);
            auto const [end, error] = std::from_chars(code.data(), code.data() + code.size(), byte, 16);
            if (code.size() != 2 || error != std::errc() || end != code.data() + 2)
                return std::nullopt;
            text.remove_prefix(2);
        }
        result += static_cast<char>(byte);
    }
    return result;
}

// Whether a user part reads as a telephone number, whatever its parameters (RFC 3966: visual separators, no blanks).
bool isSubscriber(std::string_view user) {
    std::optional<std::string> const number = unescaped(takeUntil(user, ';'));
    std::string_view const digits = number ? std::string_view(*number) : std::string_view();
    return digits.find_first_not_of("0123456789-.()", digits.starts_with('+') ? 1 : 0) == std::string_view::npos;
}

// The value of a parameter, escapes and all; empty when it is not there.
std::string_view parameter(std::string_view parameters, std::string_view name) {
    while (!parameters.empty()) {
        std::string_view value = takeUntil(parameters, ';');
        if (isSame(takeUntil(value, '='), name))
            return value;
    }
    return {};
}

// Removes a quoted text from the front; false when it has no end.
bool skipQuoted(std::string_view& text) {
    for (std::size_t i = 1; i < text.size(); i += text[i] == '\\' ? 2 : 1) {
        if (text[i] == '"') {
            text.remove_prefix(i + 1);
            return true;
        }
    }
    return false;
}

// What stands between the angle brackets of a name-addr: a name, quoted or not, may stand before, parameters behind.
std::optional<std::string_view> addressOf(std::string_view text) {
    if (text.starts_with('"') && !skipQuoted(text))
        return std::nullopt;
    std::size_t const begin = text.find('<');
    std::size_t const end = text.find('>', begin);
    if (begin == std::string_view::npos || end == std::string_view::npos)
        return std::nullopt;
    std::string_view const behind = trimmed(text.substr(end + 1));
    return behind.empty() || behind.starts_with(';') ? std::optional(text.substr(begin + 1, end - begin - 1))
                                                     : std::nullopt;
}

// Whether there was no number to write: a field without a digit. Of a sip: address the host's digits say nothing, and
// what is a list or an object in JSON is none that was withheld.
bool isWithheld(std::string_view text) {
    bool const isSip = takePrefix(text, "sip:") || takePrefix(text, "sips:");
    return !hasDigit(isSip ? text.substr(0, text.find('@')) : text) && !text.starts_with('[') && !text.starts_with('{');
}

} // namespace

NumberKind readPlainNumber(std::string_view text, BAS::String& out) {
    std::string place;
    std::string_view const plain = plainNumberText(text, place);
    if (isDecimal(plain))
        return NumberKind::DECIMAL;
    std::string const number = withoutSeparators(plain);
    out.assign(number.data(), number.size());
    if (areDigits(std::string_view(number).substr(number.starts_with('+') ? 1 : 0)) &&
        !holdsTwoNumbers(trimmed(plain), number, longAccessCodeCM))
        return number.starts_with("+0") ? NumberKind::NO_COUNTRY : NumberKind::NUMBER;
    return hasDigit(plain) ? NumberKind::UNREADABLE : NumberKind::NONE;
}

NumberForm::NumberForm(DiallingCodes codes, Normalise normalise)
    : codesM(std::move(codes)), normaliseM(std::move(normalise)) {}

NumberKind NumberForm::toStored(std::string_view text, BAS::String& out) const {
    std::string place;
    text = trimmed(plainNumberText(text, place));
    // An address in brackets stands for the whole text; brackets that are none make it unreadable.
    if (text.find('<') != std::string_view::npos)
        text = addressOf(text).value_or(text);
    NumberKind const kind = text.find('<') == std::string_view::npos ? fromAddress(text, out) : NumberKind::UNREADABLE;
    // Asked last, of what could not be read: words for "withheld" are too many to list, but none has a digit.
    return kind == NumberKind::UNREADABLE && isWithheld(text) ? NumberKind::NONE : kind;
}

// Separators in the number are passed over, as a look-up does.
bool NumberForm::beginsAsStored(std::string_view number) const {
    for (char const wanted : codesM.internationalAccess) {
        number.remove_prefix(std::min(number.find_first_of("0123456789"), number.size()));
        if (isDigit(wanted) && !number.starts_with(wanted))
            return false;
        number.remove_prefix(isDigit(wanted) ? 1 : 0);
    }
    return true;
}

NumberKind NumberForm::fromAddress(std::string_view text, BAS::String& out) const {
    if (takePrefix(text, "tel:"))
        return fromSubscriber(text, out);
    if (takePrefix(text, "sip:") || takePrefix(text, "sips:"))
        return fromSip(text, out);
    return fromWritten(text, out);
}

NumberKind NumberForm::fromSip(std::string_view uri, BAS::String& out) const {
    // Without a user there is a host only, and its digits are an address.
    std::size_t const at = uri.find('@');
    if (at == std::string_view::npos)
        return NumberKind::UNREADABLE;
    std::string_view userInfo = uri.substr(0, at);
    std::string_view const user = takeUntil(userInfo, ':'); // a password may follow
    std::string_view rest = uri.substr(at + 1);
    std::string_view parameters = takeUntil(rest, '?');
    takeUntil(parameters, ';'); // the host
    // Few networks set user=phone: a user part that reads as a number is taken for one (docs/decisions.md).
    bool const isPhone = isSame(parameter(parameters, "user"), "phone") || isSubscriber(user);
    return isPhone ? fromSubscriber(user, out) : NumberKind::UNREADABLE;
}

NumberKind NumberForm::fromSubscriber(std::string_view subscriber, BAS::String& out) const {
    std::string_view parameters = subscriber;
    std::optional<std::string> const escapedNumber = unescaped(takeUntil(parameters, ';'));
    std::optional<std::string> const context = unescaped(parameter(parameters, "phone-context"));
    // An escape that is none may stand for anything, digits among it.
    if (!escapedNumber || !context)
        return NumberKind::UNREADABLE;
    if (isDecimal(*escapedNumber) || isDecimal(*context))
        return NumberKind::DECIMAL;
    std::string const number = digitsOf(*escapedNumber);
    if (number.starts_with('+'))
        return global(std::string_view(number).substr(1), out);
    if (!areDigits(number))
        return NumberKind::UNREADABLE;
    return context->starts_with('+') ? fromContext(withoutSeparators(context->substr(1)), number, out)
                                     : dialled(number, out);
}

NumberKind NumberForm::fromContext(std::string_view context, std::string_view digits, BAS::String& out) const {
    if (!areDigits(context))
        return NumberKind::UNREADABLE;
    bool const isHome = !codesM.country.empty() && context.starts_with(codesM.country);
    // Only the own country's codes are known: what is dialled there with a code is no local number.
    if (isHome && withoutAccessCode(digits).size() < digits.size())
        return dialled(digits, out);
    return global(std::string(context) + std::string(digits), out);
}

NumberKind NumberForm::fromWritten(std::string_view text, BAS::String& out) const {
    text.remove_prefix(std::min(text.find_first_not_of("( \t"), text.size())); // as in "(+44) 7700 900123"
    text = withoutExtension(text);
    std::string_view const number = withoutSign(text);
    if (isDecimal(number))
        return NumberKind::DECIMAL;
    // A sign was in front: then the rest is a global number.
    NumberKind const kind = number.size() < text.size()
                                ? global(withoutSeparators(withoutTrunkCode(number, codesM.country)), out)
                                : dialled(digitsOf(text), out);
    bool const isTwo =
        kind == NumberKind::NUMBER && holdsTwoNumbers(trimmed(text), out.view(), codesM.internationalAccess.size());
    return isTwo ? NumberKind::UNREADABLE : kind;
}

NumberKind NumberForm::global(std::string_view digits, BAS::String& out) const {
    if (!areDigits(digits))
        return NumberKind::UNREADABLE;
    if (digits.starts_with('0'))
        return NumberKind::NO_COUNTRY;
    std::string const number = codesM.sign + std::string(digits);
    out.assign(number.data(), number.size());
    // By the module's own rules, so that what is asked here is what was stored there.
    normaliseM(out);
    return NumberKind::NUMBER;
}

// A number as dialled in the own country.
NumberKind NumberForm::dialled(std::string_view number, BAS::String& out) const {
    if (!areDigits(withoutAccessCode(number)))
        return NumberKind::UNREADABLE;
    out.assign(number.data(), number.size());
    normaliseM(out);
    return NumberKind::NUMBER;
}

std::string_view NumberForm::withoutSign(std::string_view text) const {
    // The configured sign may be another one, or longer; a plus is understood in any case.
    for (std::string_view const sign : {std::string_view(codesM.sign), std::string_view("+")})
        if (!sign.empty() && text.starts_with(sign))
            return text.substr(sign.size());
    return text;
}

std::string_view NumberForm::withoutAccessCode(std::string_view number) const {
    for (std::string const& code : {std::cref(codesM.internationalAccess), std::cref(codesM.nationalAccess)})
        if (!code.empty() && number.starts_with(code))
            return number.substr(code.size());
    return number;
}

// Without visual separators, and without a "(0)" behind the own country's code.
std::string NumberForm::digitsOf(std::string_view text) const {
    if (text.starts_with('+'))
        return "+" + withoutSeparators(withoutTrunkCode(text.substr(1), codesM.country));
    return text.find('(') == std::string_view::npos
               ? withoutSeparators(text)
               : withoutSeparators(withoutTrunkCode(text, codesM.internationalAccess + codesM.country));
}

// "44 (0)7700 900123" without its "(0)", which must follow `head`.
std::string NumberForm::withoutTrunkCode(std::string_view text, std::string_view head) const {
    if (text.find('(') == std::string_view::npos)
        return std::string(text);
    std::string const trunkCode = "(" + codesM.nationalAccess + ")";
    std::size_t const at = text.find(trunkCode);
    if (codesM.nationalAccess.empty() || at == std::string_view::npos || withoutSeparators(text.substr(0, at)) != head)
        return std::string(text);
    return std::string(text.substr(0, at)).append(text.substr(at + trunkCode.size()));
}

} // namespace nphost
