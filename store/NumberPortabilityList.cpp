#include "store/NumberPortabilityList.h"

#include <ostream>

namespace DAT::NumberPortability {

namespace {

std::string_view withoutBlanks(std::string_view text) {
    std::size_t const first = text.find_first_not_of(' ');
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
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

void NumberPortabilityList::printTree(std::ostream& out, BAS::String const& number) const {
    std::string_view const label = withoutBlanks(number.view());
    std::uint32_t const length = recordsM.length();
    for (std::uint32_t i = 0; i < length; ++i)
        out << label << "  " << recordsM[i].validFromM.asString("%Y%m%d%H%M%S") << "  "
            << withoutBlanks(recordsM[i].networkIdM.view()) << std::endl;
}

} // namespace DAT::NumberPortability
