#include "host/ControlProtocol.h"

#include "host/Text.h"

#include <nlohmann/json.hpp>

namespace nphost {

std::string lineOf(nlohmann::json object) {
    object["version"] = protocolVersionCM;
    return object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string errorLine(std::string const& reason) {
    return lineOf({{"ok", false}, {"error", visible(reason)}});
}

} // namespace nphost
