#include "host/Numbers.h"

#include "host/LoadedModule.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace nphost {

namespace {

constexpr std::array<char const*, searchMethodsCM> methodsCM = {"best", "exact", "shortest"};

} // namespace

bool hasDigit(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

void readNumber(std::string_view number, bool normalise, LoadedPlugIn const& plugIn, BAS::String& out) {
    if (!normalise)
        return out.assign(number.data(), number.size());
    std::string stripped;
    std::copy_if(number.begin(), number.end(), std::back_inserter(stripped),
                 [](char c) { return std::string_view(" -.()").find(c) == std::string_view::npos; });
    out.assign(stripped.data(), stripped.size());
    plugIn.normalize(out);
}

std::optional<unsigned int> searchMethodOf(std::string_view name) {
    auto const* const found = std::find(methodsCM.begin(), methodsCM.end(), name);
    return found == methodsCM.end() ? std::nullopt
                                    : std::optional(static_cast<unsigned int>(found - methodsCM.begin()));
}

char const* nameOfSearchMethod(unsigned int method) {
    return methodsCM[std::min<std::size_t>(method, methodsCM.size() - 1)];
}

} // namespace nphost
