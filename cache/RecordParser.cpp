// One line of a data file: three fields, number normalised.
#include "cache/RecordParser.h"

#include <algorithm>

namespace DAT::NumberPortability {

ParsedLine RecordParser::parse(std::string_view line) {
    ParsedLine parsed;
    parsed.line = line;
    parsed.found = BAS::String::splitViews(line, parsed.words);
    // A column count that is too small for a record is not what a line of so many words lacks.
    parsed.wanted = parsed.found == columnsM ? parsed.words.size() : columnsM;
    if (parsed.found == columnsM && parsed.found >= parsed.words.size())
        parsed.outcome = takeRecord(parsed);
    return parsed;
}

// A line with several faults has the first of them by this order, which its report and its count go by.
LineOutcome RecordParser::takeRecord(ParsedLine& parsed) {
    auto const& [number, validFrom, network] = parsed.words; // words have no blanks around them to strip
    parsed.validFrom = BAS::DateTime(validFrom);
    if (!parsed.validFrom.isValid())
        return LineOutcome::INVALID_DATE_TIME;
    std::string_view rest = parsed.number = codesM.storedForm(number, numberM);
    PBC::Digits key;
    key.appendDecimal(rest);
    parsed.key = key;
    // The trie would keep it at its root, as a prefix of every number.
    if (key.empty())
        return LineOutcome::INVALID_NUMBER;
    // The identifier is a NUL-terminated text: cut off, it would be another network's.
    if (network.find('\0') != std::string_view::npos)
        return LineOutcome::INVALID_NETWORK_ID;
    // Asked of the field and not of the stored form, which has the codes' digits in any case.
    parsed.hasDigit = std::any_of(number.begin(), number.end(), PBC::Digits::isDecimal);
    return LineOutcome::INSERTED;
}

} // namespace DAT::NumberPortability
