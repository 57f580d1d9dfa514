// What the daemon counts, and the text that Prometheus scrapes.
#include "host/base/ProcessFigures.h"
#include "host/http/MetricsText.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace std::chrono_literals;
using nphost::DurationBuckets;
using nphost::FrontCounts;
using nphost::FrontKind;
using nphost::Metrics;
using nphost::RequestOutcome;

// The samples of a text by name and labels.
std::map<std::string, double> samplesOf(std::string const& text) {
    std::map<std::string, double> samples;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        if (!line.starts_with('#')) {
            std::size_t const blank = line.rfind(' ');
            EXPECT_TRUE(samples.emplace(line.substr(0, blank), std::stod(line.substr(blank + 1))).second) << line;
        }
    return samples;
}

// "name|type|labels" of each family of a text.
std::set<std::string> familiesOf(std::string const& text) {
    std::map<std::string, std::string> types;
    std::map<std::string, std::set<std::string>> labels;
    std::istringstream lines(text);
    std::string name;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string hash, what, type;
        if (line.starts_with("# TYPE ")) {
            words >> hash >> what >> name >> type;
            types[name] = type;
        } else if (!line.starts_with('#')) {
            EXPECT_TRUE(line.starts_with(name)) << line;
            for (std::size_t at = line.find('{'); at != std::string::npos; at = line.find(',', at + 1))
                labels[name].insert(line.substr(at + 1, line.find('=', at) - at - 1));
        }
    }
    std::set<std::string> families;
    for (auto const& [family, type] : types) {
        std::string row = family;
        row.append("|").append(type).append("|");
        for (std::string const& label : labels[family])
            row += label == "le" ? "" : label + " ";
        families.insert(row);
    }
    return families;
}

// The same of the table in the operator's manual: | `name` | type | `label`, `label` | meaning |
std::set<std::string> documentedFamilies() {
    std::ifstream file(NP_SOURCE_FOLDER "/docs/operations.md");
    std::set<std::string> families;
    for (std::string line; std::getline(file, line);) {
        if (!line.starts_with("| `numberportability_") && !line.starts_with("| `process_"))
            continue;
        std::istringstream columns(line.substr(2));
        std::string name, type, labels;
        std::getline(columns, name, '|');
        std::getline(columns, type, '|');
        std::getline(columns, labels, '|');
        std::set<std::string> sorted;
        for (std::size_t at = labels.find('`'); at != std::string::npos; at = labels.find('`', at)) {
            std::size_t const end = labels.find('`', at + 1);
            sorted.insert(labels.substr(at + 1, end - at - 1));
            at = end + 1;
        }
        std::string row = name.substr(1, name.rfind('`') - 1) + "|" + type.substr(1, type.size() - 2) + "|";
        for (std::string const& label : sorted)
            row += label + " ";
        families.insert(row);
    }
    return families;
}

} // namespace

TEST(MetricsTest, PutsDurationsIntoTheirBuckets) {
    constexpr std::size_t last = DurationBuckets::bordersCM.size() - 1;
    struct {
        std::chrono::nanoseconds duration;
        std::size_t bucket;
    } const cases[] = {
        {-1ns, 0},       {0ns, 0},   {10us, 0}, {10us + 1ns, 1},     {25us, 1},  {25us + 1ns, 2},      {50us, 2},
        {50us + 1ns, 3}, {100us, 3}, {1ms, 6},  {500ms + 1ns, last}, {1s, last}, {1s + 1ns, last + 1}, {1h, last + 1}};
    for (auto const& c : cases)
        EXPECT_EQ(DurationBuckets::of(c.duration), c.bucket) << c.duration.count() << " ns";
}

// Threads come and go while somebody asks: no count is ever lost, seen twice, or taken for the other front's.
TEST(MetricsTest, SumsOverThreadsThatComeAndGo) {
    constexpr int threadsCM = 4;
    constexpr int livesCM = 50;
    constexpr int requestsCM = 200;
    Metrics metrics;
    Metrics::Cell idle(metrics, FrontKind::HTTP);
    std::atomic<int> running{threadsCM};
    std::vector<std::thread> threads;
    for (int i = 0; i < threadsCM; ++i)
        threads.emplace_back([&] {
            for (int life = 0; life < livesCM; ++life) {
                Metrics::Cell http(metrics, FrontKind::HTTP);
                Metrics::Cell control(metrics, FrontKind::CONTROL);
                for (int request = 0; request < requestsCM; ++request) {
                    http.connectionOpened();
                    http.requestEnded(RequestOutcome::ANSWERED, 30us);
                    http.lookedUp(3, 1);
                    http.connectionClosed();
                    control.requestEnded(RequestOutcome::REFUSED, 2s);
                }
            }
            --running;
        });
    std::uint64_t before = 0;
    while (running > 0) {
        std::uint64_t const now = metrics.counts(FrontKind::HTTP).requests(RequestOutcome::ANSWERED);
        EXPECT_GE(now, before);
        before = now;
    }
    for (std::thread& thread : threads)
        thread.join();
    constexpr std::uint64_t all = std::uint64_t{threadsCM} * livesCM * requestsCM;
    FrontCounts const http = metrics.counts(FrontKind::HTTP);
    EXPECT_EQ(http.requests(RequestOutcome::ANSWERED), all);
    EXPECT_EQ(http.requests(RequestOutcome::REFUSED), 0);
    EXPECT_EQ(http.durations(DurationBuckets::of(30us)), all);
    EXPECT_NEAR(http.durationSum(), 30e-6 * static_cast<double>(all), 1e-6);
    EXPECT_EQ(http.found(), 3 * all);
    EXPECT_EQ(http.notFound(), all);
    EXPECT_EQ(http.accepted(), all);
    EXPECT_EQ(http.open(), 0);
    FrontCounts const control = metrics.counts(FrontKind::CONTROL);
    EXPECT_EQ(control.requests(RequestOutcome::REFUSED), all);
    EXPECT_EQ(control.durations(DurationBuckets::countCM - 1), all);
}

