// PLG::StdPlugIn: base of every plug-in: a registered object with a life cycle.
//
// Purpose: declares the steps by which the framework drives a plug-in: init after construction, finalInit when all
// plug-ins are initialised, shutdown before destruction; startup, install and uninstall where a plug-in needs them.
// Ownership and threads: as BAS::RegisteredObject; the steps are driven by one thread at a time.
// Errors: a step returns false; nothing is thrown to the framework. Complexity: the plug-in's; the defaults do nothing.
#pragma once

#include "framework/BAS/RegisteredObject.h"
#include "framework/PLG/PlugInControlIf.h"

namespace PLG {

class StdPlugIn : public BAS::RegisteredObject, public PlugInControlIf {
  public:
    StdPlugIn() = default;
    explicit StdPlugIn(BAS::String const& name) : BAS::RegisteredObject(name) {}

    // The order of the virtual operations is part of the framework's binary interface.
    virtual bool init();
    virtual bool finalInit();
    bool shutdown() override;
    bool startup() override;
    bool install() override;
    bool uninstall() override;
};

} // namespace PLG
