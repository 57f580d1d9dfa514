#include "store/NumberPortabilityList.h"

#include <algorithm>
#include <array>
#include <ostream>

namespace DAT::NumberPortability {

namespace {

std::string_view stripped(std::string_view text) {
    std::size_t const first = text.find_first_not_of(' ');
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

inline std::string_view withoutBlanks(std::string_view text) {
    return text.empty() || (text.front() != ' ' && text.back() != ' ') ? text : stripped(text);
}

} // namespace

void NumberPortabilityList::insert(NumberPortabilityData const& record) {
    // A copy: the record may be one of this list's own, which growing replaces.
    NumberPortabilityData added(record);
    recordsM.grow();
    recordsM[recordsM.length() - 1] = std::move(added);
}

bool NumberPortabilityList::insertAt(NumberPortabilityData const& record) {
    std::uint32_t const length = recordsM.length();
    std::uint32_t position = 0;
    while (position < length && recordsM[position].validFromM >= record.validFromM) {
        if (recordsM[position].validFromM == record.validFromM)
            return false;
        ++position;
    }
    // Everything that can fail comes first, so that a failure leaves the list as it was.
    NumberPortabilityData added(record);
    recordsM.grow();
    for (std::uint32_t i = length; i > position; --i)
        recordsM[i] = std::move(recordsM[i - 1]);
    recordsM[position] = std::move(added);
    return true;
}

bool NumberPortabilityList::search(BAS::DateTime const& at, NumberPortabilityData& out) const {
    std::uint32_t const length = recordsM.length();
    for (std::uint32_t i = 0; i < length; ++i) {
        NumberPortabilityData const& record = recordsM[i];
        if (record.validFromM <= at) {
            out = record;
            return true;
        }
    }
    return false;
}

bool NumberPortabilityList::search(BAS::DateTime const& at, NumberPortabilityData& out, BAS::DateTime& next) const {
    std::uint32_t const length = recordsM.length();
    next = BAS::DateTime();
    for (std::uint32_t i = 0; i < length; ++i) {
        NumberPortabilityData const& record = recordsM[i];
        if (record.validFromM <= at) {
            out = record;
            return true;
        }
        next = record.validFromM;
    }
    return false;
}

void NumberPortabilityList::printTree(std::ostream& out, BAS::String const& number) const {
    std::string_view const label = withoutBlanks(number.view());
    std::uint32_t const length = recordsM.length();
    for (std::uint32_t i = 0; i < length; ++i)
        printRecord(out, label, recordsM[i].validFromM, recordsM[i].networkIdM);
}

void printRecord(std::ostream& out, std::string_view number, BAS::DateTime const& validFrom,
                 BAS::SimpleString const& networkId) {
    constexpr std::string_view gap = "  ";
    constexpr std::size_t instantDigits = 14;
    std::string_view const network = withoutBlanks(networkId.view());
    std::array<char, 64> line;
    std::size_t const length = number.size() + instantDigits + network.size() + 2 * gap.size() + 1;
    if (length > line.size() || !validFrom.isValid()) {
        out << number << gap << validFrom << gap << network << std::endl;
        return;
    }
    // Put together first: one write to the stream a line, in place of six.
    char* to = line.data();
    auto const put = [&to](std::string_view text) { to = std::copy(text.begin(), text.end(), to); };
    put(number);
    put(gap);
    validFrom.toDigits(to);
    to += instantDigits;
    put(gap);
    put(network);
    put("\n");
    std::ostream::sentry const ready(out);
    if (!ready)
        return;
    auto const size = static_cast<std::streamsize>(length);
    if (out.rdbuf()->sputn(line.data(), size) != size || out.rdbuf()->pubsync() < 0)
        out.setstate(std::ios_base::badbit);
}

} // namespace DAT::NumberPortability
