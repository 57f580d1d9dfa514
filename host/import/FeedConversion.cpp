#include "host/import/FeedConversion.h"

#include "host/base/Instant.h"
#include "host/base/Text.h"

#include <utility>

namespace nphost {

namespace {

struct Words {
    char const* name;
    char const* sentence;
};
// In the order of Refusal. The names stand in files of rejects, which programs read: they stay.
constexpr std::array<Words, refusalsCM> wordsCM = {{
    {"field-count", "the record has more or fewer fields than the first"},
    {"broken-quotes", "the quotation marks do not match"},
    {"long-record", "the record is longer than a megabyte"},
    {"no-number", "there is no number"},
    {"unreadable-number", "the number cannot be read"},
    {"decimal-number", "the number has a decimal point, as spreadsheets write quantities"},
    {"no-country-code", "a 0 follows the plus, and no country code begins with 0"},
    {"not-digits", "the number has more than digits, and --normalise is not given"},
    {"long-number", "the number is too long"},
    {"bad-time", "the time cannot be read"},
    {"no-network", "there is no network"},
    {"long-network", "the network's name is too long"},
    {"control-character", "the network's name has a control character"},
    {"other-network", "the number has a record of another network at this instant"},
}};

// A tab is none: it becomes an underscore, as a blank does.
bool isControl(char c) {
    auto const byte = static_cast<unsigned char>(c);
    return (byte < 0x20 && c != '\t') || byte == 0x7F;
}

} // namespace

char const* nameOf(Refusal refusal) {
    return wordsCM[static_cast<std::size_t>(refusal)].name;
}

char const* sentenceOf(Refusal refusal) {
    return wordsCM[static_cast<std::size_t>(refusal)].sentence;
}

Refusal refusalOf(Problem problem) {
    switch (problem) {
    case Problem::BROKEN_QUOTES:
        return Refusal::BROKEN_QUOTES;
    case Problem::TOO_LONG:
        return Refusal::LONG_RECORD;
    default:
        // The others are of JSON or of enrich: of a feed's records only this one is left.
        return Refusal::FIELD_COUNT;
    }
}

FeedConversion::FeedConversion(TimeReader times, NumberForm const* form) : timesM(std::move(times)), formM(form) {}

FeedConversion::Outcome FeedConversion::convert(std::string_view number, std::string_view validFrom,
                                                std::string_view network, std::string& out) {
    // The first fault is the one that is told.
    if (!readNumber(number))
        return Outcome::REFUSED;
    std::optional<TimeReader::Reading> const time = timesM.read(validFrom);
    if (!time)
        refuse(Refusal::BAD_TIME, validFrom);
    if (!time || !readNetwork(trimmed(network)))
        return Outcome::REFUSED;
    return keep(*time, out);
}

bool FeedConversion::refuse(Refusal refusal, std::string_view subject) {
    refusalM = refusal;
    subjectM = subject;
    return false;
}

bool FeedConversion::readNumber(std::string_view text) {
    switch (formM != nullptr ? formM->toStored(text, numberM) : readPlainNumber(text, numberM)) {
    case NumberKind::NUMBER:
        // The stored form counts: as people write it, a number may be longer.
        return numberM.length() <= longestNumberCM || refuse(Refusal::LONG_NUMBER, text);
    case NumberKind::DECIMAL:
        return refuse(Refusal::DECIMAL_NUMBER, text);
    case NumberKind::NO_COUNTRY:
        return refuse(Refusal::NO_COUNTRY_CODE, text);
    case NumberKind::UNREADABLE:
        return refuse(formM != nullptr ? Refusal::UNREADABLE_NUMBER : Refusal::NOT_DIGITS, text);
    default:
        return refuse(Refusal::NO_NUMBER, text);
    }
}

bool FeedConversion::readNetwork(std::string_view text) {
    if (text.empty())
        return refuse(Refusal::NO_NETWORK, text);
    // A line break would end the data line, and a NUL the identifier.
    if (std::any_of(text.begin(), text.end(), isControl))
        return refuse(Refusal::CONTROL_CHARACTER, text);
    if (text.size() > longestNetworkCM)
        return refuse(Refusal::LONG_NETWORK, text);
    // Last: a name gets its number, and its place, only from a record that has all its parts.
    networkM = networksM.numberOf(text);
    return true;
}

FeedConversion::Outcome FeedConversion::keep(TimeReader::Reading const& time, std::string& out) {
    if (std::optional<std::uint32_t> const other = seenM.insert(numberM.view(), time.instant, networkM)) {
        // Which of the two is right is not for a program to say; the first stays.
        if (*other != networkM) {
            refuse(Refusal::OTHER_NETWORK, networksM.nameOf(*other));
            return Outcome::REFUSED;
        }
        ++countsM.repeated;
        return Outcome::REPEATED;
    }
    ++countsM.converted;
    // Networks of repeated or refused records alone do not count.
    usedM.resize(std::max<std::size_t>(usedM.size(), networkM + 1));
    usedM[networkM] = true;
    countsM.ambiguous += time.doubt == TimeReader::Doubt::AMBIGUOUS ? 1 : 0;
    countsM.impossible += time.doubt == TimeReader::Doubt::IMPOSSIBLE ? 1 : 0;
    append(time.instant, out);
    return Outcome::CONVERTED;
}

// The form of a listing, so that a data file looks the same whoever wrote it.
void FeedConversion::append(BAS::DateTime validFrom, std::string& out) const {
    out += numberM.view();
    out += "  ";
    out += InstantDigits(validFrom).view();
    out += "  ";
    out += networksM.nameOf(networkM);
    out += '\n';
}

} // namespace nphost
