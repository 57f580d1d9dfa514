#include "host/http/HttpSettings.h"

#include "host/config/ConfigurationValue.h"

namespace nphost {

void HttpSettings::declare(Section& http, Configuration& configuration) {
    auto& settings = configuration.place<HttpSettings>();
    http.present(settings.isOn);
    http.key("listen", [&settings](ConfigurationValue const& value) {
        settings.listen = value.texts();
        for (std::string& place : settings.listen)
            if (std::string_view const unixSocket = "unix:"; place.starts_with(unixSocket))
                place = unixSocket.data() + (value.folder() / place.substr(unixSocket.size())).native();
    });
    http.number("threads", 1, 64, settings.threads);
    http.file("certificate", settings.certificate);
    http.file("key", settings.key);
    http.file("clientAuthorities", settings.clientAuthorities);
    http.texts("clientScopes", settings.clientScopes);
    http.file("tokens", settings.tokens);
    http.number("maxConnections", 1, 1'000'000, settings.maxConnections);
    http.number("maxConnectionsPerAddress", 1, 1'000'000, settings.maxConnectionsPerAddress);
    http.number("idleSeconds", 1, 86'400, settings.idleSeconds);
    http.number("cacheSeconds", 0, 86'400, settings.cacheSeconds);
    http.number("maxDeltaMiB", 1, 65'536, settings.maxDeltaMiB);
    http.texts("allowOrigins", settings.allowOrigins);
    http.file("accessLog", settings.accessLog);
    http.flag("logNumbers", settings.logNumbers);
    http.module("module", settings.module);
}

} // namespace nphost
