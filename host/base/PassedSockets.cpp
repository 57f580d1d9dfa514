#include "host/base/PassedSockets.h"

#include <charconv>
#include <cstdlib>
#include <fcntl.h>
#include <optional>
#include <string_view>
#include <unistd.h>

namespace nphost {

namespace {

// Taken out, so that no child takes them for its own. Read before there are other threads.
std::optional<std::string> take(char const* name) {
    char const* const text = std::getenv(name); // NOLINT(concurrency-mt-unsafe)
    std::optional<std::string> value;
    if (text != nullptr)
        value = text;
    unsetenv(name); // NOLINT(concurrency-mt-unsafe)
    return value;
}

std::optional<long> numberOf(std::optional<std::string> const& text) {
    long number = 0;
    if (!text)
        return std::nullopt;
    auto const [end, error] = std::from_chars(text->data(), text->data() + text->size(), number);
    return error == std::errc() && end == text->data() + text->size() ? std::optional(number) : std::nullopt;
}

} // namespace

std::vector<PassedSocket> takePassedSockets() {
    constexpr int first = 3;
    constexpr long most = 1024;
    std::optional<long> const process = numberOf(take("LISTEN_PID"));
    std::optional<long> const count = numberOf(take("LISTEN_FDS"));
    std::string const names = take("LISTEN_FDNAMES").value_or(std::string());
    std::vector<PassedSocket> sockets;
    if (process != getpid() || !count || *count < 0 || *count > most)
        return sockets;
    std::string_view rest = names;
    for (int i = 0; i < *count; ++i) {
        std::string_view const name = rest.substr(0, rest.find(':'));
        rest.remove_prefix(name.size() < rest.size() ? name.size() + 1 : rest.size());
        fcntl(first + i, F_SETFD, FD_CLOEXEC);
        sockets.push_back({first + i, std::string(name)});
    }
    return sockets;
}

} // namespace nphost
