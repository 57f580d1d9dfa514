// nphost::Host: the framework around one plug-in: registry, log, root object, event handler, module.
//
// Purpose: what every command needs. Construction brings up the framework, loads the module and makes the plug-in;
// start loads the data; destruction shuts the plug-in down, deletes it, unloads the module and takes the framework
// down, in this order, also when a step fails.
// Ownership: owns all of it. There is one host in a process at a time, since the framework's names are process-wide.
// Threads: one thread at a time; loadProgress by any. What it lends is used as its own header says.
// Errors: HostError or ConfigurationError, in one line; std::bad_alloc.
// Complexity: that of the plug-in's steps.
#pragma once

#include "host/base/ProgressLine.h"
#include "host/config/CommonOptions.h"
#include "host/fields/NumberForm.h"
#include "host/log/Log.h"
#include "host/module/FrameworkObjects.h"
#include "host/module/HostSettings.h"
#include "host/module/LoadedModule.h"

#include <filesystem>

namespace nphost {

class Host {
  public:
    // The configuration was read from the file that the options name, and may have been changed since.
    Host(Configuration configuration, CommonOptions const& options);
    // The same with a log that is not a short command's.
    Host(Configuration configuration, CommonOptions const& options, LogSettings const& log);
    Host(Host const&) = delete;
    Host& operator=(Host const&) = delete;

    // Loads the data. Reports of rejected lines that were not shown are summed up in one line.
    void start();

    Configuration const& configuration() const { return configurationM; }
    // The folder that the module lies in.
    std::filesystem::path moduleFolder() const { return moduleM.folder(); }
    LoadedPlugIn& plugIn() { return plugInM; }
    Log& log() { return logM; }

    // What brings numbers into stored form by the configured dialling codes.
    NumberForm const& numbers() const { return numbersM; }

    // How far the present load or examination has come.
    ProgressLine::Reading loadProgress() const;

    // Throws what the log holds as the first failure, if there is one; also when a command seems to have
    // succeeded.
    void throwFailure() const;
    // The same, or `otherwise` when the log knows nothing.
    [[noreturn]] void fail(char const* otherwise) const;

  private:
    // Lends the registry to the framework.
    class InstalledRegistry {
      public:
        explicit InstalledRegistry(BAS::RegistryEntry const& root) { BAS::RegisteredObject::installRegistry(&root); }
        InstalledRegistry(InstalledRegistry const&) = delete;
        InstalledRegistry& operator=(InstalledRegistry const&) = delete;
        ~InstalledRegistry() { BAS::RegisteredObject::installRegistry(nullptr); }
    };

    LoadedModule const& withProbes(LoadedModule const& module) const;

    // The order is that of the life cycle; destruction runs it backwards.
    Configuration configurationM;
    HostSettings settingsM;
    std::filesystem::path configurationFileM;
    MessageCatalogue catalogueM;
    Log logM;
    EventHandler eventHandlerM;
    RootObject rootM;
    InstalledRegistry registryM;
    LoadedModule moduleM;
    LoadedPlugIn plugInM;
    NumberForm numbersM;
};

} // namespace nphost
