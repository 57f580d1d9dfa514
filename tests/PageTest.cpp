// The page's HTML and the timeline behind it, of histories that the tests write down. What a browser makes of it is
// tried by scripts/test-page.
#include "host/http/Page.h"
#include "host/http/Timeline.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <sstream>

namespace {

using DAT::NumberPortability::StoredPrefix;
using nphost::Explained;
using nphost::Timeline;

BAS::DateTime at(std::string_view digits) {
    std::string text(digits);
    text += std::string_view("00000101000000").substr(text.size());
    return BAS::DateTime(std::string_view(text));
}

// Of "PREFIX INSTANT NETWORK" in any order; an instant's first digits may do.
Explained explain(std::string const& number, char const* asked, std::string const& data, unsigned int method = 0) {
    std::map<std::string, std::map<BAS::DateTime, std::string>> all;
    std::istringstream lines(data);
    for (std::string prefix, instant, network; lines >> prefix >> instant >> network;)
        all[prefix].emplace(at(instant), network);
    nphost::Explanation::Prefixes prefixes;
    for (auto entry = all.rbegin(); entry != all.rend(); ++entry) { // of one number's prefixes, the longest is the last
        StoredPrefix& prefix = prefixes.emplace_back();
        prefix.key = BAS::String(entry->first);
        for (auto record = entry->second.rbegin(); record != entry->second.rend(); ++record)
            prefix.history.push_back({record->first, BAS::SimpleString(record->second.c_str())});
    }
    return {BAS::String(number), at(asked), method, std::move(prefixes)};
}

constexpr char const* nowCM = "20261124";

std::string textOf(std::vector<Timeline::Band> const& bands) {
    constexpr std::array<char const*, 3> kinds = {"", " ported", " block"};
    std::string text;
    for (auto const& band : bands)
        text += (text.empty() ? "" : ", ") + band.from.asString("%Y").str() + " " +
                (band.network.empty() ? "-" : std::string(band.network)) +
                kinds.at(static_cast<std::size_t>(band.kind)) + (band.chosen ? "*" : "");
    return text;
}

struct Setting {
    nphost::Standing standing;
    nphost::PageSetting page{
        at(nowCM),
        at(nowCM),
        "Europe/<London>",
        [](BAS::DateTime when) { return when.asString("%Y-%m-%dT%H:%M:%S+00:00").str(); },
        [](std::string_view id) {
            return id == "NAMED" ? nphost::PageNetwork{"A & B", "234", "15", "+4479", "<i>"} : nphost::PageNetwork();
        },
        "00",
        standing};
};

bool has(std::string const& page, std::string const& part) {
    return page.find(part) != std::string::npos;
}

} // namespace

TEST(PageTest, BandsSayWhoseTheNumberWasAndWhy) {
    struct Case {
        char const* what;
        char const* data;
        unsigned int method;
        char const* asked;
        char const* answers;
    };
    std::vector<Case> const cases = {
        {"the block's until the number has a record of its own", "0044 2018 A 00447 2020 B", 0, "2019",
         "2018 A block*, 2020 B ported"},
        {"back at the block's network: no longer ported", "0044 2018 A 00447 2020 B 00447 2022 A", 0, "2026",
         "2018 A block, 2020 B ported, 2022 A*"},
        {"the block changes hands below the number", "0044 2018 A 0044 2022 B 00447 2020 B", 0, "2020",
         "2018 A block, 2020 B ported*, 2022 B"},
        {"the nearest block says whose range it is", "00 2010 C 0044 2018 A 00447 2020 A", 0, "2026",
         "2010 C block, 2018 A block, 2020 A*"},
        {"no block, then one", "00447 2020 B 0044 2022 A", 0, "2021", "2020 B*, 2022 B ported"},
        {"the same network twice is one period", "00447 2020 B 00447 2021 B", 0, "2021", "2020 B*"},
        {"asked before all records", "00447 2020 B", 0, "2019", "2020 B"},
        {"the exact method does not ask the block", "0044 2018 A 00447 2020 B", 1, "2019", "2018 -*, 2020 B ported"},
        {"the shortest prefix hides the number", "0044 2018 A 00447 2020 B", 2, "2026", "2018 A block*"},
        {"nor does it wait for a block that is to come", "0044 2030 A 00447 2020 B", 2, "2026",
         "2020 -*, 2030 A block"},
        {"the exact method where only blocks are stored", "0044 2018 A", 1, "2026", "2018 -*"},
    };
    for (Case const& test : cases) {
        Explained const explained = explain("00447", test.asked, test.data, test.method);
        EXPECT_EQ(textOf(Timeline(explained, at(nowCM)).answers()), test.answers) << test.what;
    }
}

