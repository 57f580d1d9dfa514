#include "cache/CacheManager.h"

namespace DAT::NumberPortability {

void CacheManager::normalize(BAS::String& number) const {
    std::string stored;
    storedForm(number.view(), stored);
    number = BAS::String(std::move(stored));
}

void CacheManager::storedForm(std::string_view number, std::string& stored) const {
    std::size_t removed = 0;
    bool withCountryCode = true;
    if (!number.empty()) {
        if (number.starts_with(internationalAccessCodeSignM.view())) {
            removed = internationalAccessCodeSignM.length();
            withCountryCode = false;
        } else if (number.starts_with(internationalAccessCodeM.view())) {
            stored = number;
            return;
        } else if (number.starts_with(nationalAccessCodeM.view())) {
            removed = nationalAccessCodeM.length();
        }
    }
    stored = internationalAccessCodeM.view();
    if (withCountryCode)
        stored += countryCodeM.view();
    stored += number.substr(removed);
}

} // namespace DAT::NumberPortability
