#include "host/config/DiallingCodes.h"

#include "host/config/Configuration.h"

namespace nphost {

DiallingCodes diallingCodesOf(Configuration const& configuration) {
    // The defaults of the access code and its sign are the plug-in's own; without the two others it does not start.
    auto const value = [&configuration](char const* key, char const* otherwise) {
        return configuration.plugInValue(key).value_or(otherwise);
    };
    return {value("CountryCode", ""), value("NationalAccessCode", ""), value("InternationalAccessCode", "00"),
            value("InternationalAccessCodeSign", "+")};
}

} // namespace nphost
