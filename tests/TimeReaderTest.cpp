// The times of foreign files: every format in a table, and zones against the C library's.
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

TEST(DataClockTest, KnowsWhatItShowsAndWhen) {
    struct {
        char const* zone;
        char const* utc;
        char const* shown;
        char const* again; // the instant of UTC when that was shown
    } const cases[] = {
        {"UTC", "20240601113000", "20240601113000", "20240601113000"},
        {"Europe/London", "20240101113000", "20240101113000", "20240101113000"},
        {"Europe/London", "20240601113000", "20240601123000", "20240601113000"},
        {"Europe/London", "20241027003000", "20241027013000", "20241027003000"},
        {"Europe/London", "20241027013000", "20241027013000", "20241027003000"}, // it came twice
        {"America/New_York", "20240101030000", "20231231220000", "20240101030000"},
        {"Europe/London", "20500601113000", "20500601123000", "20500601113000"},
        {"Asia/Kolkata", "00010101000000", "00010101055328", "00010101000000"},     // local mean time
        {"America/New_York", "00010101000000", "00010101000000", "00010101045602"}, // nothing before the year 1
    };
    for (auto const& c : cases) {
        nphost::DataClock const clock(c.zone);
        EXPECT_EQ(digitsOf(clock.at(BAS::DateTime(c.utc))), c.shown) << c.zone << ' ' << c.utc;
        EXPECT_EQ(digitsOf(clock.toUtc(BAS::DateTime(c.shown))), c.again) << c.zone << ' ' << c.shown;
    }
    EXPECT_EQ(digitsOf(nphost::DataClock("Asia/Kolkata").toUtc(BAS::DateTime("00010101000000"))), "00010101000000");
}