// Wherever the records lie, the axis goes from left to right, holds all that is shown, and shows each period.
TEST(PageTest, TheAxisHoldsTheOddestHistories) {
    std::string many;
    for (int i = 0; i < 300; ++i)
        many += "00447 2026010100" + std::to_string(1000 + i / 60 * 100 + i % 60) + " N" + std::to_string(i % 2) + " ";
    for (std::string const& data :
         {std::string("00447 2020 A"), std::string("00447 20261124 A"), std::string("00447 99991231235959 A"),
          std::string("00447 00010101 A 00447 00010101000001 B 00447 99991231235959 C"),
          std::string("0044 00010101 A 00447 2020 B 00447 20200101000001 C"), many}) {
        for (char const* const asked : {"00010101", "20200101", "20261124", "99991231235959"}) {
            Explained const explained = explain("00447", asked, data);
            Timeline const timeline(explained, at(nowCM));
            auto const& scale = timeline.scale();
            EXPECT_TRUE(std::is_sorted(
                scale.begin(), scale.end(),
                [](auto const& a, auto const& b) { return a.seconds < b.seconds && a.percent < b.percent; }))
                << data.substr(0, 60) << asked;
            auto const& bands = timeline.lanes().front().bands;
            EXPECT_LE(bands.size(), Timeline::mostRecordsCM);
            EXPECT_EQ(bands.size() + timeline.lanes().front().olderLeftOut,
                      explained.prefixes().front().history.size());
            for (auto const& band : bands) {
                double const width =
                    (band.until.isValid() ? timeline.percent(band.until) : 100) - timeline.percent(band.from);
                EXPECT_GT(width, band.until.isValid() ? 0.3 : -1e-9) << data.substr(0, 60) << asked;
            }
            for (auto const when : {explained.at(), at(nowCM)}) {
                EXPECT_GE(timeline.percent(when), 0) << data.substr(0, 60) << asked;
                EXPECT_LE(timeline.percent(when), 100) << data.substr(0, 60) << asked;
            }
            EXPECT_LE(timeline.ticks().size(), 10U) << data.substr(0, 60) << asked;
        }
    }
}

