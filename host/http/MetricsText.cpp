#include "host/http/MetricsText.h"

#include "host/base/ProcessFigures.h"

#include <array>
#include <charconv>
#include <chrono>
#include <concepts>
#include <initializer_list>
#include <utility>

namespace nphost {

namespace {

using DAT::NumberPortability::ServiceStatus;

// Families of samples, one after the other: a head, and then its samples.
class Exposition {
  public:
    using Labels = std::initializer_list<std::pair<char const*, std::string_view>>;

    Exposition& family(std::string_view name, std::string_view type, std::string_view help) {
        nameM = name;
        append({"# HELP ", name, " ", help, "\n# TYPE ", name, " ", type, "\n"});
        return *this;
    }
    // The labels' values are the program's own, and have nothing to escape.
    template <class Number>
    Exposition& sample(Labels labels, Number value, std::string_view suffix = {}) {
        append({nameM, suffix});
        char const* before = "{";
        for (auto const& [label, text] : labels)
            append({std::exchange(before, ","), label, "=\"", text, "\""});
        textM += labels.size() > 0 ? "} " : " ";
        append(value);
        textM += '\n';
        return *this;
    }
    // A family of one sample.
    template <class Number>
    void single(std::string_view name, std::string_view type, std::string_view help, Number value) {
        family(name, type, help).sample({}, value);
    }
    // One that is left out where there is no value.
    template <class Number>
    void single(std::string_view name, std::string_view type, std::string_view help, std::optional<Number> value) {
        if (value)
            single(name, type, help, *value);
    }

    static std::string textOf(double value) {
        // The shortest decimal that is this value, in any locale.
        std::array<char, 400> digits;
        auto const end = std::to_chars(digits.begin(), digits.end(), value, std::chars_format::fixed).ptr;
        return {digits.begin(), end};
    }

    std::string take() && { return std::move(textM); }

  private:
    void append(std::initializer_list<std::string_view> parts) {
        for (std::string_view const part : parts)
            textM += part;
    }
    void append(bool value) { textM += value ? '1' : '0'; }
    void append(std::integral auto value) { textM += std::to_string(value); }
    void append(double value) { textM += textOf(value); }

