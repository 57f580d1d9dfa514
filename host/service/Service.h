// nphost::Service: what the served data can be asked and commanded, as plain calls.
//
// Purpose: each front (the control socket, and whatever asks over a network) turns its requests into these calls and
// the structs that they return into its answers, so that all fronts agree. Questions are answered at once from the live
// data; what loads or lists them goes to the lane (LoadLane.h), and its outcome comes from there.
// Units: instants are of the data's clock; texts are bytes as they stand in the data, UTF-8 or not.
// Ownership: borrows all its parts. Answers are values, but for what says that it refers to something.
// Threads: standing, describe and explain by any; what commands by the loop's thread, as LoadLane::push.
// Errors: QuestionError for what cannot be answered or commanded, in a sentence without its full stop; std::bad_alloc;
// what a visitor throws travels, and ends the look-ups.
// Complexity: that of the look-ups; commands, which are only taken in, a few system calls.
#pragma once

#include "host/fields/NumberForm.h"
#include "host/module/Explanation.h"
#include "host/service/DataFileState.h"
#include "host/service/LoadGuard.h"
#include "host/service/LoadLane.h"
#include "host/service/QuestionError.h"

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace nphost {

// How the service stands.
struct Standing {
    struct Progress {
        std::uint64_t lines = 0;
        std::uint64_t bytes = 0;
        std::uint64_t totalBytes = 0;
    };

    DAT::NumberPortability::ServiceStatus data;
    DataFileState::Standing file;
    Progress progress; // of the load or check under way; without one it means nothing
    GuardLimits limits;
    LoadGuard::Standing guard;
    std::uint64_t reportsLost = 0; // that the log could not take
    std::uint64_t memoryBytes = 0; // resident
};

struct LookUpQuestion {
    std::vector<std::string> numbers;
    BAS::DateTime at;                   // valid: an invalid one is later than all others
    std::optional<unsigned int> method; // none: as configured
    bool normalise = false;             // numbers are as people write them, else in stored form
};
// What a number's look-up found, and what there is to know around it; all three are of what goes with the call.
struct NumberAnswer {
    BAS::String const& stored; // in stored form
    BAS::DateTime at;
    DAT::NumberPortability::LookUpDetail const& detail;

    std::optional<bool> ported() const { return detail.ported(); }
};
// In the order of the numbers.
using DescribeVisitor = std::function<void(NumberAnswer const& answer)>;

// All that is stored of a number, and what is chosen at an instant.
class Explained {
  public:
    Explained(BAS::String number, BAS::DateTime at, unsigned int configured, Explanation::Prefixes prefixes)
        : numberM(std::move(number)), atM(at), configuredM(configured), prefixesM(std::move(prefixes)),
          explanationM(prefixesM, numberM) {}
    Explained(Explained const&) = delete;
    Explained& operator=(Explained const&) = delete;

    BAS::String const& number() const { return numberM; }
    BAS::DateTime at() const { return atM; }
    unsigned int configured() const { return configuredM; } // the search method
    Explanation::Prefixes const& prefixes() const { return prefixesM; }

    Explanation::Choice choice(unsigned int method) const { return explanationM.choose(method, atM); }
    std::string reason(unsigned int method) const { return explanationM.reason(method, atM); }
    std::optional<Explanation::Change> nextChange() const { return explanationM.nextChange(configuredM, atM); }
    Explanation::Choice range() const { return explanationM.range(atM); }
    std::optional<bool> ported(unsigned int method) const { return explanationM.ported(method, atM); }

  private:
    BAS::String const numberM;
    BAS::DateTime const atM;
    unsigned int const configuredM;
    Explanation::Prefixes const prefixesM;
    Explanation const explanationM;
};

class Service {
  public:
    static constexpr std::size_t mostExplainBytesCM = 1000; // of a number

    struct Parts {
        LoadedPlugIn& plugIn;
        NumberForm const& numbers;
        LoadGuard const& guard;
        DataFileState& dataFile;
        Log const& log;
        LoadLane& lane;
    };

    explicit Service(Parts const& parts) : partsM(parts) {}

    Standing standing();
    // Some at a time, so that no look-up of another front waits long, and no more answers are held than those.
    void describe(LookUpQuestion const& question, DescribeVisitor const& visit);
    // The number in stored form, or as people write it.
    Explained explain(std::string_view number, BAS::DateTime at, bool normalise);

    // Who waits for the outcome of a command: what LoadLane::Job then tells; 0 is nobody.
    using Waiter = std::uint64_t;
    void reload(bool reuse, bool force, Waiter waiter);
    // Absolute names. Without a target the listing goes to the daemon's standard output.
    void delta(std::string file, bool force, Waiter waiter);
    void print(std::optional<std::string> target, Waiter waiter);
    void update(LoadLane::Keys keys, bool force, Waiter waiter);
    // Throws when an update has no such key.
    static void checkUpdateKey(std::string const& key);
    // Commands that have not ended.
    std::size_t waiting() const { return partsM.lane.length(); }

  private:
    BAS::String stored(std::string_view written, bool normalise) const;
    void push(LoadLane::Request request, char const* what);
    void refuseKeptFile(std::string const& target) const;
    void refuseDelta(std::string const& file) const;

    Parts const partsM;
};

} // namespace nphost
