// DAT::NumberPortability::ServiceStatus and StoredPrefix: what an operator asks a serving plug-in about itself.
//
// Purpose: the answers of PlugIn::serviceStatus and PlugIn::explain.
// Units and ranges: instants are UTC; durations are seconds; counts are since construction unless said otherwise.
// Ownership: values, copied under the lock that guards what they describe. Threads: none inside. Errors: copying throws
// std::bad_alloc. Complexity: linear in the texts and records.
#pragma once

#include "cache/DataSummary.h"
#include "framework/STR/FileVersion.h"
#include "store/NumberPortabilityData.h"

#include <cstdint>
#include <functional>
#include <vector>

namespace DAT::NumberPortability {

// One load, reload or delta load.
struct LoadOutcome {
    enum Kind { NONE, LOAD, RELOAD, DELTA_LOAD };

    Kind kind = NONE;
    bool succeeded = false;
    BAS::String fileName;
    BAS::DateTime ended;
    double duration = 0;
    std::uint64_t lines = 0;
    LineCounts counts = {};
};

struct ServiceStatus {
    bool usable = false;
    bool loading = false; // a load is going on
    BAS::String dataFileName;
    unsigned int searchMethod = 0;
    std::uint32_t records = 0;   // live
    std::uint64_t numbers = 0;   // live: different numbers and prefixes
    std::uint64_t treeBytes = 0; // live: memory of one of the two trees, bytes
    std::uint64_t lookUps = 0;   // served, found or not
    BAS::DateTime liveSince;     // when the live data were put to work; invalid before
    std::uint64_t epoch = 0;     // how often data were put to work: which they are
    LoadOutcome lastLoad;
    std::uint64_t loads = 0; // that have ended, well or not, whoever commanded them
    // The data file as it was opened for the latest load that was adopted, or as the latest delta load left it; all 0
    // before. A file of other content (hasContentOf) was put there by somebody else.
    STR::FileVersion dataFileVersion;
    bool unsaved = false; // records of a delta load are served that could not be written to the data file
};

// A stored key that is a prefix of a number, or the number itself, with its history, newest record first.
struct StoredPrefix {
    BAS::String key;
    std::vector<NumberPortabilityData> history;
};

// Told of a record; both are valid during the call.
using RecordVisitor = std::function<void(BAS::String const& number, NumberPortabilityData const& record)>;

} // namespace DAT::NumberPortability
