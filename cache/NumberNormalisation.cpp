#include "cache/CacheManager.h"

namespace DAT::NumberPortability {

void CacheManager::normalize(BAS::String& number) const {
    std::size_t removed = 0;
    bool withCountryCode = true;
    if (!number.empty()) {
        if (number.beginsWith(internationalAccessCodeSignM)) {
            removed = internationalAccessCodeSignM.length();
            withCountryCode = false;
        } else if (number.beginsWith(internationalAccessCodeM)) {
            return;
        } else if (number.beginsWith(nationalAccessCodeM)) {
            removed = nationalAccessCodeM.length();
        }
    }
    BAS::String stored = internationalAccessCodeM;
    if (withCountryCode)
        stored += countryCodeM;
    stored += BAS::String(number.view().substr(removed));
    number = std::move(stored);
}

} // namespace DAT::NumberPortability
