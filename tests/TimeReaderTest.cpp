// The times of foreign files: every format in a table, zones against the C library's, and the data's clock.
#include "host/fields/TimeReader.h"
#include "host/base/HostError.h"
#include "host/base/Instant.h"
#include "host/fields/DataClock.h"
#include "tests/SeededRandom.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <set>
#include <vector>

namespace {

using nphost::digitsOf;
using nphost::TimeReader;
using Doubt = TimeReader::Doubt;

std::string shownOf(std::optional<TimeReader::Reading> const& reading) {
    if (!reading)
        return "-";
    constexpr char const* marks[] = {"", " twice", " never"};
    return digitsOf(reading->instant) + marks[static_cast<int>(reading->doubt)];
}

struct Written {
    char const* format;
    char const* zone;
    std::string text;
    char const* reading;
};

std::vector<Written> const writtenCM = {
    {"digits", "UTC", "20240229235959", "20240229235959"},
    {"digits", "UTC", " \t20240229235959\t ", "20240229235959"},
    {"digits", "UTC", "20230229000000", "-"},
    {"digits", "UTC", "202402292359", "-"},
    {"digits", "UTC", "", "-"},
    {"digits", "Europe/Berlin", "20240331015959", "20240331015959"},
    {"digits", "Europe/Berlin", "20240331020000", "20240331030000 never"},
    {"digits", "Europe/Berlin", "20240331025959", "20240331035959 never"},
    {"digits", "Europe/Berlin", "20240331030000", "20240331030000"},
    {"digits", "Europe/Berlin", "20241027015959", "20241027015959"},
    {"digits", "Europe/Berlin", "20241027020000", "20241027020000 twice"},
    {"digits", "Europe/Berlin", "20241027025959", "20241027025959 twice"},
    {"digits", "Europe/Berlin", "20241027030000", "20241027030000"},
    {"digits", "Pacific/Apia", "20111230120000", "20111231120000 never"}, // a whole day left out
    // tzdata lists changes to 2037 only, and rules for those after
    {"digits", "Europe/Berlin", "20500327023000", "20500327033000 never"},

    {"iso", "UTC", "2024-06-01T12:30:45Z", "20240601123045"},
    {"iso", "UTC", "2024-06-01t12:30:45z", "20240601123045"},
    {"iso", "UTC", "20240601T123045Z", "20240601123045"},
    {"iso", "UTC", "2024-06-01 12:30:45", "20240601123045"},
    {"iso", "UTC", "2024-06-01T12:30", "20240601123000"},
    {"iso", "UTC", "20240601T1230+0100", "20240601113000"},
    {"iso", "UTC", "2024-06-01T12:30:45.999Z", "20240601123045"},
    {"iso", "UTC", "2024-06-01T12:30:45,5-05:30", "20240601180045"},
    {"iso", "UTC", "2024-06-01T00:00:00+14", "20240531100000"},
    {"iso", "UTC", "2024-06-01 12:30:45 -0000", "20240601123045"},
    {"iso", "UTC", "2024-12-31T24:00:00Z", "20250101000000"},
    {"iso", "UTC", "2024-12-31T24:00:01Z", "-"},
    {"iso", "UTC", "2024-12-31T24:00:00.5Z", "-"},
    {"iso", "UTC", "9999-12-31T24:00:00Z", "-"},
    {"iso", "UTC", "2016-12-31T23:59:60Z", "20161231235959"}, // leap second
    {"iso", "UTC", "2017-01-01T05:29:60+05:30", "20161231235959"},
    {"%d/%m/%Y %H:%M:%S", "UTC", "31/12/2016 23:59:60", "20161231235959"},
    {"%Y-%m-%dT%H:%M:%E*S%Ez", "UTC", "2060-12-31T06:06:60.60+01:00", "20601231050659"},
    {"%H%M%E*S %j %m/%d/%Y", "UTC", "060000.60 060 02/29/2060", "20600229060000"}, // none of them is one
    {"%s", "UTC", "960", "19700101001600"},
    {"digits", "UTC", "20161231235960", "-"},
    {"iso", "UTC", "2017-01-01T05:28:60.5Z", "20170101052859"},
    {"iso", "UTC", "0001-01-01T00:00:00+00:01", "-"},
    {"iso", "UTC", "9999-12-31T23:59:59-00:01", "-"},
    {"iso", "UTC", "2024-06-01", "-"},
    {"iso", "UTC", "2024-06-01T12", "-"},
    {"iso", "UTC", "2024-0601T12:30:45", "-"},
    {"iso", "UTC", "2024-06-01T12:30:45.", "-"},
    {"iso", "UTC", "2024-06-01T12:30:45.Z", "-"},
    {"iso", "UTC", "2024-06-01T12:30:45+", "-"},
    {"iso", "UTC", "2024-06-01T12:30:45+1", "-"},
    {"iso", "UTC", "2024-06-01T12:30:45+01:", "-"},
    {"iso", "UTC", "2024-06-01T12:30:45+24:00", "-"},
    {"iso", "UTC", "2024-06-01T12:30:45+01:60", "-"},
    {"iso", "UTC", "2024-06-01T12:30:45+01:00x", "-"},
    {"iso", "UTC", "2024-06-01T25:30:45Z", "-"},
    {"iso", "UTC", "2024-W22-6T12:30:45Z", "-"},
    {"iso", "Europe/Berlin", "2024-06-01T12:30:45Z", "20240601143045"},
    {"iso", "Europe/Berlin", "2024-06-01T12:30:45", "20240601123045"},
    {"iso", "Europe/Berlin", "2050-06-01T12:30:45Z", "20500601143045"},
    {"iso", "Europe/Berlin", "2024-03-31T02:30:00", "20240331033000 never"},
    {"iso", "Europe/Berlin", "2024-10-27T00:30:00Z", "20241027023000 twice"},
    {"iso", "Europe/Berlin", "2024-10-27T01:30:00Z", "20241027023000 twice"},
    {"iso", "Europe/Berlin", "2024-10-27T02:00:00Z", "20241027030000"},

    {"seconds", "UTC", "0", "19700101000000"},
    {"seconds", "UTC", "1700000000.999", "20231114221320"},
    {"seconds", "UTC", "-0.5", "19691231235959"},
    {"seconds", "UTC", "-1.0", "19691231235959"},
    {"seconds", "UTC", "-62135596800", "00010101000000"},
    {"seconds", "UTC", "-62135596801", "-"},
    {"seconds", "UTC", "253402300799", "99991231235959"},
    {"seconds", "UTC", "253402300800", "-"},
    {"seconds", "UTC", "9223372036854775807", "-"},
    {"seconds", "UTC", "-9223372036854775808.5", "-"},
    {"seconds", "UTC", "9223372036854775808", "-"},
    {"seconds", "UTC", "1700000000.", "-"},
    {"seconds", "UTC", "+1700000000", "-"},
    {"seconds", "UTC", "1e9", "-"},
    {"seconds", "America/New_York", "1700000000", "20231114171320"},
    {"milliseconds", "UTC", "1700000000999", "20231114221320"},
    {"milliseconds", "UTC", "-1", "19691231235959"},
    {"milliseconds", "UTC", "-1000", "19691231235959"},
    {"milliseconds", "UTC", "1700000000999.5", "-"},

    {"%Y%m%d%H%M%S", "UTC", "20240701123045", "20240701123045"},
    {"%d/%m/%Y %H:%M", "UTC", "01/07/2024 12:30", "20240701123000"},
    {"%d.%m.%y", "UTC", "31.12.99", "19991231000000"},
    {"%d %b %Y %I:%M:%S %p", "UTC", "1 Jul 2024 12:30:45 AM", "20240701003045"},
    {"%Y-%m-%d %H:%M:%E*S", "UTC", "2024-07-01 12:30:45.77", "20240701123045"},
    {"%Y-%m-%dT%H:%M:%S%z", "Europe/Berlin", "2024-07-01T12:30:45-0500", "20240701193045"},
    {"%Y-%m-%d %H:%M:%S %Ez", "UTC", "2024-07-01 12:30:45 +05:30", "20240701070045"},
    {"epoch %s", "Europe/Berlin", "epoch 1700000000", "20231114231320"},
    {"%Y-%m-%d %H:%M", "Europe/Berlin", "2024-03-31 02:30", "20240331033000 never"},
    {"%Y-%m-%d", "UTC", "2024-02-30", "-"},
    {"%Y-%m-%d", "UTC", "12024-02-01", "-"},
    {"%Y-%m-%d", "UTC", "0000-02-01", "-"},
    {"%Y-%m-%d", "UTC", "2024-02-01 12:00", "-"},
    {"%Y-%m-%d", "UTC", std::string("2024-02-01\0", 11), "-"},
    {"%Y-%m-%d", "UTC", "infinite-future", "-"},
};

TEST(TimeReaderTest, ReadsEveryFormat) {
    for (Written const& test : writtenCM)
        EXPECT_EQ(shownOf(TimeReader(test.format, test.zone).read(test.text)), test.reading)
            << test.format << ", " << test.zone << ": '" << test.text << "'";
}

TEST(TimeReaderTest, RefusesFormatsAndZonesThatAreNone) {
    struct Case {
        char const* label;
        char const* format;
        char const* zone;
        char const* reason;
    };
    std::vector<Case> const cases = {
        {"unknown word", "ISO", "UTC", "no time format 'ISO'"},
        {"nothing", "", "UTC", "no time format ''"},
        {"no day", "%H:%M", "UTC", "does not tell a day"},
        {"day of the year, which is not read", "%Y %j", "UTC", "does not tell a day"},
        {"half a day", "%Y-%m-%d %I:%M", "UTC", "does not tell a day"},
        {"a century, which is not read", "%C%y-%m-%d", "UTC", "does not tell a day"},
        {"week date", "%G-W%V-%u", "UTC", "does not tell a day"},
        {"unfinished", "%Y-%m-%d %", "UTC", "does not tell a day"},
        {"zone by name", "%Y-%m-%d %H:%M %Z", "UTC", "%Z"},
        {"misspelt zone", "iso", "Europe/Berlni", "no time zone 'Europe/Berlni'"},
        {"no zone", "iso", "", "no time zone ''"},
        {"a file", "iso", "/usr/share/zoneinfo/Europe/Berlin", "no time zone"},
        {"a file elsewhere", "iso", "../zoneinfo/Europe/Berlin", "no time zone"},
        {"the machine's own", "iso", "localtime", "no time zone"},
        {"control characters", "iso", "UTC\n", "no time zone 'UTC\\n'"},
    };
    for (Case const& test : cases) {
        try {
            TimeReader const reader(test.format, test.zone);
            ADD_FAILURE() << test.label;
        } catch (nphost::HostError const& error) {
            EXPECT_NE(std::string(error.what()).find(test.reason), std::string::npos)
                << test.label << ": " << error.what();
        }
    }
}

// The C library's idea of a zone, for as long as the object lives.
class SystemZone {
  public:
    explicit SystemZone(char const* name) {
        setenv("TZ", name, 1); // NOLINT(concurrency-mt-unsafe): the test has one thread
        tzset();
    }
    SystemZone(SystemZone const&) = delete;
    SystemZone& operator=(SystemZone const&) = delete;
    ~SystemZone() {
        unsetenv("TZ"); // NOLINT(concurrency-mt-unsafe)
        tzset();
    }

