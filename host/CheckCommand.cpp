#include "host/CheckCommand.h"

#include "host/ExitStatus.h"
#include "host/HostError.h"
#include "host/Output.h"
#include "host/Text.h"

#include <algorithm>
#include <exception>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace nphost {

namespace {

using DAT::NumberPortability::DataSummary;
using DAT::NumberPortability::LineOutcome;

struct RejectedLine {
    unsigned long number;
    LineOutcome outcome;
    Log::Reject reason;
    std::string_view text;
};

// How a check is told, line by line and at its end.
class Report {
  public:
    Report() : outM(STDOUT_FILENO) {}
    Report(Report const&) = delete;
    Report& operator=(Report const&) = delete;
    virtual ~Report() = default;

    virtual void reject(RejectedLine const& line) = 0;
    virtual void finish(DataSummary const& summary) = 0;

  protected:
    Output outM;
};

class TextReport : public Report {
  public:
    explicit TextReport(bool all) : allM(all) {}

    void reject(RejectedLine const& line) override {
        if (allM)
            outM.append(textOf(line));
        else if (std::find(seenM.begin(), seenM.end(), line.outcome) == seenM.end()) {
            seenM.push_back(line.outcome);
            firstM += textOf(line);
        }
    }

    void finish(DataSummary const& summary) override {
        if (allM && summary.rejected() > 0)
            outM.append('\n');
        counts(summary);
        outM.append("Valid from:       ");
        outM.append(summary.earliest.isValid() ? instant(summary.earliest) + " to " + instant(summary.latest)
                                               : std::string("-"));
        outM.append('\n');
        networks(summary);
        if (!firstM.empty())
            outM.append("\nThe first rejected line of each kind (--all shows every one):\n" + firstM);
        outM.flush();
    }

  private:
    static std::string textOf(RejectedLine const& line) {
        return "line " + std::to_string(line.number) + ": " + line.reason.identifier + ": " + line.reason.detail +
               "\n    " + shortened(line.text) + "\n";
    }
    static std::string instant(BAS::DateTime at) { return at.asString("%Y-%m-%d %H:%M:%S").str(); }

    void count(std::string label, unsigned long number) {
        constexpr std::size_t width = 30;
        std::string const digits = std::to_string(number);
        label.resize(std::max(label.size() + 1, width - std::min(width, digits.size())), ' ');
        outM.append(label + digits + "\n");
    }

    void counts(DataSummary const& summary) {
        count("Lines:", summary.lines);
        count("Records:", summary.records);
        count("Numbers:", summary.numbers);
        count("Rejected lines:", summary.rejected());
        count("  number of fields:", summary.rejectedFields);
        count("  valid-from:", summary.rejectedDateTimes);
        count("  number:", summary.rejectedNumbers);
        count("  network identifier:", summary.rejectedNetworks);
        count("  duplicate:", summary.duplicates);
    }

    void networks(DataSummary const& summary) {
        if (summary.networks.empty())
            return;
        outM.append("\nRecords by network:\n");
        for (auto const& [network, records] : summary.networks)
            count("  " + shortened(network.view()), records);
    }

    bool allM;
    std::vector<LineOutcome> seenM;
    std::string firstM;
};

// The object is written piece by piece, so that it may list millions of lines.
class JsonReport : public Report {
  public:
    explicit JsonReport(bool all) : allM(all) {}

    void reject(RejectedLine const& line) override {
        if (!allM)
            return;
        outM.append(startedM ? std::string_view(",\n") : "{\"rejects\":[\n");
        startedM = true;
        outM.append(dump({{"line", line.number},
                          {"identifier", line.reason.identifier},
                          {"detail", line.reason.detail},
                          {"text", asUtf8(line.text)}}));
    }

    void finish(DataSummary const& summary) override {
        if (startedM)
            outM.append("],\n");
        else
            outM.append(allM ? std::string_view("{\"rejects\":[],\n") : "{");
        outM.append(std::string_view(dump(object(summary))).substr(1)); // without its opening brace
        outM.append('\n');
        outM.flush();
    }

  private:
    static std::string dump(nlohmann::json const& value) {
        return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    }

    static nlohmann::json instant(BAS::DateTime at) {
        return at.isValid() ? nlohmann::json(at.asString("%Y%m%d%H%M%S").str()) : nlohmann::json();
    }

    static nlohmann::json object(DataSummary const& summary) {
        // Names that are no UTF-8 may become the same one.
        std::map<std::string, unsigned long> networks;
        for (auto const& [network, records] : summary.networks)
            networks[asUtf8(network.view())] += records;
        return {{"lines", summary.lines},
                {"records", summary.records},
                {"numbers", summary.numbers},
                {"rejectedFields", summary.rejectedFields},
                {"rejectedDateTimes", summary.rejectedDateTimes},
                {"rejectedNumbers", summary.rejectedNumbers},
                {"rejectedNetworks", summary.rejectedNetworks},
                {"duplicates", summary.duplicates},
                {"earliest", instant(summary.earliest)},
                {"latest", instant(summary.latest)},
                {"networks", networks}};
    }

    bool allM;
    bool startedM = false;
};

Configuration configurationFor(CheckOptions const& options) {
    Configuration configuration = readConfiguration(options.common.configuration);
    configuration.useDataFile(options.file);
    return configuration;
}

DataSummary examine(Host& host, Report& report, bool wantsProgress) {
    ProgressLine const progress(
        "nphost: checking", [&host] { return host.loadProgress(); }, wantsProgress);
    DataSummary summary;
    std::exception_ptr failure; // the module would report it as its own
    bool const complete =
        host.plugIn().examine(summary, [&](unsigned long number, LineOutcome outcome, BAS::String const& line) {
            try {
                report.reject({number, outcome, host.log().lastReject(), line.view()});
            } catch (...) {
                failure = std::current_exception();
                throw; // ends the examination
            }
        });
    if (failure)
        std::rethrow_exception(failure);
    if (!complete)
        host.fail("the file could not be examined");
    return summary;
}

std::unique_ptr<Report> makeReport(CheckOptions const& options) {
    if (options.json)
        return std::make_unique<JsonReport>(options.all);
    return std::make_unique<TextReport>(options.all);
}

} // namespace

int check(CheckOptions const& options) {
    Host host(configurationFor(options), options.common);
    host.log().keepRejects();
    std::unique_ptr<Report> const report = makeReport(options);
    DataSummary const summary = examine(host, *report, !options.all || isatty(STDOUT_FILENO) != 1);
    host.throwFailure();
    report->finish(summary);
    return summary.rejected() == 0 ? FINE : NOT_FOUND;
}

} // namespace nphost