TEST(MetricsTest, TellsHistogramsThatAddUpAndLoads) {
    Metrics metrics;
    {
        Metrics::Cell cell(metrics, FrontKind::HTTP);
        for (auto const duration : {5us, 20us, 20us, 3000000us})
            cell.requestEnded(RequestOutcome::ANSWERED, duration);
        cell.requestEnded(RequestOutcome::ANSWERED); // a stream
        cell.connectionOpened();
        cell.connectionRefused(nphost::ConnectionRefusal::HANDSHAKE);
    }
    metrics.loadEnded(nphost::LoadKind::RELOAD, nphost::LoadResult::SUCCEEDED, 2);
    metrics.loadEnded(nphost::LoadKind::RELOAD, nphost::LoadResult::FAILED, 0.5);
    metrics.loadEnded(nphost::LoadKind::RELOAD, nphost::LoadResult::REFUSED, 100);
    DAT::NumberPortability::LineCounts lines;
    lines.byOutcome[static_cast<std::size_t>(DAT::NumberPortability::LineOutcome::INVALID_DATE_TIME)] = 7;
    metrics.linesRejected(lines);
    metrics.linesRejected(lines);
    metrics.setNextChange(BAS::DateTime("20010909014640"));
    nphost::Standing standing;
    standing.data.liveSince = BAS::DateTime("20010909014639");
    std::string const text = metricsText(metrics, standing);
    std::map<std::string, double> const samples = samplesOf(text);
    std::map<std::string, double> const expected = {
        {R"(numberportability_requests_total{front="http",outcome="answered"})", 5},
        {R"(numberportability_request_duration_seconds_bucket{front="http",le="0.00001"})", 1},
        {R"(numberportability_request_duration_seconds_bucket{front="http",le="0.000025"})", 3},
        {R"(numberportability_request_duration_seconds_bucket{front="http",le="1"})", 3},
        {R"(numberportability_request_duration_seconds_bucket{front="http",le="+Inf"})", 4},
        {R"(numberportability_request_duration_seconds_count{front="http"})", 4},
        {R"(numberportability_request_duration_seconds_sum{front="http"})", 3.000045},
        {R"(numberportability_request_duration_seconds_count{front="control"})", 0},
        {R"(numberportability_connections{front="http"})", 1},
        {R"(numberportability_connections_refused_total{front="http",reason="handshake"})", 1},
        {R"(numberportability_loads_total{kind="reload",result="refused"})", 1},
        {R"(numberportability_load_duration_seconds_sum{kind="reload"})", 2.5},
        {R"(numberportability_load_duration_seconds_count{kind="reload"})", 2},
        {R"(numberportability_load_duration_seconds_count{kind="delta"})", 0},
        {R"(numberportability_rejected_lines_total{reason="ERR_INVALID_DATETIME"})", 14},
        {R"(numberportability_rejected_lines_total{reason="ERR_DUPLICATE_NUMPORTDATA"})", 0},
        {"numberportability_data_loaded_timestamp_seconds", 999999999},
        {"numberportability_next_change_timestamp_seconds", 1000000000},
    };
    for (auto const& [name, value] : expected)
        EXPECT_TRUE(samples.contains(name) && samples.at(name) == value) << name << '\n' << text;
}

// The system tells them by place in a line, and by names that differ from what they are called here.
TEST(MetricsTest, TellsOfThisProcess) {
    using nphost::ProcessFigures;
    std::thread([] {}).join(); // with the first a sanitizer starts one of its own
    auto const started = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    ProcessFigures const before = ProcessFigures::now();
    std::vector<char> memory(64UL << 20, 'x');
    std::array<int, 3> descriptors{};
    for (int& descriptor : descriptors)
        descriptor = dup(STDERR_FILENO);
    std::atomic<bool> end{false};
    std::thread other([&end] { end.wait(false); });
    ProcessFigures const now = ProcessFigures::now();
    end = true;
    end.notify_all();
    other.join();
    for (int const descriptor : descriptors)
        close(descriptor);
    EXPECT_EQ(now.openDescriptors.value(), before.openDescriptors.value() + descriptors.size());
    EXPECT_EQ(now.threads.value(), before.threads.value() + 1);
    EXPECT_GE(now.residentBytes.value(), before.residentBytes.value() + memory.size());
    EXPECT_GE(now.virtualBytes.value(), now.residentBytes.value());
    EXPECT_GE(now.mostDescriptors.value_or(100), descriptors.size());
    EXPECT_GT(now.cpuSeconds.value(), 0);
    EXPECT_LT(now.cpuSeconds.value(), 60);
    EXPECT_NEAR(now.startSeconds.value(), started, 60);
}

TEST(MetricsTest, IsDocumented) {
    Metrics metrics;
    metrics.setNextChange(BAS::DateTime("20300101000000"));
    nphost::Standing standing;
    // All that may be left out is there.
    standing.data.liveSince = standing.data.lastLoad.ended = BAS::DateTime("20300101000000");
    standing.file.version.size = 1;
    EXPECT_EQ(documentedFamilies(), familiesOf(metricsText(metrics, standing)));
}
