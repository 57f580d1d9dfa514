// PLG::PlugInControlIf: the framework's view of a plug-in that it installs, starts and stops.
//
// Purpose: a second view of a plug-in for callers that know nothing of data or names.
// Ownership: destroying a plug-in through this view destroys the whole object.
// Threads: driven by one thread at a time. Errors: operations return false. Complexity: the plug-in's.
#pragma once

namespace PLG {

class PlugInControlIf {
  public:
    // The order of the virtual operations is part of the framework's binary interface.
    virtual ~PlugInControlIf() = default;
    virtual bool install() = 0;
    virtual bool uninstall() = 0;
    virtual bool startup() = 0;
    virtual bool shutdown() = 0;
};

} // namespace PLG
