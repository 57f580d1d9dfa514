// nphost::LoadedModule and LoadedPlugIn: the number-portability module as the host loads and calls it.
//
// Purpose: the host is not linked against the module, so that a module can be exchanged, or be absent, without
// building the host again. It finds the module's table of operations (plugin/Operations.h), and refuses a module that
// has none or one that does not fit. Across the border go C++ objects: host and module must be built with the same
// compiler family and library.
//
// Ownership: LoadedModule owns the mapping: it must outlive every plug-in from it. LoadedPlugIn owns its plug-in;
// destruction shuts it down and deletes it. progress() stays valid as long as the plug-in.
// Threads: construction, init and destruction by one thread; everything else by any.
// Errors: construction throws HostError, in one line. The operations' own errors are in plugin/PlugIn.h.
// Complexity: a call through a pointer more than the plug-in's own.
#pragma once

#include "framework/BAS/InstrumentationProbeGroup.h"
#include "host/base/SharedObject.h"
#include "plugin/Operations.h"

#include <filesystem>
#include <iosfwd>
#include <memory>
#include <span>
#include <vector>

namespace nphost {

class LoadedModule {
  public:
    // A name without a slash is searched for as the system searches for libraries.
    explicit LoadedModule(std::filesystem::path const& file);

    // The folder that the module lies in.
    std::filesystem::path folder() const;

  private:
    friend class LoadedPlugIn;

    using PlugIn = DAT::NumberPortability::PlugIn;
    using Record = DAT::NumberPortability::NumberPortabilityData;
    using Summary = DAT::NumberPortability::DataSummary;
    using Observer = DAT::NumberPortability::RejectObserver;
    using GoOn = DAT::NumberPortability::GoOn;
    using Progress = DAT::NumberPortability::LoadProgress;
    using Prefixes = std::vector<DAT::NumberPortability::StoredPrefix>;
    using ServiceStatus = DAT::NumberPortability::ServiceStatus;
    using LineVisitor = DAT::NumberPortability::LineVisitor;
    using RecordVisitor = DAT::NumberPortability::RecordVisitor;
    using Numbers = std::span<BAS::String const>;
    using Instants = std::span<BAS::DateTime const>;
    using Records = std::span<Record>;
    using Found = std::span<bool>;
    using Details = std::span<DAT::NumberPortability::LookUpDetail>;

    std::filesystem::path fileM;
    SharedObject objectM;
    DAT::NumberPortability::Operations const& operationsM;
};

class LoadedPlugIn {
  public:
    // Calls the module's entry function; isValid() says what became of it.
    LoadedPlugIn(LoadedModule const& module, BAS::String const& name);
    LoadedPlugIn(LoadedPlugIn const&) = delete;
    LoadedPlugIn& operator=(LoadedPlugIn const&) = delete;
    ~LoadedPlugIn();

    bool isValid() const { return plugInM->isValid(); }
    bool init() { return plugInM->init(); }

    bool search(BAS::String const& number, BAS::DateTime const& at, LoadedModule::Record& out);
    bool search(BAS::String const& number, BAS::DateTime const& at, LoadedModule::Record& out, unsigned int method);
    // Many at once.
    bool search(LoadedModule::Numbers numbers, LoadedModule::Instants instants, LoadedModule::Records records,
                LoadedModule::Found found);
    bool search(LoadedModule::Numbers numbers, LoadedModule::Instants instants, LoadedModule::Records records,
                LoadedModule::Found found, unsigned int method);
    bool describe(LoadedModule::Numbers numbers, LoadedModule::Instants instants, LoadedModule::Details details);
    bool describe(LoadedModule::Numbers numbers, LoadedModule::Instants instants, LoadedModule::Details details,
                  unsigned int method);
    void normalize(BAS::String& number) const;
    void print(std::ostream& out, bool header);
    bool examine(BAS::String const& file, LoadedModule::Summary& summary, LoadedModule::Observer const& onReject,
                 LoadedModule::GoOn const& goOn);
    void expectFile(BAS::String const& file, STR::FileVersion const& version);
    void expectAnyFile();
    bool visitFile(BAS::String const& fileName, LoadedModule::LineVisitor const& visit);
    bool visitUpcoming(BAS::DateTime const& after, BAS::DateTime& liveSince, LoadedModule::RecordVisitor const& visit);
    bool carryOut(LoadedModule::PlugIn::ProbeMode mode, BAS::String const& value);
    void stopLoads();
    LoadedModule::Progress const* progress() const;
    LoadedModule::Prefixes explain(BAS::String const& number);
    LoadedModule::ServiceStatus serviceStatus();

    // What registryUpdate returns; `handled` is set when a key was a command.
    bool update(BAS::RegistryEntry const& keys, BAS::ProtectedBool& handled) {
        return plugInM->registryUpdate(&keys, handled);
    }
    // The plug-in as client modules call it: their members come from the module, the host has none of them.
    DAT::NumberPortability::PlugIn& object() { return *objectM; }

    // The plug-in's probes in their order: reload, delta load, print. They live as long as the plug-in.
    std::vector<BAS::InstrumentationProbeAttribute*> probes() const;

  private:
    DAT::NumberPortability::Operations const& operationsM;
    LoadedModule::PlugIn* const objectM;
    std::unique_ptr<PLG::DataPlugIn> plugInM; // the same; deleted by the module, through its virtual destructor
};

} // namespace nphost
