// nphost::LoadedModule and LoadedPlugIn: the number-portability module as the host loads and calls it.
//
// Purpose: the host is not linked against the module, so that a module can be exchanged, or be absent, without
// building the host again. The framework's binary interface gives the module's entry function and the plug-in's
// virtual operations. What the host wants besides, look-ups, prints and examinations, are ordinary members of the
// plug-in class, which the module exports. This is the one place that knows how to call them: their names are looked
// up as the compiler mangles them, and they are called as the functions that they are under the Itanium C++ ABI on
// x86-64, with the object as the first argument. A module that lacks one does not fit this host and is refused. Across
// the border go C++ objects: host and module must be built with the same compiler family and library.
//
// Ownership: LoadedModule owns the mapping: it must outlive every plug-in from it. LoadedPlugIn owns its plug-in;
// destruction shuts it down and deletes it. progress() stays valid as long as the plug-in.
// Threads: construction, init and destruction by one thread; everything else by any.
// Errors: construction throws HostError, in one line. The operations' own errors are in plugin/PlugIn.h.
// Complexity: a call through a pointer more than the plug-in's own.
#pragma once

#include "cache/DataSummary.h"
#include "cache/LoadProgress.h"
#include "cache/ServiceStatus.h"
#include "framework/BAS/InstrumentationProbeGroup.h"
#include "framework/PLG/DataPlugIn.h"
#include "host/base/SharedObject.h"
#include "plugin/PlugIn.h"
#include "store/NumberPortabilityData.h"

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

    // The plug-in's operations as plain functions; what is const there is so here.
    struct Operations {
        void* (*create)(BAS::String const& name);
        bool (*search)(void*, BAS::String const&, BAS::DateTime const&, Record&);
        bool (*searchBy)(void*, BAS::String const&, BAS::DateTime const&, Record&, unsigned int);
        bool (*searchMany)(void*, Numbers, Instants, Records, Found);
        bool (*searchManyBy)(void*, Numbers, Instants, Records, Found, unsigned int);
        void (*normalize)(void const*, BAS::String&);
        void (*print)(void*, std::ostream&, bool);
        bool (*examine)(void*, BAS::String const&, Summary&, Observer const&, GoOn const&);
        void (*expectFile)(void*, BAS::String const&, STR::FileVersion const&);
        void (*expectAnyFile)(void*);
        bool (*visitFile)(void*, BAS::String const&, LineVisitor const&);
        bool (*visitUpcoming)(void*, BAS::DateTime const&, BAS::DateTime&, RecordVisitor const&);
        bool (*carryOut)(void*, PlugIn::ProbeMode, BAS::String const&);
        void (*stopLoads)(void*);
        Progress const* (*progress)(void const*);
        // The place of a result that has a destructor goes before the object, for a member as for a function.
        Prefixes (*explain)(void*, BAS::String const&);
        ServiceStatus (*serviceStatus)(void*);
    };

    template <class Function>
    void find(Function*& function, char const* symbol) const;

    std::filesystem::path fileM;
    SharedObject objectM;
    Operations operationsM{};
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
    DAT::NumberPortability::PlugIn& object() { return *static_cast<DAT::NumberPortability::PlugIn*>(objectM); }

    // The plug-in's probes in their order: reload, delta load, print. They live as long as the plug-in.
    std::vector<BAS::InstrumentationProbeAttribute*> probes() const;

  private:
    LoadedModule::Operations operationsM;
    std::unique_ptr<PLG::DataPlugIn> plugInM; // deleted by the module, through its virtual destructor
    void* objectM;                            // the same as the plug-in's own class, whose first base it is
};

} // namespace nphost
