// nphost::Upcoming: what the HTTP front tells of assignments that are still to come.
//
// Purpose: a part of them at a time, by instant and then by prefix, however many there are, each with the network that
// its number leaves.
// Ownership: borrows the plug-in. Threads: any. Errors: HostError when not all could be looked at; std::bad_alloc.
// Complexity: every stored record is looked at (seconds for ten million), and never more than a part is held: so it is
// work for a thread that nobody waits for.
#pragma once

#include "framework/BAS/DateTime.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace nphost {

class LoadedPlugIn;

struct UpcomingQuestion {
    BAS::DateTime from;  // later ones than this
    BAS::DateTime until; // earlier ones than this; invalid: all
    std::size_t limit = 100;
    std::string after; // a cursor: where the part before ended; empty: from the beginning
};

struct UpcomingEntry {
    BAS::DateTime validFrom;
    std::string prefix;
    std::string network;
    // What a look-up answers for the second before; none: nobody's. Asked when the records are known, so after a load in
    // between it is that of the newer data.
    std::optional<std::string> before;
    auto operator<=>(UpcomingEntry const& other) const {
        if (auto const order = validFrom <=> other.validFrom; order != 0)
            return order;
        return prefix <=> other.prefix;
    }
};

struct UpcomingEntries {
    std::vector<UpcomingEntry> entries;
    std::string next; // cursor; empty: there are no more
};

// False when a cursor is none.
bool isCursor(std::string_view text);
UpcomingEntries upcoming(LoadedPlugIn& plugIn, UpcomingQuestion const& question);

} // namespace nphost
