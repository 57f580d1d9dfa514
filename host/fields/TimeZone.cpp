#include "host/fields/TimeZone.h"

#include "host/base/HostError.h"
#include "host/base/Text.h"

#include <absl/time/time.h>
#include <algorithm>

namespace nphost {

namespace {

// The library would also take names of files, of the machine's own zone and of fixed offsets.
bool looksLikeName(std::string const& name) {
    constexpr std::string_view others = "_+-/";
    bool const allowed = std::all_of(name.begin(), name.end(), [&](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
               others.find(c) != std::string_view::npos;
    });
    return allowed && !name.empty() && name.front() != '/' && name != "localtime" && !name.starts_with("Fixed/");
}

absl::TimeZone load(std::string const& name) {
    absl::TimeZone zone;
    if (!looksLikeName(name) || !absl::LoadTimeZone(name, &zone))
        throw HostError("there is no time zone '" + shortened(name) +
                        "' in the system's zone database (tzdata); write UTC or a name like Europe/Paris");
    return zone;
}

std::int64_t asUtc(absl::CivilSecond clock) {
    return absl::ToUnixSeconds(absl::FromCivil(clock, absl::UTCTimeZone()));
}

} // namespace

TimeZone::TimeZone(std::string const& name) {
    absl::TimeZone const zone = load(name);
    absl::Time at = absl::FromUnixSeconds(-secondsTo1970CM);
    // Local mean time, in most zones: it holds until the first change.
    firstOffsetM = zone.At(at).offset;
    std::int64_t offset = firstOffsetM;
    // Read once for all: from here on no reading asks the library, nor takes its lock.
    for (absl::TimeZone::CivilTransition change; zone.NextTransition(at, &change);) {
        // The library tells clock times only, before and after the change: the offsets follow from them.
        std::int64_t const instant = asUtc(change.from) - offset;
        std::int64_t const after = asUtc(change.to) - instant;
        addChange(instant, offset, after);
        offset = after;
        at = absl::FromUnixSeconds(instant);
    }
}

void TimeZone::addChange(std::int64_t at, std::int64_t before, std::int64_t after) {
    if (before == after) // a new name or law for the same time
        return;
    changesM.push_back({at, after});
    // In clock time: between the two readings of the moment at which the clocks were changed.
    doubtfulM.push_back({static_cast<std::uint64_t>(at + secondsTo1970CM + std::min(before, after)),
                         static_cast<std::uint64_t>(at + secondsTo1970CM + std::max(before, after)),
                         after < before ? Doubt::AMBIGUOUS : Doubt::IMPOSSIBLE});
}

std::int64_t TimeZone::offsetAt(std::int64_t secondsSince1970) const noexcept {
    auto const next = std::upper_bound(changesM.begin(), changesM.end(), secondsSince1970,
                                       [](std::int64_t at, Change const& change) { return at < change.at; });
    return next == changesM.begin() ? firstOffsetM : std::prev(next)->offset;
}

std::optional<TimeZone::Reading> TimeZone::clockAt(std::int64_t secondsSince1970) const noexcept {
    constexpr auto limit = static_cast<std::int64_t>(BAS::DateTime::invalidSecsCM);
    constexpr std::int64_t margin = 7L * 86400; // more than any offset
    // Before anything is added, which could overflow.
    if (secondsSince1970 < -secondsTo1970CM - margin || secondsSince1970 > limit - secondsTo1970CM + margin)
        return std::nullopt;
    std::int64_t const clock = secondsSince1970 + secondsTo1970CM + offsetAt(secondsSince1970);
    if (clock < 0 || clock >= limit)
        return std::nullopt;
    return judge(BAS::DateTime::fromSeconds(static_cast<std::uint64_t>(clock)));
}

TimeZone::Reading TimeZone::judge(BAS::DateTime clock) const noexcept {
    // They stand in order, so only the last that has begun can hold the time.
    auto const next = std::upper_bound(doubtfulM.begin(), doubtfulM.end(), clock.seconds(),
                                       [](std::uint64_t at, Doubtful const& change) { return at < change.begin; });
    if (next == doubtfulM.begin() || clock.seconds() >= std::prev(next)->end)
        return {clock, Doubt::NONE};
    Doubtful const& found = *std::prev(next);
    // It stays as it stands, and means both.
    if (found.doubt == Doubt::AMBIGUOUS)
        return {clock, found.doubt};
    return {BAS::DateTime::fromSeconds(clock.seconds() + (found.end - found.begin)), found.doubt};
}

// No zone has two changes within two days of each other that matter here.
std::int64_t TimeZone::offsetOf(BAS::DateTime clock) const noexcept {
    constexpr std::int64_t day = 86400;
    if (changesM.empty())
        return firstOffsetM;
    std::int64_t const shown = static_cast<std::int64_t>(clock.seconds()) - secondsTo1970CM;
    std::int64_t const before = offsetAt(shown - day);
    std::int64_t const after = offsetAt(shown + day);
    return offsetAt(shown - before) == before ? before : after;
}

std::int64_t TimeZone::beginOf(BAS::DateTime clock) const noexcept {
    std::int64_t const shown = static_cast<std::int64_t>(clock.seconds()) - secondsTo1970CM;
    std::int64_t const at = shown - offsetOf(clock);
    if (at + offsetAt(at) == shown)
        return at;
    // Left out: by the later offset it would lie before the change.
    auto const change = std::upper_bound(changesM.begin(), changesM.end(), at,
                                         [](std::int64_t each, Change const& next) { return each < next.at; });
    return change == changesM.end() ? at : change->at;
}

} // namespace nphost