TEST(PageTest, NothingForeignIsMarkup) {
    Setting setting;
    setting.standing.data.usable = true;
    setting.standing.file.name = BAS::String("/tmp/<x>&");
    setting.standing.data.lastLoad.kind = DAT::NumberPortability::LoadOutcome::RELOAD;
    setting.standing.data.lastLoad.fileName = BAS::String("<x>");
    std::string const hostile = "<x>'\"&\x1b\xff" + std::string(5000, 'y');
    Explained const explained =
        explain("00447\"<x>", "2026", "0044 2018 <x>'\" 00447 2020 NAMED 00447 2022 " + hostile);
    nphost::UpcomingPart part;
    part.records = {{at("2030"), "<x>", hostile, hostile}};
    part.next = "<x>\"";
    std::vector<std::string> const pages = {
        nphost::lookUpPage(setting.page, {hostile, hostile}, nullptr),
        nphost::lookUpPage(setting.page, {hostile, hostile}, nullptr, hostile),
        nphost::lookUpPage(setting.page, {"00447\"<x>", "2026"}, &explained),
        nphost::upcomingPage(setting.page, part),
    };
    for (std::string const& page : pages) {
        EXPECT_FALSE(has(page, "<x>") || has(page, "'\"&\x1b") || has(page, "\xff") || has(page, "Europe/<"));
        EXPECT_FALSE(has(page, std::string(300, 'y'))) << "a text of any length fills the page";
        // What the policy forbids.
        EXPECT_FALSE(has(page, " style=") || has(page, "<style") || has(page, "<script>"));
    }
    EXPECT_TRUE(has(pages[2], "&lt;x&gt;&#39;&quot;&amp;\\x1b\\xff")) << pages[2];
    EXPECT_TRUE(has(pages[2], "A &amp; B</bdi> <bdi class=\"id\">NAMED"));
    EXPECT_LT(pages[2].size() + nphost::pageStyle().size() + nphost::pageScript().size(), 60'000U);
}

TEST(PageTest, ShowsWhatWasAsked) {
    struct Case {
        char const* asked;
        char const* at; // as it was written
        std::vector<std::string> shown;
    };
    std::string const data = "00447 2020 NAMED 00447 2022 OTHER 00447 2030 LAST";
    std::vector<Case> const cases = {
        {"20261124",
         "",
         {"now, ", "belongs to</p>", ">OTHER</bdi></span></h1>", "at=20261124000000\">this number",
          "name=\"at\" type=\"datetime-local\" step=\"1\" value=\"\"", "in 3 years 1 month"}},
        {"2021",
         "2021-01-01",
         {"belonged to</p>", "<dd><bdi>234 15</bdi>", "value=\"2021-01-01T00:00:00\"", ">+4479<",
          "number=%2B447&amp;at=20210101000000"}},
        {"2031", "2031-01-01T00:00", {"will belong to</p>", "LAST</bdi></span></h1>", "<p class=\"big\">none</p>"}},
        {"2019", "2019-01-01 00:00:00", {"no network</h1>", "no stored prefix has a record that has begun"}},
    };
    Setting setting;
    for (Case const& test : cases) {
        Explained const explained = explain("00447", test.asked, data);
        std::string const page = nphost::lookUpPage(setting.page, {"00447", test.at}, &explained);
        for (std::string const& part : test.shown)
            EXPECT_TRUE(has(page, part)) << test.asked << ": " << part;
    }
    Explained const unknown = explain("00447", "2026", "");
    EXPECT_TRUE(has(nphost::lookUpPage(setting.page, {"00447", ""}, &unknown), "Nobody’s number"));

    for (auto const& [written, read] :
         std::map<std::string, std::string>{{"", ""},
                                            {" ", ""},
                                            {"2026-01-31", "2026-01-31T00:00:00"},
                                            {"2026-01-31T12:00", "2026-01-31T12:00:00"},
                                            {"20260131120000", "20260131120000"},
                                            {"2026-01-31T12:00:00+01:00", "2026-01-31T12:00:00+01:00"}})
        EXPECT_EQ(nphost::pageInstant(written), read);
}

// What an operator must not overlook.
TEST(PageTest, SaysWhatIsWrongWithTheData) {
    using Standing = nphost::Standing;
    std::vector<std::pair<char const*, std::function<void(Standing&)>>> const cases = {
        {"All is well", [](Standing&) {}},
        {"No data are loaded", [](Standing& standing) { standing.data.usable = false; }},
        {"The last load failed",
         [](Standing& standing) { standing.data.lastLoad.kind = DAT::NumberPortability::LoadOutcome::RELOAD; }},
        {"The guard refused a load: it has 3 records",
         [](Standing& standing) {
             nphost::LoadCheck& check = standing.guard.lastRefusal.emplace();
             check.reasons = {"it has 3 records"};
             check.ended = at(nowCM);
         }},
        {"The data file has changed", [](Standing& standing) { standing.file.changed = true; }},
        {"could not be written to the data file", [](Standing& standing) { standing.data.unsaved = true; }},
        {"The log has lost reports", [](Standing& standing) { standing.reportsLost = 1; }},
    };
    for (auto const& [text, spoil] : cases) {
        Setting setting;
        setting.standing.data.usable = true;
        setting.standing.data.liveSince = at("20261123");
        spoil(setting.standing);
        std::string const page = nphost::upcomingPage(setting.page, {});
        EXPECT_TRUE(has(page, text)) << text;
        EXPECT_EQ(has(page, "All is well"), std::string_view(text) == "All is well") << text;
    }
}
