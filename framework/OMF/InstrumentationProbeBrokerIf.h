// OMF::InstrumentationProbeBrokerIf: reads probe definition files.
//
// Purpose: the names and descriptions of a module's probes are data, not code. The file is TOML (v1.0.0), one table a
// probe, named like the probe, with the key "description":
//
//     [reload]
//     description = "Write TRUE or FALSE: reload the main data file"
//
// Location: the folder installed with installFolder; the host says which.
// Ownership: fills the caller's map.
// Threads: installFolder before any other use; ReadProbeInfoFile from any thread.
// Errors: a file that cannot be read or is no TOML gives false and an empty map, and the framework's log says why
// ("ERR_PROBE_FILE", severity 4, file and reason). Complexity: linear in the file.
#pragma once

#include "framework/BAS/InstrumentationProbe.h"
#include "framework/BAS/RegisteredObject.h"

#include <map>

namespace OMF {

class InstrumentationProbeBrokerIf {
  public:
    using ProbeInfoMap = std::map<BAS::String, BAS::InstrumentationProbe::ProbeInfo>;

    static void installFolder(BAS::String const& folder);
    static bool ReadProbeInfoFile(BAS::RegisteredObject* requester, BAS::String const& fileName, ProbeInfoMap& infos);
};

} // namespace OMF
