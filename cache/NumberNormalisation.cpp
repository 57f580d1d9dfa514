#include "cache/CacheManager.h"
#include "cache/DiallingCodes.h"

namespace DAT::NumberPortability {

// The sign is asked for before the codes, and the international code before the national one: where one code begins
// with another, as 00 with 0, the other order would take an international number for a national one.
std::string_view DiallingCodes::storedForm(std::string_view number, std::string& room) const {
    std::size_t removed = 0;
    bool withCountryCode = true;
    if (!number.empty()) {
        if (number.starts_with(internationalAccessCodeSignM.view())) {
            removed = internationalAccessCodeSignM.length();
            withCountryCode = false;
        } else if (number.starts_with(internationalAccessCodeM.view())) {
            return number;
        } else if (number.starts_with(nationalAccessCodeM.view())) {
            removed = nationalAccessCodeM.length();
        }
    }
    room = internationalAccessCodeM.view();
    if (withCountryCode)
        room += countryCodeM.view();
    room += number.substr(removed);
    return room;
}

// The number changes last: when memory lacks it is as it was.
void CacheManager::normalize(BAS::String& number) const {
    std::string room;
    if (codes().storedForm(number.view(), room).data() != number.data())
        number = BAS::String(std::move(room));
}

} // namespace DAT::NumberPortability
