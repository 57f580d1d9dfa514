// nphost::NumberForm: brings numbers of foreign files into stored form.
//
// Purpose: feeds and call records write numbers in many forms; the data know one: international access code,
// country code, national number. Which form a text has shows by itself:
//   tel:...            RFC 3966, RFC 4694
//   sip:..., sips:...  RFC 3261: the user part as in tel:, with user=phone, or if it reads as a number by itself:
//                      digits and visual separators without blanks, behind a plus or not, parameters behind ';'
//   name-addr          RFC 3261, section 20.10: "Bob" <sip:...>;tag=1; what is between the angle brackets, as above
//   anything else      a number as people write it, with an extension behind ("ext. 5", "x5"), which is dropped
// Blanks, tabs, '-', '.', '/', '(' and ')' are visual separators, and so are Unicode's blanks and dashes; its digits
// and its invisible marks are read as host/fields/NumberText.h says. Percent escapes of URIs are undone; parameters but
// phone-context (extensions, routing numbers), passwords and headers are passed over. The rules, by the configured
// dialling codes:
// - '+', or the configured sign, begins a global number: access code and its digits.
// - "(0)" after the own country's code, with the national access code for the 0, is left out, in URIs too.
// - What begins otherwise is dialled in the own country: the module's rules of normalisation, docs/data-format.md.
// - phone-context=+DIGITS supplies the country code: access code, DIGITS and the local number as it stands. But a local
//   number that begins with the own national or international access code, in a context that begins with the own
//   country code, is dialled in the own country: its codes are replaced as above. Other countries' national access
//   codes are not known and stay.
// - phone-context=DOMAIN, or none, says nothing: the number is dialled in the own country.
// A text without a digit holds no number: empty, "anonymous"; of a sip: address only the user part is asked. A text
// with one that is no number cannot be read: it has letters, '*' or '#' in it, nothing behind an access code, or, with
// a blank or a slash, more digits than a number can have. Told apart, because they would be read as other numbers:
// - "447700900123.0", in an address or brackets too: a spreadsheet took the number for a quantity, and the last 0 is no
//   digit of it;
// - a plus before a 0, "+07700 900123": no country code begins with 0 (ITU-T E.164).
// Ownership: owns its codes; what the normalisation refers to must outlive it.
// Threads: none inside; concurrent use is safe if the normalisation is.
// Errors: std::bad_alloc.
// Complexity: linear in the text.
#pragma once

#include "framework/BAS/String.h"
#include "host/config/DiallingCodes.h"

#include <functional>
#include <string>
#include <string_view>

namespace nphost {

// What a text is. Only of a NUMBER does the function that tells leave something in its `out`.
enum class NumberKind { NUMBER, NONE, UNREADABLE, DECIMAL, NO_COUNTRY };

// A number whose form is to stay: its visual separators go, and digits that may follow a plus must be left.
NumberKind readPlainNumber(std::string_view text, BAS::String& out);

class NumberForm {
  public:
    // What the module does with numbers by the same codes: LoadedPlugIn::normalize.
    using Normalise = std::function<void(BAS::String& number)>;

    NumberForm(DiallingCodes codes, Normalise normalise);

    NumberKind toStored(std::string_view text, BAS::String& out) const;

    // Whether the digits begin with the international access code's, as those of numbers in stored form do.
    bool beginsAsStored(std::string_view number) const;

  private:
    NumberKind fromAddress(std::string_view text, BAS::String& out) const;
    NumberKind fromSip(std::string_view uri, BAS::String& out) const;
    NumberKind fromSubscriber(std::string_view subscriber, BAS::String& out) const;
    NumberKind fromContext(std::string_view context, std::string_view digits, BAS::String& out) const;
    NumberKind fromWritten(std::string_view text, BAS::String& out) const;
    NumberKind global(std::string_view digits, BAS::String& out) const;
    NumberKind dialled(std::string_view number, BAS::String& out) const;
    std::string_view withoutSign(std::string_view text) const;
    std::string_view withoutAccessCode(std::string_view number) const;
    std::string withoutTrunkCode(std::string_view text, std::string_view head) const;
    std::string digitsOf(std::string_view text) const;

    DiallingCodes codesM;
    Normalise normaliseM;
};

} // namespace nphost
