#include "host/fields/DataClock.h"

#include "host/base/HostError.h"
#include "host/base/Instant.h"
#include "host/base/Text.h"
#include "host/config/ConfigurationValue.h"

#include <algorithm>
#include <array>
#include <cstdlib>

namespace nphost {

void DataClock::Settings::declare(Section& host, Configuration& configuration) {
    auto& settings = configuration.place<Settings>();
    // A zone that is none is told with its line, whatever the command.
    host.key("dataZone", [&settings](ConfigurationValue const& value) {
        settings.zone = value.text();
        value.check([&settings] { TimeZone const zone(settings.zone); });
    });
}

DataClock::DataClock(std::string zone) : zoneNameM(std::move(zone)), zoneM(zoneNameM), isoM("iso", zoneNameM) {}

// At the ends of the years there may be no such clock time.
BAS::DateTime DataClock::at(BAS::DateTime utc) const noexcept {
    auto const reading = zoneM.clockAt(static_cast<std::int64_t>(utc.seconds()) - TimeZone::secondsTo1970CM);
    return reading ? reading->instant : utc;
}

BAS::DateTime DataClock::toUtc(BAS::DateTime at) const noexcept {
    constexpr auto last = static_cast<std::int64_t>(BAS::DateTime::invalidSecsCM) - 1;
    std::int64_t const utc = zoneM.beginOf(at) + TimeZone::secondsTo1970CM;
    return BAS::DateTime::fromSeconds(static_cast<std::uint64_t>(std::clamp<std::int64_t>(utc, 0, last)));
}

BAS::DateTime DataClock::read(std::string_view text) const noexcept {
    // What has no offset stays as it stands, also where a change of the clocks makes it doubtful: it is the data's own.
    if (text.empty() || text.back() != 'Z')
        if (BAS::DateTime const at = parseInstant(text); at.isValid())
            return at;
    auto const reading = isoM.read(text);
    return reading ? reading->instant : BAS::DateTime();
}

void DataClock::appendIso(std::string& out, BAS::DateTime at) const {
    constexpr std::string_view pattern = "dddd-dd-ddTdd:dd:dd+00:00";
    InstantDigits const digits(at);
    std::array<char, pattern.size()> text{};
    std::size_t next = 0;
    for (std::size_t i = 0; i < pattern.size(); ++i)
        text[i] = pattern[i] == 'd' ? digits.view()[next++] : pattern[i];
    if (std::int64_t const offset = zoneM.offsetOf(at); offset != 0) {
        // Seconds of an offset, as local mean times have them, have no place in the format.
        std::int64_t const minutes = std::abs(offset) / 60;
        text[19] = offset < 0 ? '-' : '+';
        text[20] = static_cast<char>('0' + minutes / 600);
        text[21] = static_cast<char>('0' + minutes / 60 % 10);
        text[23] = static_cast<char>('0' + minutes % 60 / 10);
        text[24] = static_cast<char>('0' + minutes % 10);
    }
    out.append(text.data(), text.size());
}

BAS::DateTime instantOf(std::optional<std::string> const& option, DataClock const& clock, BAS::DateTime otherwise) {
    if (!option)
        return otherwise;
    BAS::DateTime const at = clock.read(*option);
    // An invalid instant is later than all others, and would silently ask for the newest record.
    if (!at.isValid())
        throw HostError("'" + shortened(*option) +
                        "' is not a valid instant; write YYYYMMDDHHMMSS or YYYY-MM-DDTHH:MM:SS, with +HH:MM or Z if it "
                        "is not the data's clock time");
    return at;
}

} // namespace nphost
