// DAT::NumberPortability::Operations: the one place where a host that loads the module and the module meet.
//
// Purpose: a host is not linked against the module. It finds NumberPortabilityOperations by that name, which gives a
// table of functions: one that makes a plug-in, and one for each operation of it that is no virtual operation of the
// framework's. The table begins with its version and its size, and with the sizes of the objects that cross the border,
// as the module was built: a host that was built otherwise must not call anything (misfit says why), since what it
// would pass and what the module would take were different things.
// Ownership: the table is the module's and lives as long as its mapping. The plug-in that create makes is the caller's,
// who deletes it by its virtual destructor before the module is unloaded.
// Threads, errors and complexity: those of the operations, which plugin/PlugIn.h tells; create is null when no plug-in
// could be made.
//
// Across shared objects: objects of C++ cross, so host and module must be built with the same compiler family and
// standard library. Whoever changes a function here, what it means, or the layout of what it passes raises the version.
#pragma once

#include "plugin/PlugIn.h"

#include <array>
#include <cstdint>
#include <string>

namespace DAT::NumberPortability {

constexpr std::uint32_t operationsVersionCM = 4;

// Of what crosses the border, by the table's functions or by the framework's virtual operations, in the order of their
// names: a change of one is found even if the version was forgotten.
constexpr std::array<std::uint32_t, 17> crossingSizesCM = {sizeof(BAS::DateTime),
                                                           sizeof(BAS::InstrumentationProbeAttribute),
                                                           sizeof(BAS::InstrumentationProbeGroup),
                                                           sizeof(BAS::Message),
                                                           sizeof(BAS::ProtectedBool),
                                                           sizeof(BAS::RegistryEntry),
                                                           sizeof(BAS::Status),
                                                           sizeof(BAS::String),
                                                           sizeof(DataSummary),
                                                           sizeof(FileLine),
                                                           sizeof(LoadProgress),
                                                           sizeof(LookUpDetail),
                                                           sizeof(NumberPortabilityData),
                                                           sizeof(PLG::DataPlugIn),
                                                           sizeof(STR::FileVersion),
                                                           sizeof(ServiceStatus),
                                                           sizeof(StoredPrefix)};

struct Operations {
    // In this order and of these types in every version.
    std::uint32_t version = operationsVersionCM;
    std::uint32_t size = sizeof(Operations);
    std::array<std::uint32_t, crossingSizesCM.size()> crossingSizes = crossingSizesCM;

    PlugIn* (*create)(BAS::String const& name);
    bool (*search)(PlugIn&, BAS::String const&, BAS::DateTime const&, NumberPortabilityData&);
    bool (*searchBy)(PlugIn&, BAS::String const&, BAS::DateTime const&, NumberPortabilityData&, unsigned int method);
    bool (*searchMany)(PlugIn&, std::span<BAS::String const>, std::span<BAS::DateTime const>,
                       std::span<NumberPortabilityData>, std::span<bool>);
    bool (*searchManyBy)(PlugIn&, std::span<BAS::String const>, std::span<BAS::DateTime const>,
                         std::span<NumberPortabilityData>, std::span<bool>, unsigned int method);
    bool (*describeMany)(PlugIn&, std::span<BAS::String const>, std::span<BAS::DateTime const>,
                         std::span<LookUpDetail>);
    bool (*describeManyBy)(PlugIn&, std::span<BAS::String const>, std::span<BAS::DateTime const>,
                           std::span<LookUpDetail>, unsigned int method);
    void (*normalize)(PlugIn const&, BAS::String&);
    void (*print)(PlugIn&, std::ostream&, bool header);
    bool (*examine)(PlugIn&, BAS::String const&, DataSummary&, RejectObserver const&, GoOn const&);
    void (*expectFile)(PlugIn&, BAS::String const&, STR::FileVersion const&);
    void (*expectAnyFile)(PlugIn&);
    bool (*visitFile)(PlugIn&, BAS::String const&, LineVisitor const&);
    bool (*visitUpcoming)(PlugIn&, BAS::DateTime const& after, BAS::DateTime& liveSince, RecordVisitor const&);
    bool (*carryOut)(PlugIn&, PlugIn::ProbeMode, BAS::String const& value);
    void (*stopLoads)(PlugIn&);
    std::vector<StoredPrefix> (*explain)(PlugIn&, BAS::String const&);
    ServiceStatus (*serviceStatus)(PlugIn&);
    LoadProgress const* (*progress)(PlugIn const&);
};

// What keeps a host that was built with this header from calling the table's functions: a part of a sentence; empty
// when nothing does.
inline std::string misfit(Operations const& table) {
    if (table.version != operationsVersionCM)
        return "it is of version " + std::to_string(table.version) + " of the operations, not " +
               std::to_string(operationsVersionCM);
    if (table.size != sizeof(Operations) || table.crossingSizes != crossingSizesCM)
        return "its objects have other sizes";
    return {};
}

} // namespace DAT::NumberPortability

extern "C" DAT::NumberPortability::Operations const* NumberPortabilityOperations();
