// The characters of numbers as people, editors and spreadsheets write them.
//
// Purpose: what a text that holds a telephone number may have in it that is neither digit nor ASCII separator, and what
// may follow the number. host/fields/NumberForm.h says what becomes of the rest.
// Ownership: results refer to the text or to the caller's place.
// Threads: no state.
// Errors: std::bad_alloc.
// Complexity: linear in the text; a text of ASCII is looked at and not copied.
#pragma once

#include <string>
#include <string_view>

namespace nphost {

// The text in ASCII, as far as that says the same: Unicode's blanks become blanks, its dashes '-', full-width forms
// what they are forms of, Arabic-Indic digits digits. Soft hyphens, marks of direction and characters without a width
// go. All else, UTF-8 or not, stays.
std::string_view plainNumberText(std::string_view text, std::string& place);

// The text without an extension at its end: "ext", "extn", "extension" or ";ext=" and up to seven digits, or one 'x'
// and up to five, in any case. More x are digits that somebody has hidden, and no extension.
std::string_view withoutExtension(std::string_view text);

// Whether an ASCII digit is in it.
bool hasDigit(std::string_view text);

// Digits, behind a plus or not, with a decimal point and one or two zeros behind: a spreadsheet's way to write what it
// took for a quantity. Blanks and parentheses may stand around it.
bool isDecimal(std::string_view text);

} // namespace nphost
