// nphost::LoadGuard: keeps a broken data file from going live.
//
// Purpose: before a load is commanded, check reads the file as 'nphost check' does and holds it against the configured
// limits. What crosses one is refused, and the load must not be commanded. What passes is bound to the version of the
// file that was read: until ended, the module loads that file only as this version, from its opening to its last line
// (PlugIn::expectFile), so that a file cannot be exchanged between check and load. A forced load is not checked and not
// bound.
// Use: check; if it passed, command the load and wait for its end; then ended. One check or load at a time.
// Ownership: borrows the plug-in and its log; both must outlive it.
// Threads: check and ended by any, one at a time; standing and stop by any.
// Errors: std::bad_alloc, from check as an outcome that has not passed.
// Complexity: a check is linear in the file and holds one tree of its records. Where nothing is asked but that there is
// a record it ends soon after the first one. Without limits for the kind of load it does nothing, and passes.
#pragma once

#include "framework/BAS/DateTime.h"
#include "framework/BAS/Mutex.h"
#include "host/log/Log.h"
#include "host/module/GuardLimits.h"
#include "host/module/LoadedModule.h"
#include "host/service/ReportHub.h"

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace nphost {

// What became of one check.
struct LoadCheck {
    LoadKind kind = LoadKind::RELOAD;
    std::string file;
    bool guarded = false;  // there are limits for such a load
    bool forced = false;   // they were not asked
    bool examined = false; // the file could be read
    bool cursory = false;  // only to its first record, because nothing else is asked; the figures then mean nothing
    bool passed = false;
    bool stopped = false;             // cut short because the daemon ends: no refusal
    std::uint64_t loads = 0;          // that the plug-in had ended by then
    std::vector<std::string> reasons; // why it has not passed
    double seconds = 0;
    BAS::DateTime ended;
    LoadFigures figures;
    ReportCollector reports;
};

class LoadGuard {
  public:
    LoadGuard(GuardLimits const& limits, LoadedPlugIn& plugIn, Log const& log);
    LoadGuard(LoadGuard const&) = delete;
    LoadGuard& operator=(LoadGuard const&) = delete;
    ~LoadGuard() = default;

    bool isOn() const { return limitsM.any(); }
    GuardLimits const& limits() const { return limitsM; }

    // Reports what became of it, on the caller's thread.
    LoadCheck check(LoadKind kind, std::string const& file, bool force);
    // The load that a check let pass is over.
    void ended();

    // Ends the check or load under way, and all to come: a check does not pass, and counts as stopped.
    void stop();

    struct Standing {
        std::optional<std::string> checking;  // the file
        std::optional<LoadCheck> lastRefusal; // without reports

        // A load was refused, and none has ended since of the plug-in's `loads`.
        bool isRefused(std::uint64_t loads) const { return lastRefusal && lastRefusal->loads == loads; }
    };
    Standing standing() const;

  private:
    // The file is shown as being checked while it lives.
    class Checking {
      public:
        Checking(LoadGuard& owner, std::string const& file);
        Checking(Checking const&) = delete;
        Checking& operator=(Checking const&) = delete;
        ~Checking();

      private:
        LoadGuard& ownerM;
    };

    void carryOut(LoadCheck& check);
    DAT::NumberPortability::DataSummary examineFile(LoadCheck& check);
    bool mayGoOn(LoadCheck const& check, std::uint64_t treeBytes) const;
    std::vector<std::string> faults(LoadCheck const& check, bool changed) const;
    static void report(LoadCheck const& check);

    GuardLimits const limitsM;
    LoadedPlugIn& plugInM;
    Log const& logM;
    std::atomic<bool> stopM{false};

    mutable BAS::Mutex lockM;
    Standing standingM NP_GUARDED_BY(lockM);
};

} // namespace nphost
