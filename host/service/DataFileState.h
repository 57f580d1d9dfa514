// nphost::DataFileState: how the daemon's data file stands, and whether a delta may rewrite it.
//
// Purpose: a delta writes what is served over the data file. Asked before: a file that somebody has put there since,
// and that was not loaded, would be lost, and so would the deltas of another daemon. Asked for the operator: which way
// the file will be rewritten.
// Ownership: borrows the plug-in and owns the lock for the file.
// Threads: any. faultOfDelta waits for a load that somebody else has begun.
// Errors: std::bad_alloc.
// Complexity: a few system calls. Between the question and the delta's end a file can still be put there.
#pragma once

#include "framework/STR/FilePlace.h"
#include "host/module/LoadedModule.h"
#include "host/service/DataFileLock.h"

#include <string>

namespace nphost {

class DataFileState {
  public:
    explicit DataFileState(LoadedPlugIn& plugIn);

    // Removes what killed writers left, and reports how the file will be rewritten and who keeps deltas away.
    void begin();

    // Why a delta must not be loaded now; empty when it may. Forced, it may overwrite what was not loaded.
    std::string faultOfDelta(bool force);
    // The same, reported. `file` is the delta's.
    bool refusesDelta(std::string const& file, bool force);

    struct Standing {
        BAS::String name;
        STR::FileVersion version; // all 0: it is not there
        STR::Rewriting rewriting; // how a delta would write it
        bool changed = false;     // since it was loaded or last written
        std::string holder;       // who keeps deltas away; empty: nobody
    };
    // Takes the lock for the file, too, if it has become free. `status` is the plug-in's, of now.
    Standing standing(DAT::NumberPortability::ServiceStatus const& status);

  private:
    bool differs(DAT::NumberPortability::ServiceStatus const& status) const;
    bool isChanged() const;

    LoadedPlugIn& plugInM;
    BAS::String const fileM;
    DataFileLock lockM;
};

} // namespace nphost
