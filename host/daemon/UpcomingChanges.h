// nphost::UpcomingChanges and DueChanges: which assignments are to come next, and which have just taken effect.
//
// Purpose: UpcomingChanges gathers from the records of the live data the next mostInstantsCM instants at which
// assignments take effect, with their counts and one sample each: enough to announce them, whatever the data's size.
// DueChanges holds such a list and says, by a clock that it is given, what is due, at most once a second.
// What is true at an instant decides: data that were exchanged since the list was made have no say about the time
// before the exchange, nor has the list about the time after it. What was announced is not announced again, also when
// the clock is put back.
// Units: whole seconds.
// Ownership: values; the clock is a copy.
// Threads: none inside.
// Errors: std::bad_alloc; what the clock throws travels.
// Complexity: gathering takes a step in a search tree of mostInstantsCM a record, the rest is linear in what is due.
#pragma once

#include "framework/BAS/DateTime.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace nphost {

// The assignments that take effect at one instant, or within a short time.
struct ChangeGroup {
    std::uint64_t count = 0;
    std::string number; // of the first of them
    std::string network;
};

class UpcomingChanges {
  public:
    static constexpr std::size_t mostInstantsCM = 1000;
    using Groups = std::map<BAS::DateTime, ChangeGroup>;

    // The records of one instant come in the order of their numbers.
    void add(BAS::DateTime at, std::string_view number, std::string_view network);

    Groups const& groups() const { return groupsM; }
    // Whether there were later instants, too.
    bool isCut() const { return cutM; }

  private:
    Groups groupsM;
    bool cutM = false;
};

class DueChanges {
  public:
    using Clock = std::function<BAS::DateTime()>;

    struct Notice {
        BAS::DateTime at; // of the first
        ChangeGroup changes;
    };

    explicit DueChanges(Clock clock) : clockM(std::move(clock)) {}

    // A list made of data that went live at `liveSince`.
    void renew(UpcomingChanges const& list, BAS::DateTime liveSince);

    // From when on a list for data of that age must reach: the instants after it.
    BAS::DateTime listAfter(BAS::DateTime liveSince) const;

    // Whether take() may have something by now; if not, in how many seconds it is worth asking again. None: there is
    // nothing to wait for.
    bool isDue() const;
    std::optional<std::uint64_t> secondsLeft() const;

    // The next instant at which something takes effect.
    std::optional<BAS::DateTime> next() const {
        return groupsM.empty() ? std::nullopt : std::optional(groupsM.begin()->first);
    }

    // What has taken effect and was not announced; `liveSince` is that of the data that are live now.
    std::optional<Notice> take(BAS::DateTime liveSince);

    // The list is used up or outdated: make another one.
    bool wantsList() const { return wantsListM; }

  private:
    Clock clockM;
    UpcomingChanges::Groups groupsM;
    bool cutM = false;
    bool wantsListM = true;
    BAS::DateTime liveSinceM;                                 // of the list
    std::optional<BAS::DateTime> announcedM;                  // the latest instant
    BAS::DateTime noticedAtM = BAS::DateTime::fromSeconds(0); // the second of the latest notice
};

} // namespace nphost
