#include "host/fields/FieldOptions.h"

#include "host/fields/Numbers.h"

namespace nphost {

Option addMethod(Arguments& arguments, std::optional<unsigned int>& place) {
    // The name is one of those below: the parser has looked before it calls.
    auto const take = [&place](std::string const& name) { place = searchMethodOf(name); };
    return arguments.read("--method", "METHOD", take, "best, exact or shortest; default: as configured")
        .among({"best", "exact", "shortest"});
}

Option addInstant(Arguments& arguments, std::string const& name, std::optional<std::string>& place,
                  std::string const& what) {
    return arguments.add(name, "INSTANT", place, what + "YYYYMMDDHHMMSS, or YYYY-MM-DDTHH:MM:SS[+HH:MM]; default: now");
}

void addTimeForm(Arguments& arguments, std::string& format, std::optional<std::string>& zone) {
    arguments.add("--time-format", "TIME", format, "digits, iso, seconds, milliseconds or a pattern; default: digits");
    arguments.add("--zone", "ZONE", zone,
                  "The time zone of the data, Europe/Paris; default: dataZone of [host], or UTC");
}

Option addNormalise(Arguments& arguments, bool& place, std::string const& needs) {
    return arguments.flag("--normalise", place,
                          "Take numbers in any form: national, +44..., tel: and sip: URIs" + needs);
}

} // namespace nphost
