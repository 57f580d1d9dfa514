// DAT::NumberPortability::DiallingCodes: rewrites numbers into stored form by the four configured codes.
//
// Purpose: a number may be written in national form, in international form or bare; all of them must reach one history.
// Stored form is international access code, country code, national number. The first rule that applies decides:
// an empty number becomes international access code and country code; the international sign in front becomes the
// international access code; a number with the international access code in front stays; a national access code in
// front becomes international access code and country code; anything else gets these two in front. An empty code stands
// in front of every number. Nothing else of a number is looked at, and a result is not looked at again.
// Ownership: borrows the codes, which must outlive it and not change. Threads: any, at any time.
// Errors: std::bad_alloc. Complexity: linear in the number.
#pragma once

#include "framework/BAS/String.h"

#include <string>
#include <string_view>

namespace DAT::NumberPortability {

class DiallingCodes {
  public:
    DiallingCodes(BAS::String const& nationalAccessCode, BAS::String const& internationalAccessCode,
                  BAS::String const& countryCode, BAS::String const& internationalAccessCodeSign)
        : nationalAccessCodeM(nationalAccessCode), internationalAccessCodeM(internationalAccessCode),
          countryCodeM(countryCode), internationalAccessCodeSignM(internationalAccessCodeSign) {}

    // The number in stored form: a view of itself where it is in that form already, else of `room`, which then holds
    // it.
    std::string_view storedForm(std::string_view number, std::string& room) const;

  private:
    BAS::String const& nationalAccessCodeM;
    BAS::String const& internationalAccessCodeM;
    BAS::String const& countryCodeM;
    BAS::String const& internationalAccessCodeSignM;
};

} // namespace DAT::NumberPortability
