#include "host/daemon/ControlProtocol.h"

#include "host/base/Text.h"

#include <nlohmann/json.hpp>
#include <utility>

namespace nphost {

std::string lineOf(nlohmann::json object) {
    object["version"] = protocolVersionCM;
    // One line, since a newline ends the message: the library escapes those in texts.
    return object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string errorLine(std::string const& reason, bool tooLong) {
    // A reason may quote the request, which may hold anything.
    nlohmann::json refusal = {{"ok", false}, {"error", visible(reason)}};
    if (tooLong)
        refusal["tooLong"] = true;
    return lineOf(std::move(refusal));
}

} // namespace nphost
