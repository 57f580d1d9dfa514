// nphost::Log: receives the reports of the plug-in and the framework, and writes the log.
//
// Purpose: one line a report, as text or as a JSON object (LogReport.h), on standard error or in a file.
// A command that answers at once does not show everything. Unless it is verbose:
// - information (severity below 2) is not shown;
// - of the reports of rejected lines the first rejectLimitCM are shown, the rest is counted;
//   each line once, although two trees are filled and the plug-in reports it for each;
// - failures (severity 4 and up) are kept for the one line in which the command says why it ended.
// A verbose log shows the first loadRejectLimitCM reports of rejected lines of a load, and then how many more there
// were, by kind: a file that is wrong throughout must not fill the disk. A load is known by its thread, and ends with
// the thread's next report that is no warning.
// What the target cannot take is counted; the log says how many reports are missing as soon as it can be written again.
// Ownership: borrows the catalogue, the target and the observer; installs itself as the framework's sink while it
// lives.
// Threads: write by any thread, one at a time; lost by any; a RejectScope and lastReject by the thread that examines a
// file; the rest by the thread that owns the log.
// Errors: write never throws: a report that memory does not suffice for is lost, and counted.
// Complexity: linear in the report, constant for one that is not shown.
#pragma once

#include "framework/BAS/LogSinkIf.h"
#include "framework/BAS/Mutex.h"
#include "host/log/LogReport.h"
#include "host/log/LogTarget.h"
#include "host/log/MessageCatalogue.h"

#include <array>
#include <atomic>
#include <optional>
#include <string>
#include <thread>

namespace nphost {

// Told of every report, on the reporting thread, one at a time, after it was written. It must not report itself and
// should not wait. `shown` is null for a report that was not shown, or that memory did not suffice for.
class ReportObserver {
  public:
    virtual ~ReportObserver() = default;
    virtual void noticed(BAS::Status const& status, LogReport const* shown) noexcept = 0;
};

struct LogSettings {
    bool verbose = false;
    bool json = false;
    LogTarget* target = nullptr; // null: standard error
    ReportObserver* observer = nullptr;
};

class Log : public BAS::LogSinkIf {
  public:
    static constexpr unsigned long rejectLimitCM = 20;
    static constexpr unsigned long loadRejectLimitCM = 1000;

    struct Failure {
        std::string identifier;
        std::string text;
    };
    // Why a line of a data file was rejected, without saying where it is.
    struct Reject {
        std::string identifier;
        std::string detail;
    };

    Log(MessageCatalogue const& catalogue, LogSettings const& settings);
    Log(Log const&) = delete;
    Log& operator=(Log const&) = delete;
    ~Log() override;

    void write(BAS::Status const& status) noexcept override;

    // The first failure that was reported.
    std::optional<Failure> failure() const;

    // While it lives, reports of rejected lines that are made on its thread are not shown, and no observer is told of
    // them: the latest is kept for lastReject. One thread at a time may have one.
    class RejectScope {
      public:
        RejectScope();
        RejectScope(RejectScope const&) = delete;
        RejectScope& operator=(RejectScope const&) = delete;
        ~RejectScope();
    };
    Reject lastReject() const;

    // How many rejected lines were not shown.
    unsigned long hiddenRejects() const;

    // How many reports could not be written. Waits for nobody.
    unsigned long lost() const { return lostM.load(); }

  private:
    enum class Taken { KEPT, HIDDEN, SHOWN };
    static constexpr std::size_t rejectKindsCM = 5;
    Taken take(BAS::Status const& status) NP_REQUIRES(lockM);
    void keep(BAS::Status const& status) NP_REQUIRES(lockM);
    bool isShown(BAS::Status const& status) NP_REQUIRES(lockM);
    bool isAmongFirst(std::size_t kind) NP_REQUIRES(lockM);
    bool isRepeated(BAS::Status const& status) NP_REQUIRES(lockM);
    void endLoad(BAS::Status const& status) NP_REQUIRES(lockM);
    void show(BAS::Status const& status) NP_REQUIRES(lockM);
    bool put(LogReport const& report) NP_REQUIRES(lockM);
    void lose() NP_REQUIRES(lockM);

    MessageCatalogue const& catalogueM;
    LogSettings const settingsM;

    mutable BAS::Mutex lockM;
    std::optional<Failure> failureM NP_GUARDED_BY(lockM);
    unsigned long rejectsM NP_GUARDED_BY(lockM) = 0;
    BAS::Status previousRejectM NP_GUARDED_BY(lockM); // that was reported, shown or not
    std::thread::id loaderM NP_GUARDED_BY(lockM);     // of whose load the two below are
    unsigned long loadRejectsM NP_GUARDED_BY(lockM) = 0;
    std::array<unsigned long, rejectKindsCM> loadHiddenM NP_GUARDED_BY(lockM){};
    std::atomic<unsigned long> lostM{0};
    unsigned long unsaidM NP_GUARDED_BY(lockM) = 0; // of the lost ones, that the log does not say yet
    Reject lastRejectM NP_GUARDED_BY(lockM);
    LogReport reportM NP_GUARDED_BY(lockM); // the latest that was shown
    std::string lineM NP_GUARDED_BY(lockM);
};

} // namespace nphost
