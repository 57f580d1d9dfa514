// nphost::Log: receives the reports of the plug-in and the framework, and writes the log.
//
// Purpose: one line a report, as text or as a JSON object (LogReport.h), on standard error or in a file.
// A command that answers at once does not show everything. Unless it is verbose:
// - information (severity below 2) is not shown;
// - of the reports of rejected lines the first rejectLimitCM are shown, the rest is counted;
// - failures (severity 4 and up) are kept for the one line in which the command says why it ended.
// Ownership: borrows the catalogue, the target and the observer; installs itself as the framework's sink while it
// lives.
// Threads: write by any thread, one at a time; the rest by the thread that owns the log.
// Errors: write never throws: a report that memory does not suffice for is lost.
// Complexity: linear in the report, constant for one that is not shown.
#pragma once

#include "framework/BAS/LogSinkIf.h"
#include "framework/BAS/Mutex.h"
#include "host/LogReport.h"
#include "host/LogTarget.h"
#include "host/MessageCatalogue.h"

#include <optional>
#include <string>

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

    // How many reports of rejected lines were not shown.
    unsigned long hiddenRejects() const;

  private:
    enum class Taken { KEPT, HIDDEN, SHOWN };
    Taken take(BAS::Status const& status) NP_REQUIRES(lockM);
    void keep(BAS::Status const& status) NP_REQUIRES(lockM);
    bool isShown(BAS::Status const& status) NP_REQUIRES(lockM);
    void show(BAS::Status const& status) NP_REQUIRES(lockM);

    MessageCatalogue const& catalogueM;
    LogSettings const settingsM;

    mutable BAS::Mutex lockM;
    std::optional<Failure> failureM NP_GUARDED_BY(lockM);
    unsigned long rejectsM NP_GUARDED_BY(lockM) = 0;
    Reject lastRejectM NP_GUARDED_BY(lockM);
    LogReport reportM NP_GUARDED_BY(lockM); // this and the line are kept for their storage
    std::string lineM NP_GUARDED_BY(lockM);
};

} // namespace nphost
