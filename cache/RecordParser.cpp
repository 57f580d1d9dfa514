// One line of a data file: three fields, number normalised, record inserted; what is wrong with it is reported.
#include "cache/CacheManager.h"
#include "cache/OwnerServices.h"

#include <algorithm>

namespace DAT::NumberPortability {

namespace {

BAS::String atLine(char const* prefix, unsigned long number, STR::FileIoTurbo const& reader) {
    return BAS::String(prefix) + BAS::String::convert(number) + " in File '" + reader.fileName() + "'. ";
}

char const* identifierOf(LineOutcome outcome) {
    switch (outcome) {
    case LineOutcome::INVALID_DATE_TIME:
        return "ERR_INVALID_DATETIME";
    case LineOutcome::INVALID_NUMBER:
        return "ERR_INVALID_NUMBER";
    case LineOutcome::INVALID_NETWORK_ID:
        return "ERR_INVALID_NETWORK_ID";
    case LineOutcome::DUPLICATE:
        return "ERR_DUPLICATE_NUMPORTDATA";
    case LineOutcome::WRONG_FIELD_COUNT:
        return "ERR_NUMBER_OF_FIELDS_IN_RECORD";
    case LineOutcome::INSERTED:
        break;
    }
    return "";
}

} // namespace

bool CacheManager::insertCache(NumberPortabilityTree* tree, BAS::String const& line, unsigned long number, bool ordered,
                               STR::FileIoTurbo& reader) {
    ParsedLine parsed;
    LineOutcome outcome = parse(line.view(), parsed);
    if (outcome == LineOutcome::INSERTED && !tree->insert(BAS::String(parsed.number), parsed.record, ordered))
        outcome = LineOutcome::DUPLICATE;
    if (outcome != LineOutcome::INSERTED)
        reportLine(outcome, line.view(), number, reader);
    return outcome == LineOutcome::INSERTED || outcome == LineOutcome::DUPLICATE;
}

LineOutcome CacheManager::parse(std::string_view line, ParsedLine& parsed) const {
    parsed.found = BAS::String::splitViews(line, parsed.words);
    if (parsed.found != numberOfColumnsM || parsed.found < parsed.words.size())
        return LineOutcome::WRONG_FIELD_COUNT;
    auto const& [number, validFrom, network] = parsed.words; // words have no blanks around them to strip
    storedForm(number, parsed.number);
    parsed.hasDigit = std::any_of(number.begin(), number.end(), PBC::Digits::isDecimal);
    parsed.record.validFromM = BAS::DateTime(validFrom);
    if (!parsed.record.validFromM.isValid())
        return LineOutcome::INVALID_DATE_TIME;
    std::string_view rest = parsed.number;
    parsed.key = {};
    parsed.key.appendDecimal(rest);
    parsed.isLong = std::any_of(rest.begin(), rest.end(), PBC::Digits::isDecimal);
    if (parsed.key.empty())
        return LineOutcome::INVALID_NUMBER;
    if (network.find('\0') != std::string_view::npos)
        return LineOutcome::INVALID_NETWORK_ID;
    parsed.record.networkIdM = BAS::SimpleString(network);
    return LineOutcome::INSERTED;
}

// A column count that is too small for a record is not what a line of so many words lacks.
unsigned long CacheManager::expectedFields(std::size_t found) const {
    return found == numberOfColumnsM ? std::tuple_size_v<decltype(ParsedLine::words)> : numberOfColumnsM;
}

void CacheManager::reportLine(LineOutcome outcome, std::string_view line, unsigned long number,
                              STR::FileIoTurbo const& reader) {
    ParsedLine parsed;
    parse(line, parsed);
    BAS::Status::Arguments arguments;
    BAS::String const place = atLine("Invalid N-Port Data at Line# ", number, reader);
    auto const& [numberWord, validFrom, network] = parsed.words;
    switch (outcome) {
    case LineOutcome::WRONG_FIELD_COUNT:
        arguments = {BAS::String::convert(parsed.found), BAS::String::convert(expectedFields(parsed.found)),
                     BAS::String(line), atLine("At Line# ", number, reader)};
        break;
    case LineOutcome::INVALID_DATE_TIME:
        arguments = {place, BAS::String(validFrom), BAS::String(parsed.number)};
        break;
    case LineOutcome::INVALID_NUMBER:
        arguments = {place, BAS::String(parsed.number), BAS::String(validFrom)};
        break;
    case LineOutcome::INVALID_NETWORK_ID:
        arguments = {place, BAS::String(network), BAS::String(parsed.number)};
        break;
    case LineOutcome::DUPLICATE:
        arguments = {place, BAS::String(parsed.number), parsed.record.validFromM.asString("%Y%m%d%H%M%S")};
        break;
    case LineOutcome::INSERTED:
        return;
    }
    OwnerServices::report(*plugInM, identifierOf(outcome), BAS::Status::WARNING, arguments);
}

} // namespace DAT::NumberPortability
