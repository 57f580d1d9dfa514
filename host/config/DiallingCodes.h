// nphost::DiallingCodes: the codes with which numbers are dialled from and in the own country.
//
// Purpose: what the configuration says of them, for whoever reads numbers as the module does.
// Threads: a value. Errors: std::bad_alloc. Complexity: constant.
#pragma once

#include <string>

namespace nphost {

class Configuration;

struct DiallingCodes {
    std::string country;
    std::string nationalAccess;
    std::string internationalAccess;
    std::string sign; // stands for the international access code
};

// As the module takes them: those that are not configured have its defaults.
DiallingCodes diallingCodesOf(Configuration const& configuration);

} // namespace nphost
