// nphost::Metrics: what the daemon counts for those who watch it.
//
// Purpose: each thread that answers requests holds a Cell and counts in it; whoever asks (counts) gets the sums over
// all cells, also of those that are gone. Loads, which are few, are counted in one place. What the plug-in, the guard
// and the log count themselves is not counted again: http/MetricsText.h puts all of it together.
// Units: durations in nanoseconds where they are counted, seconds where they are told.
// Ownership: must outlive its cells. It may be lent to a shared object that has this code a second time: it has no
// state but its members.
// Threads: a cell is written by one thread at a time and read by any; everything else by any thread. A sum may have a
// request and not yet its duration.
// Errors: none; making a cell allocates nothing.
// Complexity: a count is one load and one store on a cache line of the thread's own; asking is linear in the cells,
// which it keeps from coming and going meanwhile.
#pragma once

#include "cache/DataSummary.h"
#include "framework/BAS/Mutex.h"
#include "host/module/GuardLimits.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace nphost {

enum class FrontKind { CONTROL, HTTP, ENUM };
constexpr std::size_t frontKindsCM = 3;
// "control", "http", "enum"
char const* nameOf(FrontKind front);

// What became of a request.
enum class RequestOutcome {
    ANSWERED, // "not found" is an answer
    REFUSED,  // it could not be understood, or asked for what there is not
    DENIED,   // it had no right to ask
    FAILED    // this side could not answer
};
constexpr std::size_t requestOutcomesCM = 4;
char const* nameOf(RequestOutcome outcome);

// Why a connection was turned away.
enum class ConnectionRefusal { TOO_MANY, TOO_MANY_OF_ADDRESS, HANDSHAKE };
constexpr std::size_t connectionRefusalsCM = 3;
char const* nameOf(ConnectionRefusal reason);

// Why this side ended a connection that was in use.
enum class ConnectionDrop { SLOW_REQUEST, SLOW_READER };
constexpr std::size_t connectionDropsCM = 2;
char const* nameOf(ConnectionDrop reason);

// What became of a message of DNS.
enum class DnsOutcome {
    ANSWERED,
    NODATA,
    NXDOMAIN,
    REFUSED,
    FORMERR,
    NOTIMP,
    BADVERS,
    BADCOOKIE,
    TRUNCATED,
    SERVFAIL,
    SILENCE // not a question
};
constexpr std::size_t dnsOutcomesCM = 11;
char const* labelOf(DnsOutcome outcome);

enum class LoadResult {
    SUCCEEDED,
    FAILED,
    REFUSED // before anything was read into the trees, by the guard or for another reason
};
constexpr std::size_t loadResultsCM = 3;
char const* nameOf(LoadResult result);

constexpr std::size_t loadKindsCM = 3;      // LoadKind
constexpr std::size_t rejectionKindsCM = 5; // LineOutcome but INSERTED

// The upper borders of a histogram's buckets, each with its own value; what is longer than the last goes into one more.
class DurationBuckets {
  public:
    static constexpr std::array<std::chrono::nanoseconds, 16> bordersCM = [] {
        std::array<std::chrono::nanoseconds, 16> borders{};
        std::size_t place = 0;
        for (std::int64_t microseconds = 10; microseconds < 1'000'000; microseconds *= 10)
            for (std::int64_t const tenths : {10, 25, 50})
                borders[place++] = std::chrono::nanoseconds(microseconds * tenths * 100);
        borders[place] = std::chrono::seconds(1);
        return borders;
    }();
    static constexpr std::size_t countCM = bordersCM.size() + 1;

    static std::size_t of(std::chrono::nanoseconds duration);
};

// What was counted for one front.
class FrontCounts {
  public:
    std::uint64_t requests(RequestOutcome outcome) const { return at(REQUESTS, static_cast<std::size_t>(outcome)); }
    std::uint64_t durations(std::size_t bucket) const { return at(DURATIONS, bucket); } // of DurationBuckets
    double durationSum() const { return static_cast<double>(at(NANOSECONDS, 0)) / 1e9; }
    std::uint64_t found() const { return at(LOOKUPS_FOUND, 0); }
    std::uint64_t notFound() const { return at(LOOKUPS_MISSED, 0); }
    std::uint64_t accepted() const { return at(OPENED, 0); }
    // One that was closed between two looks may be told as open, but never the other way round.
    std::uint64_t open() const { return accepted() - std::min(accepted(), at(CLOSED, 0)); }
    std::uint64_t refused(ConnectionRefusal reason) const { return at(TURNED_AWAY, static_cast<std::size_t>(reason)); }
    std::uint64_t dropped(ConnectionDrop reason) const { return at(DROPPED, static_cast<std::size_t>(reason)); }
    std::uint64_t dnsMessages(DnsOutcome outcome, bool isTcp) const {
        return at(isTcp ? DNS_TCP : DNS_UDP, static_cast<std::size_t>(outcome));
    }