    std::string textM;
    std::string_view nameM;
};

// Seconds since 1970; none of an invalid instant.
std::optional<std::uint64_t> timestamp(BAS::DateTime at) {
    std::uint64_t const begin = BAS::DateTime("19700101000000").seconds();
    return at.isValid() && at.seconds() >= begin ? std::optional(at.seconds() - begin) : std::nullopt;
}

char const* labelOf(LoadKind kind) {
    static constexpr std::array<char const*, loadKindsCM> names = {"first", "reload", "delta"};
    return names[static_cast<std::size_t>(kind)];
}

// By the identifiers of their reports, in the order of LineOutcome.
constexpr std::array<char const*, rejectionKindsCM> rejectionsCM = {
    "ERR_DUPLICATE_NUMPORTDATA", "ERR_NUMBER_OF_FIELDS_IN_RECORD", "ERR_INVALID_DATETIME", "ERR_INVALID_NUMBER",
    "ERR_INVALID_NETWORK_ID"};

void appendData(Exposition& out, Standing const& standing, std::optional<BAS::DateTime> nextChange) {
    ServiceStatus const& data = standing.data;
    out.single("numberportability_usable", "gauge", "Whether the data can be asked.", data.usable);
    out.single("numberportability_records", "gauge", "Records that are live.", data.records);
    out.single("numberportability_numbers", "gauge", "Different numbers and prefixes that are live.", data.numbers);
    out.single("numberportability_tree_bytes", "gauge", "Memory of one of the two trees that hold the data.",
               data.treeBytes);
    out.single("numberportability_data_loaded_timestamp_seconds", "gauge", "When the live data were put to work.",
               timestamp(data.liveSince));
    out.single("numberportability_next_change_timestamp_seconds", "gauge",
               "When the next assignments take effect; left out where none are to come.",
               nextChange ? timestamp(*nextChange) : std::nullopt);
    // A file that is not there has no time.
    std::optional<double> modified;
    if (standing.file.version != STR::FileVersion())
        modified = static_cast<double>(standing.file.version.modified) / 1e9;
    out.single("numberportability_data_file_modified_timestamp_seconds", "gauge",
               "When the data file was last written; left out where it is not there.", modified);
    out.single("numberportability_data_file_changed", "gauge",
               "Whether the data file is another than the one that was loaded or written.", standing.file.changed);
    out.single("numberportability_data_unsaved", "gauge",
               "Whether records of a delta are served that could not be written to the data file.", data.unsaved);
    out.single("numberportability_lookups_total", "counter", "Look-ups of the data, by whatever way they came.",
               data.lookUps);
}

void appendLoads(Exposition& out, LoadCounts const& loads, Standing const& standing) {
    constexpr std::array<LoadKind, loadKindsCM> kinds = {LoadKind::FIRST_LOAD, LoadKind::RELOAD, LoadKind::DELTA};
    constexpr std::array<LoadResult, loadResultsCM> results = {LoadResult::SUCCEEDED, LoadResult::FAILED,
                                                               LoadResult::REFUSED};
    auto const counts = [&loads](LoadKind kind, LoadResult result) {
        return loads.kinds[static_cast<std::size_t>(kind)].results[static_cast<std::size_t>(result)];
    };
    out.single("numberportability_loading", "gauge", "Whether data are being loaded.", standing.data.loading);
    out.family("numberportability_loads_total", "counter", "Loads that have ended, or were refused before they began.");
    for (LoadKind const kind : kinds)
        for (LoadResult const result : results)
            out.sample({{"kind", labelOf(kind)}, {"result", nameOf(result)}}, counts(kind, result));
    out.family("numberportability_load_duration_seconds", "summary",
               "Time that loads took with their checks, refused ones left out.");
    for (LoadKind const kind : kinds)
        out.sample({{"kind", labelOf(kind)}}, loads.kinds[static_cast<std::size_t>(kind)].seconds, "_sum")
            .sample({{"kind", labelOf(kind)}}, counts(kind, LoadResult::SUCCEEDED) + counts(kind, LoadResult::FAILED),
                    "_count");
    out.single("numberportability_last_load_succeeded", "gauge",
               "Whether the latest load succeeded, whoever commanded it.", standing.data.lastLoad.succeeded);
    out.single("numberportability_last_load_timestamp_seconds", "gauge", "When the latest load ended.",
               timestamp(standing.data.lastLoad.ended));
    out.family("numberportability_guard_refusals_total", "counter", "Loads that the guard has refused.");
    for (LoadKind const kind : kinds)
        out.sample({{"kind", labelOf(kind)}}, loads.kinds[static_cast<std::size_t>(kind)].guardRefusals);
    out.single("numberportability_load_refused", "gauge",
               "Whether the guard has refused a load, and none has ended since.",
               standing.guard.isRefused(standing.data.loads));
    out.family("numberportability_rejected_lines_total", "counter",
               "Lines of data files that loads could not use, by the identifier of their reports.");
    for (std::size_t kind = 0; kind < rejectionKindsCM; ++kind)
        out.sample({{"reason", rejectionsCM[kind]}}, loads.rejected[kind]);
    out.single("numberportability_reports_lost_total", "counter", "Reports that the log could not take.",
               standing.reportsLost);
}

using Fronts = std::array<std::pair<char const*, FrontCounts>, frontKindsCM>;

template <class Reason, std::size_t Count, class Of>
void appendByReason(Exposition& out, Fronts const& fronts, char const* label, Of const& of) {
    for (auto const& [front, counts] : fronts)
        for (std::size_t i = 0; i < Count; ++i)
            out.sample({{"front", front}, {label, nameOf(static_cast<Reason>(i))}}, of(counts, static_cast<Reason>(i)));
}

void appendDurations(Exposition& out, char const* front, FrontCounts const& counts) {
    std::uint64_t sum = 0;
    for (std::size_t bucket = 0; bucket < DurationBuckets::countCM; ++bucket) {
        sum += counts.durations(bucket);
        std::string border = "+Inf";
        if (bucket < DurationBuckets::bordersCM.size())
            border = Exposition::textOf(static_cast<double>(DurationBuckets::bordersCM[bucket].count()) / 1e9);
        out.sample({{"front", front}, {"le", border}}, sum, "_bucket");
    }
    out.sample({{"front", front}}, counts.durationSum(), "_sum").sample({{"front", front}}, sum, "_count");
}

void appendFronts(Exposition& out, Fronts const& fronts) {
    out.family("numberportability_requests_total", "counter", "Requests that were answered, in whatever way.");
    appendByReason<RequestOutcome, requestOutcomesCM>(
        out, fronts, "outcome",
        [](FrontCounts const& counts, RequestOutcome outcome) { return counts.requests(outcome); });
    out.family("numberportability_request_duration_seconds", "histogram",
               "Time until a request was answered or taken in, streams and commands over HTTP left out.");
    for (auto const& [front, counts] : fronts)
        appendDurations(out, front, counts);
    out.family("numberportability_front_lookups_total", "counter", "Look-ups that were answered over a front.");
    for (auto const& [front, counts] : fronts)
        out.sample({{"front", front}, {"result", "found"}}, counts.found())
            .sample({{"front", front}, {"result", "not_found"}}, counts.notFound());
    out.family("numberportability_connections", "gauge", "Connections that are open.");
    for (auto const& [front, counts] : fronts)
        out.sample({{"front", front}}, counts.open());
    out.family("numberportability_connections_accepted_total", "counter", "Connections that were taken.");
    for (auto const& [front, counts] : fronts)
        out.sample({{"front", front}}, counts.accepted());
    out.family("numberportability_connections_refused_total", "counter", "Connections that were turned away.");
    appendByReason<ConnectionRefusal, connectionRefusalsCM>(
        out, fronts, "reason",
        [](FrontCounts const& counts, ConnectionRefusal reason) { return counts.refused(reason); });
    out.family("numberportability_connections_dropped_total", "counter",
               "Connections that were ended because the other side was too slow.");
    appendByReason<ConnectionDrop, connectionDropsCM>(
        out, fronts, "reason", [](FrontCounts const& counts, ConnectionDrop reason) { return counts.dropped(reason); });
}

void appendDns(Exposition& out, FrontCounts const& counts) {
    out.family("numberportability_dns_messages_total", "counter",
               "Messages of DNS that came, by what became of them; silence is for what is no question.");
    for (bool const isTcp : {false, true})
        for (std::size_t i = 0; i < dnsOutcomesCM; ++i) {
            auto const outcome = static_cast<DnsOutcome>(i);
            out.sample({{"transport", isTcp ? "tcp" : "udp"}, {"result", labelOf(outcome)}},
                       counts.dnsMessages(outcome, isTcp));
        }
}

void appendProcess(Exposition& out) {
    ProcessFigures const process = ProcessFigures::now();
    out.family("numberportability_build_info", "gauge", "The program; always 1.").sample({{"version", NP_VERSION}}, 1);
    out.single("process_cpu_seconds_total", "counter", "User and system time of all threads.", process.cpuSeconds);
    out.single("process_virtual_memory_bytes", "gauge", "Virtual memory.", process.virtualBytes);
    out.single("process_resident_memory_bytes", "gauge", "Resident memory.", process.residentBytes);
    out.single("process_threads", "gauge", "Threads.", process.threads);
    out.single("process_open_fds", "gauge", "Open descriptors.", process.openDescriptors);
    out.single("process_max_fds", "gauge", "The limit of open descriptors.", process.mostDescriptors);
    out.single("process_start_time_seconds", "gauge", "When the process was started.", process.startSeconds);
}

} // namespace

std::string metricsText(Metrics const& metrics, Standing const& standing) {
    Exposition out;
    appendData(out, standing, metrics.nextChange());
    appendLoads(out, metrics.loads(), standing);
    Fronts fronts;
    for (std::size_t i = 0; i < frontKindsCM; ++i) {
        auto const front = static_cast<FrontKind>(i);
        fronts[i] = {nameOf(front), metrics.counts(front)};
    }
    appendFronts(out, fronts);
    appendDns(out, metrics.counts(FrontKind::ENUM));
    appendProcess(out);
    return std::move(out).take();
}

} // namespace nphost
