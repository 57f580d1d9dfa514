#include "host/module/Host.h"

#include "framework/OMF/InstrumentationProbeBrokerIf.h"
#include "host/base/HostError.h"
#include "host/base/StandardError.h"

#include <string>
#include <utility>

namespace nphost {

namespace {

std::filesystem::path programFolder() {
    std::error_code error;
    std::filesystem::path const program = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error)
        throw HostError("the program's own folder is unknown: " + error.message());
    return program.parent_path();
}

// Both places are seen from the program's folder: the one when it is installed, the other in a build tree.
std::filesystem::path orDefault(std::filesystem::path const& configured, char const* installed, char const* built) {
    if (!configured.empty())
        return configured;
    std::filesystem::path const folder = programFolder();
    std::error_code ignored;
    bool const isBuildTree = std::filesystem::exists(folder / built, ignored);
    return (folder / (isBuildTree ? built : installed)).lexically_normal();
}

} // namespace

Host::Host(Configuration configuration, CommonOptions const& options)
    : Host(std::move(configuration), options, LogSettings{options.verbose}) {}

// The members' order is the life cycle's (Host.h): the log before whatever may report, the registry before the plug-in
// that reads it.
Host::Host(Configuration configuration, CommonOptions const& options, LogSettings const& log)
    : configurationM(std::move(configuration)), settingsM(configurationM.of<HostSettings>()),
      configurationFileM(options.configuration),
      catalogueM(orDefault(settingsM.messages, NP_INSTALLED_MESSAGES, "../share/numberportability/messages.toml")),
      logM(catalogueM, log), rootM(eventHandlerM), registryM(configurationM.registry),
      moduleM(orDefault(settingsM.module, NP_INSTALLED_MODULE, "../lib/DAT_NumberPortability.so")),
      plugInM(withProbes(moduleM), plugInNameCM),
      numbersM(diallingCodesOf(configurationM), [this](BAS::String& number) { plugInM.normalize(number); }) {
    if (!plugInM.isValid())
        fail("the plug-in refuses to start");
}

// The plug-in looks for its probe definitions when it is made.
LoadedModule const& Host::withProbes(LoadedModule const& module) const {
    std::filesystem::path const folder = settingsM.probeFolder.empty() ? module.folder() : settingsM.probeFolder;
    OMF::InstrumentationProbeBrokerIf::installFolder(folder.string());
    return module;
}

void Host::start() {
    bool started = false;
    {
        ProgressLine const progress("nphost: loading", [this] { return loadProgress(); });
        started = plugInM.init();
    }
    // When the progress line has gone, which could else be shown once more beneath.
    if (unsigned long const hidden = logM.hiddenRejects(); hidden > 0)
        complain(std::to_string(hidden) + " more rejected lines are not shown; 'nphost check --all' lists every one");
    if (!started)
        fail("the data could not be loaded");
    throwFailure();
}

ProgressLine::Reading Host::loadProgress() const {
    DAT::NumberPortability::LoadProgress const* const progress = plugInM.progress();
    return {progress->lines(), progress->bytes(), progress->totalBytes()};
}

void Host::throwFailure() const {
    std::optional<Log::Failure> const failure = logM.failure();
    if (!failure)
        return;
    // The registry's faults are the configuration file's: a person mends them there.
    bool const inConfiguration = failure->identifier.starts_with("ERR_REG_");
    throw HostError((inConfiguration ? configurationFileM.string() + ": " : std::string()) + failure->text + " (" +
                    failure->identifier + ")");
}

void Host::fail(char const* otherwise) const {
    throwFailure();
    // Only where no report said more.
    throw HostError(otherwise);
}

} // namespace nphost
