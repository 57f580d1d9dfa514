#include "host/daemon/ClientModules.h"

#include "host/base/HostError.h"
#include "host/log/OwnReport.h"
#include "plugin/PlugInClient.h"

#include <exception>
#include <string>
#include <string_view>

namespace nphost {

namespace {

using Start = decltype(NumberPortabilityClientStart);

// The system's loader begins its reasons with the file, as the report does.
void complainOf(std::filesystem::path const& client, std::string_view reason) {
    std::string const file = client.native() + ": ";
    if (reason.starts_with(file))
        reason.remove_prefix(file.size());
    reportOwn("ERR_HOST_CLIENT", BAS::Status::MAJOR, {BAS::String(client.native()), BAS::String(reason)});
}

// Clients are other people's code: whatever they throw ends here.
template <class Action>
void guarded(std::filesystem::path const& client, Action&& action) noexcept {
    try {
        try {
            action();
        } catch (std::exception const& error) {
            complainOf(client, error.what());
        } catch (...) {
            complainOf(client, "it threw something that is no exception of the standard library's");
        }
    } catch (...) { // NOLINT(bugprone-empty-catch): not even the report could be made
    }
}

} // namespace

ClientModules::ClientModules(std::vector<std::filesystem::path> const& files, LoadedPlugIn& plugIn) {
    // Before any of them is loaded: no client is lost, mapped but in no list, for want of a place.
    clientsM.reserve(files.size());
    for (std::filesystem::path const& file : files)
        guarded(file, [&] { start(file, plugIn); });
}

ClientModules::~ClientModules() {
    // One by one, each unloaded before the one is stopped that was started before it: a client may use an earlier one's
    // objects.
    for (; !clientsM.empty(); clientsM.pop_back())
        if (Client const& client = clientsM.back(); client.stop != nullptr)
            guarded(client.file, [&] { client.stop(); });
}

void ClientModules::start(std::filesystem::path const& file, LoadedPlugIn& plugIn) {
    // In the list before it is started: if that fails it stays mapped, for nobody knows what it left behind.
    Client& client = clientsM.emplace_back(Client{file, SharedObject(file), nullptr});
    auto* const startClient = client.object.find<Start>("NumberPortabilityClientStart");
    if (startClient == nullptr)
        throw HostError("it is no client module: it has no NumberPortabilityClientStart");
    if (!startClient(plugIn.object()))
        throw HostError("it refuses to start");
    // Last: one that did not start is not stopped.
    client.stop = client.object.find<Stop>("NumberPortabilityClientStop");
    reportOwn("INF_HOST_CLIENT", BAS::Status::NORMAL, {BAS::String(file.native())});
}

} // namespace nphost