  private:
    friend class Metrics;

    enum Place : std::size_t {
        LOOKUPS_FOUND,
        LOOKUPS_MISSED,
        NANOSECONDS,
        OPENED,
        CLOSED,
        REQUESTS,
        DURATIONS = REQUESTS + requestOutcomesCM,
        TURNED_AWAY = DURATIONS + DurationBuckets::countCM,
        DROPPED = TURNED_AWAY + connectionRefusalsCM,
        DNS_UDP = DROPPED + connectionDropsCM,
        DNS_TCP = DNS_UDP + dnsOutcomesCM,
        placesCM = DNS_TCP + dnsOutcomesCM
    };
    std::uint64_t at(Place place, std::size_t index) const { return placesM[place + index]; }

    std::array<std::uint64_t, placesCM> placesM{};
};

struct LoadCounts {
    struct Kind {
        std::array<std::uint64_t, loadResultsCM> results{};
        double seconds = 0; // of those that were not refused
        std::uint64_t guardRefusals = 0;
    };
    std::array<Kind, loadKindsCM> kinds{};
    std::array<std::uint64_t, rejectionKindsCM> rejected{}; // by LineOutcome, from DUPLICATE on
};

class Metrics {
  public:
    // One thread's counts for one front; it is best on that thread's stack. What it has counted stays when it goes.
    class alignas(64) Cell {
      public:
        Cell(Metrics& metrics, FrontKind front);
        Cell(Cell const&) = delete;
        Cell& operator=(Cell const&) = delete;
        ~Cell();

        void requestEnded(RequestOutcome outcome, std::chrono::nanoseconds duration) noexcept;
        // One whose duration is its client's, as that of a stream: it is not in the histogram.
        void requestEnded(RequestOutcome outcome) noexcept {
            add(FrontCounts::REQUESTS + static_cast<std::size_t>(outcome), 1);
        }
        void lookedUp(bool found) noexcept { add(found ? FrontCounts::LOOKUPS_FOUND : FrontCounts::LOOKUPS_MISSED, 1); }
        void lookedUp(std::uint64_t found, std::uint64_t notFound) noexcept {
            add(FrontCounts::LOOKUPS_FOUND, found);
            add(FrontCounts::LOOKUPS_MISSED, notFound);
        }
        // Both may be of different cells of the front.
        void connectionOpened() noexcept { add(FrontCounts::OPENED, 1); }
        void connectionClosed() noexcept { add(FrontCounts::CLOSED, 1); }
        void connectionRefused(ConnectionRefusal reason) noexcept {
            add(FrontCounts::TURNED_AWAY + static_cast<std::size_t>(reason), 1);
        }
        // Before it is closed, which is counted besides.
        void connectionDropped(ConnectionDrop reason) noexcept {
            add(FrontCounts::DROPPED + static_cast<std::size_t>(reason), 1);
        }
        // Also of what is no request.
        void dnsMessage(DnsOutcome outcome, bool isTcp) noexcept {
            add((isTcp ? FrontCounts::DNS_TCP : FrontCounts::DNS_UDP) + static_cast<std::size_t>(outcome), 1);
        }

      private:
        friend class Metrics;

        // Nobody else writes, so nothing needs to be done in one step.
        void add(std::size_t place, std::uint64_t count) noexcept {
            std::atomic<std::uint64_t>& counter = placesM[place];
            counter.store(counter.load(std::memory_order_relaxed) + count, std::memory_order_relaxed);
        }
        void addTo(FrontCounts& sum) const;

        std::array<std::atomic<std::uint64_t>, FrontCounts::placesCM> placesM{};
        Metrics& metricsM;
        FrontKind const frontM;
        Cell* nextM = nullptr; // as the lock of the metrics guards it
        Cell* previousM = nullptr;
    };

    Metrics() = default;
    Metrics(Metrics const&) = delete;
    Metrics& operator=(Metrics const&) = delete;

    FrontCounts counts(FrontKind front) const;

    // A request that was to load something has ended.
    void loadEnded(LoadKind kind, LoadResult result, double seconds);
    void guardRefused(LoadKind kind);
    // Of a load that has read its file.
    void linesRejected(DAT::NumberPortability::LineCounts const& counts);
    LoadCounts loads() const;

    // When the next assignment takes effect, UTC; none where there is none, or nobody looks.
    void setNextChange(std::optional<BAS::DateTime> at);
    std::optional<BAS::DateTime> nextChange() const;

  private:
    mutable BAS::Mutex lockM;
    Cell* firstM NP_GUARDED_BY(lockM) = nullptr;
    std::array<FrontCounts, frontKindsCM> endedM NP_GUARDED_BY(lockM); // of cells that are gone
    LoadCounts loadsM NP_GUARDED_BY(lockM);
    std::optional<BAS::DateTime> nextChangeM NP_GUARDED_BY(lockM);
};

} // namespace nphost
