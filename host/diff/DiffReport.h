// nphost::DiffReport: how nphost diff tells what it has found.
//
// Purpose: as text for people, as a list of numbers or the matrix of moves in columns, or as one JSON object, on
// standard output.
// Ownership: owns its output's buffer. Destruction discards what was not flushed.
// Threads: one thread.
// Errors: HostError when standard output cannot be written; std::bad_alloc.
// Complexity: numbers are written as they come, none is kept.
#pragma once

#include "cache/DataSummary.h"
#include "host/base/Output.h"
#include "host/diff/FileComparison.h"

#include <memory>
#include <optional>
#include <string>

namespace nphost {

// Of one file: what its lines are, and, in the end, what its records are.
struct FileTotals {
    std::string name;
    DAT::NumberPortability::DataSummary lines; // without networks and instants
};

struct DiffTotals {
    BAS::DateTime at;
    FileTotals before;
    FileTotals after;
    ComparisonResult result;
};

class DiffReport {
  public:
    DiffReport();
    DiffReport(DiffReport const&) = delete;
    DiffReport& operator=(DiffReport const&) = delete;
    virtual ~DiffReport() = default;

    // The numbers of the listed kind, then the whole.
    virtual void number(NumberChange const& change) = 0;
    virtual void finish(DiffTotals const& totals) = 0;
    void flush() { outM.flush(); }

  protected:
    Output outM;
};

std::unique_ptr<DiffReport> makeDiffReport(std::optional<Difference> listed, bool matrix, bool json);

} // namespace nphost
