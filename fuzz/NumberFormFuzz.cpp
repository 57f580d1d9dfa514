// Fuzz target: bringing numbers into stored form.
//
// Input: the first line chooses the dialling codes by its first byte, each further line is a text. What is accepted
// must be digits in stored form, and stay the same when it is read again, as a number, as a global one, in URIs, and in
// a name-addr.
#include "fuzz/Fuzz.h"
#include "host/NumberForm.h"

#include <algorithm>
#include <array>
#include <optional>

namespace {

using npfuzz::checkEqual;
using nphost::DiallingCodes;
using nphost::NumberForm;

std::array<DiallingCodes, 4> const CODES = {DiallingCodes{"44", "0", "00", "+"}, DiallingCodes{"1", "1", "011", "+"},
                                            DiallingCodes{"39", "", "00", "+"}, DiallingCodes{"44", "0", "00", "*"}};

// The rules of docs/data-format.md.
void normalise(DiallingCodes const& codes, BAS::String& number) {
    std::string const text = number.str();
    if (!text.empty() && text.starts_with(codes.sign))
        number = BAS::String(codes.internationalAccess + text.substr(codes.sign.size()));
    else if (text.empty() || !text.starts_with(codes.internationalAccess))
        number =
            BAS::String(codes.internationalAccess + codes.country +
                        (text.starts_with(codes.nationalAccess) ? text.substr(codes.nationalAccess.size()) : text));
}

std::optional<std::string> storedForm(NumberForm const& form, std::string const& text) {
    BAS::String stored;
    return form.toStored(text, stored) == nphost::NumberKind::NUMBER ? std::optional(stored.str()) : std::nullopt;
}

void check(NumberForm const& form, DiallingCodes const& codes, std::string const& text) {
    std::optional<std::string> const stored = storedForm(form, text);
    if (!stored)
        return;
    bool const digits = std::all_of(stored->begin(), stored->end(), [](char c) { return c >= '0' && c <= '9'; });
    checkEqual("being digits of the stored form", text, digits, true);
    checkEqual("the beginning of the stored form", text, stored->starts_with(codes.internationalAccess), true);
    std::string const number = stored->substr(codes.internationalAccess.size());
    checkEqual("having a number in the stored form", text, number.empty(), false);
    checkEqual("the stored form, read again", *stored, storedForm(form, *stored).value_or("-"), *stored);
    if (number.starts_with('0')) // as dialled or stored; no country code begins so
        return;
    for (std::string const& again :
         {"+" + number, "tel:+" + number + ";ext=1", "sips:%2b" + number + "@host", "sips:+" + number + ";npdi;rn=+1@h",
          "sip:" + number.substr(1) + ";phone-context=+" + number[0] + "@h", "<tel:+" + number + ">;tag=1",
          "\"\\\"<\" <sip:+" + number + "@h>",
          "sip:" + number.substr(1) + ";phone-context=+" + number[0] + "@h;user=phone"})
        if (!again.starts_with("sip:") || (number.size() > 1 && codes.country != number.substr(0, 1)))
            checkEqual("the stored form, read again", again, storedForm(form, again).value_or("-"), *stored);
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::vector<std::string> const lines = npfuzz::linesOf(npfuzz::textOf(data, size));
    if (lines.empty() || lines[0].empty())
        return 0;
    DiallingCodes const& codes = CODES[static_cast<unsigned char>(lines[0][0]) % CODES.size()];
    NumberForm const form(codes, [&codes](BAS::String& number) { normalise(codes, number); });
    for (std::size_t i = 1; i < lines.size(); ++i)
        check(form, codes, lines[i]);
    return 0;
}
