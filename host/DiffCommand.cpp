#include "host/DiffCommand.h"

#include "host/DiffReport.h"
#include "host/ExitStatus.h"
#include "host/HostError.h"
#include "host/Instant.h"
#include "host/StandardError.h"
#include "host/Text.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <utility>

namespace nphost {

namespace {

using DAT::NumberPortability::DataSummary;
using DAT::NumberPortability::FileLine;
using DAT::NumberPortability::LineOutcome;

// Takes the lines of one file to its sorter.
class Reading {
  public:
    Reading(NetworkNames& names, RecordSorter& sorter, DataSummary& summary)
        : namesM(names), sorterM(sorter), summaryM(summary) {}

    void take(FileLine const& line) {
        ++summaryM.lines;
        summaryM.count(line.outcome);
        if (line.outcome != LineOutcome::INSERTED)
            return;
        SortedRecord record;
        record.head = headOf(line.digits);
        record.seconds = line.validFrom.seconds();
        record.line = line.number;
        record.network = namesM.numberOf(line.network);
        record.tail = line.digits.substr(std::min(headDigitsCM, line.digits.size()));
        if (record.network == NetworkNames::noneCM)
            record.text = line.network;
        sorterM.add(record);
    }

  private:
    NetworkNames& namesM;
    RecordSorter& sorterM;
    DataSummary& summaryM;
};

class Comparing {
  public:
    explicit Comparing(DiffOptions const& options)
        : hostM(configurationFor(options), options.common), memoryM(std::size_t{options.memory} << 20U),
          namesM(memoryM / 8) {}

    std::unique_ptr<RecordSource> read(FileTotals& file) {
        RecordSorter sorter(memoryM / 8 * 3);
        Reading reading(namesM, sorter, file.lines);
        ProgressLine const progress("nphost: reading " + shortened(file.name), [this] { return hostM.loadProgress(); });
        std::exception_ptr failure; // the module would report it as its own
        bool const complete = hostM.plugIn().visitFile(BAS::String(file.name), [&](FileLine const& line) {
            try {
                reading.take(line);
            } catch (...) {
                failure = std::current_exception();
                throw; // ends the visit
            }
        });
        if (failure)
            std::rethrow_exception(failure);
        if (!complete)
            hostM.fail("the file could not be read");
        return sorter.finish();
    }

    NetworkNames const& names() const { return namesM; }

  private:
    // The plug-in wants a data file that it can open; the configured one is not touched.
    static Configuration configurationFor(DiffOptions const& options) {
        Configuration configuration = readConfiguration(options.common.configuration);
        for (std::string const& file : {options.before, options.after})
            StandardError::keepOff(file, "one of the files");
        configuration.useDataFile(options.before);
        return configuration;
    }

    Host hostM;
    std::size_t memoryM;
    NetworkNames namesM;
};

void complete(FileTotals& file, SideCounts const& counts) {
    file.lines.records = counts.records;
    file.lines.numbers = counts.numbers;
    file.lines.duplicates = counts.duplicates;
}

int compare(DiffOptions const& options) {
    DiffTotals totals = {instantOf(options.at, BAS::DateTime::now()), {options.before, {}}, {options.after, {}}, {}};
    Comparing comparing(options);
    std::unique_ptr<RecordSource> before = comparing.read(totals.before);
    std::unique_ptr<RecordSource> after = comparing.read(totals.after);
    std::unique_ptr<DiffReport> const report = makeDiffReport(options.list, options.matrix, options.json);
    FileComparison comparison(comparing.names(), totals.at, options.list,
                              [&](NumberChange const& change) { report->number(change); });
    totals.result = comparison.compare(std::move(before), std::move(after));
    complete(totals.before, totals.result.before);
    complete(totals.after, totals.result.after);
    report->finish(totals);
    report->flush();
    return totals.result.isEqual() ? FINE : NOT_FOUND;
}

} // namespace

int diff(DiffOptions const& options) {
    try {
        return compare(options);
    } catch (std::bad_alloc const&) {
        throw HostError("out of memory: records may take " + std::to_string(options.memory) +
                        " MiB; a smaller --memory leaves more of them to temporary files");
    }
}

} // namespace nphost
