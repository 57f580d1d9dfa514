// nphost::ReportHub: sorts the reports of the log by the thread that made them, for the daemon.
//
// Purpose: two questions are asked about reports:
// - What has been reported lately? The latest recentCM are kept, numbered in their order; since() gives those from a
//   number on, so that each follower of the log needs to remember nothing but a number.
// - What did this work report? While a CollectingScope lives on a thread, that thread's reports also go to its
//   collector. They are for people to read: how the work ended is what it returned.
// Ownership: values; it must outlive the log.
// Threads: noticed by any thread, collectors by the thread that they were set for, everything else by the
// loop's.
// Errors: std::bad_alloc; noticed never throws: what memory does not suffice for is not kept.
// Complexity: linear in the report; since() in the reports that it gives.
#pragma once

#include "framework/BAS/Mutex.h"
#include "host/base/WakeUp.h"
#include "host/log/Log.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <vector>

namespace nphost {

// The reports of one piece of work: all that matter and the first few of rejected lines.
class ReportCollector {
  public:
    void add(BAS::Status const& status, LogReport const* shown) noexcept;

    std::vector<LogReport> const& reports() const { return reportsM; }
    unsigned long leftOut() const { return leftOutM; }
    bool hasFailure() const { return failureM; } // one of severity 4 or more
    bool hasWriteFailure() const { return writeFailureM; }

  private:
    static constexpr std::size_t mostWarningsCM = 20;
    static constexpr std::size_t mostReportsCM = 200;

    std::vector<LogReport> reportsM;
    std::size_t warningsM = 0;
    unsigned long leftOutM = 0;
    bool failureM = false;
    bool writeFailureM = false;
};

class ReportHub : public ReportObserver {
  public:
    static constexpr std::size_t recentCM = 1000;
    using Clock = std::chrono::steady_clock;

    struct Recent {
        std::vector<LogReport> reports;
        std::uint64_t next = 0; // the number of the report that is still to come
        std::uint64_t lost = 0; // asked for and no longer kept
    };

    // Collects the reports of the thread that makes it, which must also end it. Scopes nest: the innermost collects.
    // The collector must outlive it.
    class CollectingScope {
      public:
        explicit CollectingScope(ReportCollector& collector);
        CollectingScope(CollectingScope const&) = delete;
        CollectingScope& operator=(CollectingScope const&) = delete;
        ~CollectingScope();

      private:
        ReportCollector* beforeM;
    };

    void noticed(BAS::Status const& status, LogReport const* whole) noexcept override;

    // For the loop: readable when there is news, of reports or of whoever else wakes it.
    WakeUp const& wakeUp() const { return wakeUpM; }

    Recent since(std::uint64_t number) const;
    // The number from which on the last `count` are kept.
    std::uint64_t last(std::size_t count) const;

  private:
    void keep(LogReport const& report) noexcept NP_REQUIRES(lockM);

    WakeUp wakeUpM;
    mutable BAS::Mutex lockM;
    std::deque<LogReport> recentM NP_GUARDED_BY(lockM);
    std::uint64_t nextM NP_GUARDED_BY(lockM) = 0;
};

} // namespace nphost
