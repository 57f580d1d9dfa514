#include "host/daemon/LoadedFront.h"

#include "host/base/HostError.h"
#include "host/base/Text.h"
#include "host/service/FrontTable.h"

namespace nphost {

namespace {

FrontTable const& tableOf(SharedObject const& object, std::filesystem::path const& file, std::string const& version) {
    auto* const function = object.find<FrontFunction>(frontFunctionCM);
    if (function == nullptr)
        throw HostError(visible(file.native()) + " is no front of nphost");
    FrontTable const& table = *function();
    if (std::string const reason = misfit(table, version); !reason.empty())
        throw HostError(visible(file.native()) + " does not fit this host: " + visible(reason));
    return table;
}

} // namespace

LoadedFront::LoadedFront(std::filesystem::path const& file, FrontParts const& parts)
    : objectM(file), frontM(nullptr, tableOf(objectM, file, parts.version).destroy) {
    std::string reason;
    frontM.reset(tableOf(objectM, file, parts.version).make(parts, reason));
    if (!frontM)
        throw HostError(reason);
}

} // namespace nphost
