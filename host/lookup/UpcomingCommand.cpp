#include "host/lookup/UpcomingCommand.h"

#include "host/base/ExitStatus.h"
#include "host/base/HostError.h"
#include "host/base/Instant.h"
#include "host/base/JsonWriter.h"
#include "host/base/Output.h"
#include "host/fields/DataClock.h"
#include "host/fields/FieldOptions.h"
#include "host/module/Host.h"

#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <tuple>
#include <unistd.h>
#include <utility>
#include <vector>

namespace nphost {

namespace {

constexpr char const* upcomingHelpCM =
    R"(Loads the data and prints one line for every record that is valid from later than the
instant, by instant, then by number: instant, number, from which network and to which,
separated by tabs. The network before is what a look-up by the configured search method
answers for the second before; '-' is nobody.

Example:
  nphost upcoming --config examples/nphost.toml --from 20240615120000 --until 20251231235959

Exit status:
  0  fine, also when nothing is to come
  2  a usage, configuration or file error; one line on standard error says which)";

struct UpcomingOptions {
    CommonOptions common;
    std::optional<std::string> from;  // none: now
    std::optional<std::string> until; // none: for ever
    bool json = false;
};

using Record = DAT::NumberPortability::NumberPortabilityData;

struct Change {
    BAS::String number;
    Record record;
};

using Changes = std::vector<Change>;
// From which networks the numbers of some changes come, one by one; none for nobody.
using Origins = std::span<std::optional<std::string> const>;

struct Period {
    BAS::DateTime from;  // after it
    BAS::DateTime until; // up to it; invalid, and so later than all, for ever
};

Changes collect(Host& host, Period const& period) {
    Changes changes;
    // Of no use here: this process exchanges no data.
    BAS::DateTime liveSince;
    // The visit holds the data, so it only gathers; networks before are looked up when it is over.
    if (!host.plugIn().visitUpcoming(period.from, liveSince, [&](BAS::String const& number, Record const& record) {
            if (record.validFromM <= period.until)
                changes.push_back({number, record});
        }))
        host.fail("the data could not be searched for what is to come");
    // The visit goes by number, people read by time.
    std::sort(changes.begin(), changes.end(), [](Change const& one, Change const& other) {
        return std::tie(one.record.validFromM, one.number) < std::tie(other.record.validFromM, other.number);
    });
    return changes;
}

// Asks for the networks of the second before, many at once.
class OriginSearch {
  public:
    static constexpr std::size_t mostCM = 256;

    explicit OriginSearch(Host& host) : hostM(host), recordsM(mostCM), originsM(mostCM) {}

    // The second before is never below the first: a record that is to come is later than some instant.
    Origins find(std::span<Change const> changes) {
        numbersM.clear();
        instantsM.clear();
        for (Change const& change : changes) {
            numbersM.push_back(change.number);
            instantsM.push_back(BAS::DateTime::fromSeconds(change.record.validFromM.seconds() - 1));
        }
        std::size_t const count = changes.size();
        if (!hostM.plugIn().search(numbersM, instantsM, std::span(recordsM).first(count),
                                   std::span(foundM).first(count)))
            hostM.fail("the numbers could not be looked up");
        for (std::size_t i = 0; i < count; ++i)
            originsM[i] = foundM[i] ? std::optional<std::string>(recordsM[i].networkIdM.view()) : std::nullopt;
        return Origins(originsM).first(count);
    }

  private:
    Host& hostM;
    std::vector<BAS::String> numbersM;
    std::vector<BAS::DateTime> instantsM;
    std::vector<Record> recordsM;
    // A vector of truth values has no places that a span could show.
    std::array<bool, mostCM> foundM{};
    std::vector<std::optional<std::string>> originsM;
};

void appendText(Output& out, Change const& change, std::optional<std::string> const& origin) {
    out.append(InstantDigits(change.record.validFromM).view());
    out.append('\t');
    out.append(change.number.view());
    out.append('\t');
    out.append(origin ? std::string_view(*origin) : "-");
    out.append('\t');
    out.append(change.record.networkIdM.view());
    out.append('\n');
}

void appendJson(Output& out, Change const& change, std::optional<std::string> const& origin, bool first) {
    // One object a change, written as it comes: the whole list as one value would double the memory.
    std::string text = first ? "\n" : ",\n";
    JsonWriter(text)
        .beginObject()
        .member("at", digitsOf(change.record.validFromM))
        .member("from", origin)
        .member("number", change.number.view())
        .member("to", change.record.networkIdM.view())
        .endObject();
    out.append(text);
}

// The count stands in front, since all changes are known by then: a reader can make room.
void appendHeading(Output& out, Changes const& changes, Period const& period) {
    std::string text;
    JsonWriter(text)
        .beginObject()
        .member("from", digitsOf(period.from))
        .member("until", period.until.isValid() ? std::optional(digitsOf(period.until)) : std::nullopt)
        .member("count", changes.size())
        .key("upcoming")
        .beginArray();
    out.append(text);
}

void write(Host& host, Changes const& changes, Period const& period, bool json) {
    Output out(STDOUT_FILENO);
    OriginSearch search(host);
    if (json)
        appendHeading(out, changes, period);
    // Some at a time, so that answers are held for no more than those.
    for (std::size_t begin = 0; begin < changes.size(); begin += OriginSearch::mostCM) {
        auto const some = std::span(changes).subspan(begin, std::min(OriginSearch::mostCM, changes.size() - begin));
        Origins const origins = search.find(some);
        for (std::size_t i = 0; i < some.size(); ++i)
            if (json)
                appendJson(out, some[i], origins[i], begin + i == 0);
            else
                appendText(out, some[i], origins[i]);
    }
    if (json)
        out.append(std::string_view("]}\n"));
    out.flush();
}

int upcoming(UpcomingOptions const& options) {
    Configuration configuration = options.common.readConfiguration();
    DataClock const clock(configuration);
    Period const period = {instantOf(options.from, clock, clock.now()), instantOf(options.until, clock, {})};
    if (period.until < period.from) // false of an invalid one
        throw HostError("there is no time to list: " + digitsOf(period.from) + " of --from" +
                        (options.from ? "" : " (now)") + " is later than " + digitsOf(period.until) + " of --until");
    Host host(std::move(configuration), options.common);
    host.start();
    write(host, collect(host, period), period, options.json);
    return FINE;
}

void declareUpcoming(Arguments& arguments, CommonOptions& common) {
    auto const options = std::make_shared<UpcomingOptions>();
    addConfiguration(arguments, common).required();
    addInstant(arguments, "--from", options->from, "What comes after it; ");
    arguments.add("--until", "INSTANT", options->until, "What comes up to it; default: everything");
    arguments.flag("--json", options->json, "Write one JSON object");
    arguments.footer(upcomingHelpCM);
    arguments.runs([options, &common] {
        options->common = common;
        return upcoming(*options);
    });
}

} // namespace

Command const upcomingCommandCM = {"upcoming", "List the assignments that are still to come", declareUpcoming};

} // namespace nphost