    static long offsetAt(std::int64_t unixSeconds) {
        std::tm fields = {};
        localtime_r(&unixSeconds, &fields);
        return fields.tm_gmtoff;
    }

    // The absolute times at which clocks show `clock`, itself given as if it were UTC.
    static std::set<std::int64_t> timesOf(std::int64_t clock) {
        std::set<std::int64_t> times;
        for (long const around : {-86400L, 0L, 86400L}) {
            std::int64_t const time = clock - offsetAt(clock + around);
            if (time + offsetAt(time) == clock)
                times.insert(time);
        }
        return times;
    }
};

BAS::DateTime fromUnix(std::int64_t seconds) {
    return BAS::DateTime::fromSeconds(static_cast<std::uint64_t>(seconds + nphost::TimeZone::secondsTo1970CM));
}

// The first change of the offset within 400 days, or the time itself.
std::int64_t nextChange(std::int64_t time) {
    constexpr std::int64_t step = std::int64_t{10} * 86400;
    std::int64_t after = time;
    do
        after += step;
    while (SystemZone::offsetAt(after) == SystemZone::offsetAt(time) && after < time + 40 * step);
    std::int64_t before = after - step;
    if (SystemZone::offsetAt(after) == SystemZone::offsetAt(before))
        return time;
    while (after - before > 1) {
        std::int64_t const middle = before + (after - before) / 2;
        (SystemZone::offsetAt(middle) == SystemZone::offsetAt(before) ? before : after) = middle;
    }
    return after;
}

void expectAgreement(nphost::TimeZone const& zone, std::int64_t time, std::string const& label) {
    std::int64_t const clock = time + SystemZone::offsetAt(time);
    bool const twice = SystemZone::timesOf(clock).size() > 1;
    ASSERT_EQ(shownOf(zone.clockAt(time)), digitsOf(fromUnix(clock)) + (twice ? " twice" : "")) << label << time;
    std::size_t const times = SystemZone::timesOf(time).size();
    Doubt const doubt = times == 0 ? Doubt::IMPOSSIBLE : times == 1 ? Doubt::NONE : Doubt::AMBIGUOUS;
    ASSERT_EQ(zone.judge(fromUnix(time)).doubt, doubt) << label << "the clock time " << digitsOf(fromUnix(time));
    std::int64_t const begin = zone.beginOf(fromUnix(time));
    ASSERT_GE(begin + SystemZone::offsetAt(begin), time) << label;
    ASSERT_LT(begin - 1 + SystemZone::offsetAt(begin - 1), time) << label;
    if (times > 0) {
        ASSERT_EQ(begin, *SystemZone::timesOf(time).begin()) << label;
    }
}

struct Told {
    char const* zone;
    char const* text;
    char const* iso; // as the instant that it is read as is shown; empty: it is none
    char const* utc;
};

std::vector<Told> const toldCM = {
    {"UTC", "20240701120000", "2024-07-01T12:00:00+00:00", "20240701120000"},
    {"UTC", "2024-07-01T12:00:00+02:00", "2024-07-01T10:00:00+00:00", "20240701100000"},
    {"Europe/London", "20240701120000", "2024-07-01T12:00:00+01:00", "20240701110000"},
    {"Europe/London", "2024-07-01 12:00:00", "2024-07-01T12:00:00+01:00", "20240701110000"},
    {"Europe/London", "2024-07-01T12:00:00Z", "2024-07-01T13:00:00+01:00", "20240701120000"},
    {"Europe/London", "2024-07-01T12:00:00-03:30", "2024-07-01T16:30:00+01:00", "20240701153000"},
    // the hour that came twice is one in the data, and the first is shown
    {"Europe/London", "2024-10-27T00:59:59Z", "2024-10-27T01:59:59+01:00", "20241027005959"},
    {"Europe/London", "2024-10-27T01:00:00Z", "2024-10-27T01:00:00+01:00", "20241027000000"},
    {"Europe/London", "2024-10-27T01:59:59Z", "2024-10-27T01:59:59+01:00", "20241027005959"},
    {"Europe/London", "2024-10-27T02:00:00Z", "2024-10-27T02:00:00+00:00", "20241027020000"},
    // the hour that was left out stays in the data as it stands, and is over when it should begin
    {"Europe/London", "2024-03-31T00:59:59Z", "2024-03-31T00:59:59+00:00", "20240331005959"},
    {"Europe/London", "20240331013000", "2024-03-31T01:30:00+01:00", "20240331010000"},
    {"Europe/London", "2024-03-31T01:00:00Z", "2024-03-31T02:00:00+01:00", "20240331010000"},
    {"Asia/Kathmandu", "2024-07-01T12:00:00Z", "2024-07-01T17:45:00+05:45", "20240701120000"},
    {"America/St_Johns", "2024-01-01T12:00:00Z", "2024-01-01T08:30:00-03:30", "20240101120000"},
    {"Pacific/Kiritimati", "9999-12-31T12:00:00Z", "", ""},
    {"Pacific/Kiritimati", "00010101000000", "0001-01-01T00:00:00-10:30", "00010101102920"},
    {"Asia/Kolkata", "2050-06-01T11:30:00Z", "2050-06-01T17:00:00+05:30", "20500601113000"},
    {"Asia/Kolkata", "00010101055328", "0001-01-01T05:53:28+05:53", "00010101000000"}, // local mean time
    {"Etc/GMT-14", "00010101000000", "0001-01-01T00:00:00+14:00", "00010101000000"},
    {"Etc/GMT+12", "99991231235959", "9999-12-31T23:59:59-12:00", "99991231235959"},
    {"Europe/London", "2024-06-31T12:00:00Z", "", ""},
    {"Europe/London", "2024-07-01", "", ""},
    {"Europe/London", "Z", "", ""},
    {"Europe/London", "", "", ""},
};

TEST(DataClockTest, ReadsAndShowsInstantsOfItsZone) {
    for (Told const& test : toldCM) {
        nphost::DataClock const clock(test.zone);
        BAS::DateTime const at = clock.read(test.text);
        std::string iso;
        std::string utc;
        if (at.isValid()) {
            clock.appendIso(iso, at);
            utc = digitsOf(clock.toUtc(at));
        }
        EXPECT_EQ(std::pair(iso, utc), std::pair(std::string(test.iso), std::string(test.utc)))
            << test.zone << " " << test.text;
    }
}

// Random times; half of them near a change, both as absolute times and as clock times.
TEST(TimeReaderTest, AgreesWithTheSystemAboutZones) {
    SeededRandom random;
    std::uniform_int_distribution<std::int64_t> anyTime(-1'500'000'000, 12'000'000'000); // 1922 to 2350
    std::uniform_int_distribution<std::int64_t> nearby(-30L * 3600, 30L * 3600);
    for (char const* const name : {"UTC", "Europe/Berlin", "America/New_York", "Australia/Lord_Howe", "Pacific/Apia",
                                   "America/Caracas", "Africa/Casablanca", "Asia/Kathmandu", "America/Sao_Paulo"}) {
        SystemZone const system(name);
        nphost::TimeZone const zone(name);
        for (int i = 0; i < 5000; ++i) {
            std::int64_t time = anyTime(random);
            if (i % 2 == 0)
                time = nextChange(time) + nearby(random);
            ASSERT_NO_FATAL_FAILURE(expectAgreement(zone, time, std::string(name) + ": "));
        }
    }
}

} // namespace
