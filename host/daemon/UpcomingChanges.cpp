#include "host/daemon/UpcomingChanges.h"

#include <algorithm>

namespace nphost {

void UpcomingChanges::add(BAS::DateTime at, std::string_view number, std::string_view network) {
    auto place = groupsM.lower_bound(at);
    if (place == groupsM.end() || place->first != at) {
        // Records do not come in the order of their instants: a nearer instant pushes the farthest out.
        bool const full = groupsM.size() == mostInstantsCM;
        cutM = cutM || full;
        if (full && place == groupsM.end())
            return;
        place = groupsM.emplace_hint(place, at, ChangeGroup{0, std::string(number), std::string(network)});
        if (full)
            groupsM.erase(std::prev(groupsM.end()));
    }
    ++place->second.count;
}

// The instant of the exchange itself is the new data's, unless the old data's were announced by then.
BAS::DateTime DueChanges::listAfter(BAS::DateTime liveSince) const {
    auto const before = BAS::DateTime::fromSeconds(std::max<std::uint64_t>(liveSince.seconds(), 1) - 1);
    return announcedM ? std::max(before, *announcedM) : before;
}

void DueChanges::renew(UpcomingChanges const& list, BAS::DateTime liveSince) {
    groupsM = list.groups();
    // What was announced in the meantime is not announced again.
    groupsM.erase(groupsM.begin(), groupsM.upper_bound(listAfter(liveSince)));
    cutM = list.isCut();
    liveSinceM = liveSince;
    // A list that was cut may be followed by more; one that was not is all there is.
    wantsListM = cutM && groupsM.empty();
}

// Not twice in a second, within which the clock does not move.
bool DueChanges::isDue() const {
    BAS::DateTime const now = clockM();
    return !groupsM.empty() && groupsM.begin()->first <= now && now != noticedAtM;
}

std::optional<std::uint64_t> DueChanges::secondsLeft() const {
    if (groupsM.empty())
        return std::nullopt;
    std::uint64_t const now = clockM().seconds();
    std::uint64_t const next = groupsM.begin()->first.seconds();
    return next > now ? next - now : 1; // it is due, but there was a notice in this second
}

std::optional<DueChanges::Notice> DueChanges::take(BAS::DateTime liveSince) {
    BAS::DateTime const now = clockM();
    // From the exchange on, instants are the new data's, for which there is no list yet.
    if (liveSince != liveSinceM) {
        groupsM.erase(groupsM.lower_bound(liveSince), groupsM.end());
        wantsListM = true;
    }
    auto const end = groupsM.upper_bound(now);
    if (end == groupsM.begin() || now == noticedAtM)
        return std::nullopt;
    Notice notice = {groupsM.begin()->first, groupsM.begin()->second};
    for (auto group = std::next(groupsM.begin()); group != end; ++group)
        notice.changes.count += group->second.count;
    // The latest instant, also if the clock is put back afterwards: what was announced stays announced.
    announcedM = std::prev(end)->first;
    noticedAtM = now;
    groupsM.erase(groupsM.begin(), end);
    wantsListM = wantsListM || (cutM && groupsM.empty());
    return notice;
}

} // namespace nphost
