#include "cache/LineReporter.h"

#include "cache/OwnerServices.h"

namespace DAT::NumberPortability {

namespace {
constexpr char const* invalidAtLine = "Invalid N-Port Data at Line# ";
} // namespace

// Each identifier has arguments, and an order of them, of its own: operators' tools read them by position.
void LineReporter::report(LineFault const& fault, std::string_view line, unsigned long number) const {
    BAS::String const validFrom(fault.validFrom.of(line));
    // Rewritten here and not kept by the parser: a rejected line then costs nothing that a report may never need.
    auto const stored = [&] {
        std::string room;
        return BAS::String(codesM.storedForm(fault.number.of(line), room));
    };
    switch (fault.outcome) {
    case LineOutcome::WRONG_FIELD_COUNT:
        make("ERR_NUMBER_OF_FIELDS_IN_RECORD", {BAS::String::convert(fault.found), BAS::String::convert(fault.wanted),
                                                BAS::String(line), at("At Line# ", number)});
        break;
    case LineOutcome::INVALID_DATE_TIME:
        make("ERR_INVALID_DATETIME", {at(invalidAtLine, number), validFrom, stored()});
        break;
    case LineOutcome::INVALID_NUMBER:
        make("ERR_INVALID_NUMBER", {at(invalidAtLine, number), stored(), validFrom});
        break;
    case LineOutcome::INVALID_NETWORK_ID:
        make("ERR_INVALID_NETWORK_ID", {at(invalidAtLine, number), BAS::String(fault.network.of(line)), stored()});
        break;
    case LineOutcome::DUPLICATE: // not to be seen of the line alone
    case LineOutcome::INSERTED:
        break;
    }
}

// The tree tells it, not the line: the first record of a number and an instant stays, whatever its network.
void LineReporter::reportDuplicate(std::string_view storedNumber, BAS::DateTime validFrom, unsigned long number) const {
    make("ERR_DUPLICATE_NUMPORTDATA",
         {at(invalidAtLine, number), BAS::String(storedNumber), validFrom.asString("%Y%m%d%H%M%S")});
}

void LineReporter::make(char const* identifier, BAS::Status::Arguments const& arguments) const {
    OwnerServices::report(plugInM, identifier, BAS::Status::WARNING, arguments);
}

BAS::String LineReporter::at(char const* prefix, unsigned long number) const {
    return BAS::String(prefix) + BAS::String::convert(number) + " in File '" + readerM.fileName() + "'. ";
}

} // namespace DAT::NumberPortability
