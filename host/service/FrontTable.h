// nphost::FrontTable: the one place where the program and a front that it loads meet.
//
// Purpose: begins with the program's version, its own size and those of the objects that cross the border, as the front
// was built. What was built otherwise must not be called: what the one passes and the other takes were different things.
// Ownership: the table is the front's and lives as long as its mapping.
// Threads: constant. Errors: none; misfit allocates. Complexity: constant.
#pragma once

#include "host/config/Configuration.h"
#include "host/fields/DataClock.h"
#include "host/fields/NumberForm.h"
#include "host/module/LoadedModule.h"
#include "host/service/Front.h"
#include "host/service/Metrics.h"
#include "host/service/Networks.h"
#include "host/service/Service.h"

#include <array>
#include <cstdint>
#include <string>

namespace nphost {

constexpr std::array<std::uint32_t, 11> frontSizesCM = {sizeof(FrontParts),
                                                        sizeof(Configuration),
                                                        sizeof(DataClock),
                                                        sizeof(LoadedPlugIn),
                                                        sizeof(Metrics),
                                                        sizeof(Networks),
                                                        sizeof(NumberForm),
                                                        sizeof(PassedSocket),
                                                        sizeof(Service),
                                                        sizeof(Standing),
                                                        sizeof(DAT::NumberPortability::LookUpDetail)};

struct FrontTable {
    // In this order and of these types in every version.
    char const* version; // the program's
    std::uint32_t size = sizeof(FrontTable);
    std::array<std::uint32_t, frontSizesCM.size()> sizes = frontSizesCM;

    // Null, and `reason` in one line, when it cannot be made. Nothing is thrown across the border: what is thrown would
    // outlive the code that it belongs to.
    Front* (*make)(FrontParts const& parts, std::string& reason);
    void (*destroy)(Front* front);
};

// What keeps the program of that version from calling the table's functions: a part of a sentence; empty when nothing.
inline std::string misfit(FrontTable const& table, std::string const& version) {
    if (version != table.version)
        return "it is of version " + std::string(table.version) + ", and nphost of version " + version;
    if (table.size != sizeof(FrontTable) || table.sizes != frontSizesCM)
        return "its objects have other sizes: it comes of another build";
    return {};
}

// The exported function's name and type.
constexpr char const* frontFunctionCM = "NumberPortabilityFront";
using FrontFunction = FrontTable const*();

} // namespace nphost
