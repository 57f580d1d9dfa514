// PLG::DataPlugIn: base of a plug-in that offers data to other modules.
//
// Purpose: a module's entry function returns one, as an untyped pointer to this class.
// Ownership, threads, errors, complexity: as PLG::StdPlugIn.
#pragma once

#include "framework/PLG/StdPlugIn.h"

namespace PLG {

class DataPlugIn : public StdPlugIn {
  public:
    DataPlugIn() = default;
    // The second text is the number from which the framework counts the module's messages; no host asks for it.
    DataPlugIn(BAS::String const& name, BAS::String const&) : StdPlugIn(name) {}

    // Appends the names of the plug-ins that must be initialised before this one. Default: none.
    virtual void loadDependencies(RWTValOrderedVector<BAS::String>& names);
};

} // namespace PLG
