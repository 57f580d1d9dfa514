// One line of a data file: three fields, number normalised, record inserted; what is wrong with it is reported.
#include "cache/CacheManager.h"
#include "cache/OwnerServices.h"

namespace DAT::NumberPortability {

namespace {

constexpr std::size_t fields = 3; // number, valid-from, network

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

LineOutcome CacheManager::insertLine(NumberPortabilityTree& tree, BAS::String const& line, unsigned long number,
                                     bool ordered, STR::FileIoTurbo& reader) {
    RWTValOrderedVector<BAS::String> words;
    std::size_t const found = line.split(words, fields); // a line of millions of words must not cost memory for each
    if (found != numberOfColumnsM || found < fields)
        return rejectFields(found, line, number, reader);
    for (std::size_t i = 0; i < words.length(); ++i)
        words[i].strip(' ');
    BAS::String& telephoneNumber = words[0];
    normalize(telephoneNumber);

    NumberPortabilityData const record(BAS::DateTime(words[1]), BAS::SimpleString(words[2].data()));
    if (record.validFromM.seconds() >= BAS::DateTime::invalidSecsCM)
        return reject(LineOutcome::INVALID_DATE_TIME, words[1], telephoneNumber, number, reader);
    if (!tree.isStorable(telephoneNumber))
        return reject(LineOutcome::INVALID_NUMBER, telephoneNumber, words[1], number, reader);
    if (record.networkIdM.view().size() != words[2].length())
        return reject(LineOutcome::INVALID_NETWORK_ID, words[2], telephoneNumber, number, reader);
    if (!tree.insert(telephoneNumber, record, ordered))
        return reject(LineOutcome::DUPLICATE, telephoneNumber, record.validFromM.asString("%Y%m%d%H%M%S"), number,
                      reader);
    return LineOutcome::INSERTED;
}

LineOutcome CacheManager::rejectFields(std::size_t found, BAS::String const& line, unsigned long number,
                                       STR::FileIoTurbo const& reader) {
    OwnerServices::report(*plugInM, identifierOf(LineOutcome::WRONG_FIELD_COUNT), BAS::Status::WARNING,
                          BAS::Status::Arguments{BAS::String::convert(found), BAS::String::convert(numberOfColumnsM),
                                                 line, atLine("At Line# ", number, reader)});
    return LineOutcome::WRONG_FIELD_COUNT;
}

LineOutcome CacheManager::reject(LineOutcome outcome, BAS::String const& detail, BAS::String const& moreDetail,
                                 unsigned long number, STR::FileIoTurbo const& reader) {
    OwnerServices::report(
        *plugInM, identifierOf(outcome), BAS::Status::WARNING,
        BAS::Status::Arguments{atLine("Invalid N-Port Data at Line# ", number, reader), detail, moreDetail});
    return outcome;
}

} // namespace DAT::NumberPortability
