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
        value.check([&settings] { TimeZone const known(settings.zone); });
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

void DataClock::writeIso(char* out, BAS::DateTime at) const noexcept {
    InstantDigits const digits(at);
    char const* const from = digits.view().data();
    auto const copy = [out, from](std::size_t place, std::size_t first, std::size_t count) {
        std::copy_n(from + first, count, out + place);
    };
    std::copy_n("0000-00-00T00:00:00+00:00", isoLengthCM, out);
    copy(0, 0, 4);
    for (std::size_t i = 0; i < 5; ++i)
        copy(5 + 3 * i, 4 + 2 * i, 2);
    std::int64_t const offset = zoneM.offsetOf(at);
    if (offset == 0)
        return;
    // Seconds of an offset, as local mean times have them, have no place in the format. Rounded so that who asks with what
    // is shown asks for no earlier instant.
    std::int64_t const minutes = (offset < 0 ? 59 - offset : offset) / 60;
    char* const zone = out + 19;
    zone[0] = offset < 0 ? '-' : '+';
    zone[1] = static_cast<char>('0' + minutes / 600);
    zone[2] = static_cast<char>('0' + minutes / 60 % 10);
    zone[4] = static_cast<char>('0' + minutes % 60 / 10);
    zone[5] = static_cast<char>('0' + minutes % 10);
}

void DataClock::appendIso(std::string& out, BAS::DateTime at) const {
    std::array<char, isoLengthCM> text{};
    writeIso(text.data(), at);
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
