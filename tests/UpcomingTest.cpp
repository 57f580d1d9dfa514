// nphost upcoming, and the daemon's notices of assignments that take effect, by a clock that the tests set.
#include "host/base/Instant.h"
#include "host/cli/Sections.h"
#include "host/daemon/ChangeNotices.h"
#include "host/module/Host.h"
#include "host/service/ReportHub.h"
#include "tests/LimitedMemory.h"
#include "tests/ProgramRun.h"
#include "tests/SeededRandom.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <thread>
#include <vector>

namespace {

using nphost::digitsOf;

BAS::DateTime second(std::uint64_t seconds) {
    return BAS::DateTime::fromSeconds(seconds);
}

// What is announced as "count first-number network instant", or "-".
std::string taken(nphost::DueChanges& due, std::uint64_t liveSince) {
    if (!due.isDue())
        return "-";
    auto const notice = due.take(second(liveSince));
    return notice ? std::to_string(notice->changes.count) + " " + notice->changes.number + " " +
                        notice->changes.network + " " + std::to_string(notice->at.seconds())
                  : "-";
}

nphost::UpcomingChanges listOf(std::vector<std::pair<std::uint64_t, char const*>> const& records) {
    nphost::UpcomingChanges list;
    for (auto const& [at, number] : records)
        list.add(second(at), number, "NET");
    return list;
}

} // namespace

TEST(UpcomingTest, ListsWhatIsToCome) {
    ConfiguredFolder const site("0770 20180101000000 ALPHA\n"
                                "07700900124 20310301020000 CHARLIE\n" // of ALPHA's block until then
                                "07700900123 20300101000000 BRAVO\n07700900123 20310301020000 DELTA\n"
                                "07700900123 20200101000000 ALPHA\n07700900123 20300101000000 DUPLICATE\n"
                                "+4930 20310101000000 EINS\n"); // nobody's until then
    struct Case {
        char const* options;
        std::string out;
    };
    std::string const first = "20300101000000\t00447700900123\tALPHA\tBRAVO\n";
    std::string const second = "20310101000000\t004930\t-\tEINS\n";
    std::string const last = "20310301020000\t00447700900123\tBRAVO\tDELTA\n"
                             "20310301020000\t00447700900124\tALPHA\tCHARLIE\n";
    std::vector<Case> const cases = {
        {"--from 20250101000000", first + second + last},
        {"--from 20300101000000", second + last},
        {"--from 20291231235959 --until 2030-01-01T00:00:00Z", first},
        {"--from 20310301020000", ""},
        {"--from 20291231235959 --until 20300101000000 --json",
         R"({"from":"20291231235959","until":"20300101000000","count":1,"upcoming":[)"
         "\n"
         R"({"at":"20300101000000","from":"ALPHA","number":"00447700900123","to":"BRAVO"}]})"
         "\n"},
    };
    for (Case const& test : cases) {
        Result const result = runProgram("upcoming --config " + site.configuration + " " + test.options);
        EXPECT_EQ(result.status, 0) << test.options << result.err;
        EXPECT_EQ(result.out, test.out) << test.options;
    }
    for (char const* const wrong :
         {"--until 20300231000000", "--until 20200101000000", "--from 20310101000000 --until 20301231235959"})
        EXPECT_EQ(runProgram("upcoming --config " + site.configuration + " " + wrong).status, 2) << wrong;
}

TEST(DueChangesTest, AnnouncesOnceWhatIsTrueAtItsInstant) {
    std::uint64_t now = 0;
    nphost::DueChanges due([&now] { return second(now); });
    EXPECT_TRUE(due.wantsList());
    due.renew(listOf({{3, "0"}, {10, "1"}, {10, "2"}, {20, "3"}, {21, "4"}, {40, "5"}}), second(5));
    EXPECT_FALSE(due.wantsList());
    struct Step {
        char const* label;
        std::uint64_t now;
        char const* notice;
    };
    for (Step const& step : std::vector<Step>{
             {"what was before the data went live is no news", 9, "-"},
             {"two at once", 10, "2 1 NET 10"},
             {"no second notice in a second", 10, "-"},
             {"the clock is put back", 3, "-"},
             {"several instants together", 25, "2 3 NET 20"},
         }) {
        now = step.now;
        EXPECT_EQ(taken(due, 5), step.notice) << step.label;
    }
    EXPECT_EQ(due.secondsLeft(), 15U);

    // Other data since 40: the list says nothing about 40 any more, the new one does not repeat 20.
    now = 50;
    EXPECT_EQ(taken(due, 40), "-");
    EXPECT_TRUE(due.wantsList());
    due.renew(listOf({{20, "3"}, {39, "6"}, {40, "7"}, {45, "8"}, {60, "9"}}), second(40));
    EXPECT_EQ(taken(due, 40), "2 7 NET 40");
    // Announced in the second of the exchange.
    now = 60;
    EXPECT_EQ(taken(due, 40), "1 9 NET 60");
    due.renew(listOf({{60, "9"}, {61, "10"}}), second(60));
    now = 70;
    EXPECT_EQ(taken(due, 60), "1 10 NET 61");
    EXPECT_EQ(due.secondsLeft(), std::nullopt);
}

TEST(DueChangesTest, KeepsTheNextInstantsOnly) {
    constexpr std::uint64_t many = 3 * nphost::UpcomingChanges::mostInstantsCM;
    SeededRandom random;
    std::vector<std::uint64_t> instants;
    for (std::uint64_t i = 0; i < many; ++i)
        instants.push_back(100 + i / 2); // each twice
    std::shuffle(instants.begin(), instants.end(), random);
    nphost::UpcomingChanges list;
    for (std::uint64_t const at : instants)
        list.add(second(at), "1", "NET");
    EXPECT_TRUE(list.isCut());
    ASSERT_EQ(list.groups().size(), nphost::UpcomingChanges::mostInstantsCM);
    EXPECT_EQ(list.groups().begin()->first, second(100));
    EXPECT_TRUE(std::all_of(list.groups().begin(), list.groups().end(),
                            [](auto const& group) { return group.second.count == 2; }));

    std::uint64_t now = 100 + many;
    nphost::DueChanges due([&now] { return second(now); });
    due.renew(list, second(5));
    EXPECT_FALSE(due.wantsList());
    EXPECT_EQ(taken(due, 5), std::to_string(2 * nphost::UpcomingChanges::mostInstantsCM) + " 1 NET 100");
    EXPECT_TRUE(due.wantsList()) << "the list is used up, and there were more";
    EXPECT_EQ(due.listAfter(second(5)), second(100 + nphost::UpcomingChanges::mostInstantsCM - 1));
}

namespace {

// A plug-in that serves, with notices by a clock of the test's, which begins long after the load.
class Served {
  public:
    // The data's clock is that many seconds ahead of UTC.
    explicit Served(ConfiguredFolder const& site, bool announces = true, std::uint64_t offset = 0)
        : targetM(site.folder.file("log")),
          hostM(nphost::readConfiguration(site.configuration, nphost::sectionsCM), {site.configuration, false},
                nphost::LogSettings{true, false, &targetM, &hubM}) {
        hostM.start();
        noticesM = std::make_unique<nphost::ChangeNotices>(
            hostM.plugIn(), hubM.wakeUp(), announces,
            nphost::ChangeNotices::Clocks{[this] { return now; },
                                          [offset](BAS::DateTime utc) { return second(utc.seconds() + offset); }});
    }

    void reload() {
        BAS::RegistryEntry keys("DAT_NumberPortability");
        keys.append(BAS::RegistryEntry("Reload", "TRUE"));
        BAS::ProtectedBool handled;
        EXPECT_TRUE(hostM.plugIn().update(keys, handled));
    }
    // Steps until there is a list whose first instant is that far away, or a search is to be made by then.
    bool hasListIn(int milliseconds) {
        for (noticesM->step(); noticesM->patience() != milliseconds; noticesM->step()) {
            pollfd news = {hubM.wakeUp().descriptor(), POLLIN, 0};
            if (poll(&news, 1, 60000) != 1)
                return false;
            hubM.wakeUp().clear();
        }
        return true;
    }
    std::vector<std::vector<std::string>> noticesAt(BAS::DateTime at) {
        now = at;
        std::uint64_t const next = hubM.last(0);
        noticesM->step();
        std::vector<std::vector<std::string>> notices;
        for (nphost::LogReport const& report : hubM.since(next).reports)
            if (report.identifier == "EVT::ASSIGNMENTS_IN_EFFECT")
                notices.push_back(report.arguments);
        return notices;
    }

    std::optional<BAS::DateTime> next() const { return noticesM->next(); }

    BAS::DateTime now = second(BAS::DateTime::now().seconds() + 100000);

  private:
    nphost::ReportHub hubM;
    nphost::LogTarget targetM;
    nphost::Host hostM;
    std::unique_ptr<nphost::ChangeNotices> noticesM;
};

} // namespace

TEST(ChangeNoticesTest, SearchesAgainAMinuteAfterMemoryDidNotSuffice) {
    BAS::DateTime const later = second(BAS::DateTime::now().seconds() + 300000);
    ConfiguredFolder const site("0171 " + digitsOf(later) + " A\n");
    Served served(site);
    for (int i = 0; i < 2; ++i) {
        refusesOthers = true;
        EXPECT_TRUE(served.hasListIn(59'000)) << "no list, and no busy loop";
        EXPECT_FALSE(refusesOthers) << "memory was asked for";
        served.now = second(served.now.seconds() + 60);
    }
    ASSERT_TRUE(served.hasListIn(60'000));
    EXPECT_EQ(served.noticesAt(later).size(), 1);
}

// What took effect before the load by the data's clock is not announced, though it is still to come by UTC.
TEST(ChangeNoticesTest, KnowsWhenDataWentLiveByTheirOwnClock) {
    std::uint64_t const utc = BAS::DateTime::now().seconds();
    ConfiguredFolder const site("0171 " + digitsOf(second(utc + 1800)) + " A\n0172 " + digitsOf(second(utc + 7200)) +
                                " B\n");
    Served served(site, true, 3600);
    served.now = second(utc + 7200 - 11);
    ASSERT_TRUE(served.hasListIn(10'000));
    EXPECT_EQ(served.noticesAt(second(utc + 7200)),
              (std::vector<std::vector<std::string>>{{"1", "0044172", "B", digitsOf(second(utc + 7200))}}));
}

TEST(ChangeNoticesTest, RenewsItsListAfterALoad) {
    using Notices = std::vector<std::vector<std::string>>;
    ConfiguredFolder const site("0171 20200101000000 A\n");
    {
        Served served(site); // nothing is to come
        EXPECT_EQ(served.noticesAt(second(served.now.seconds() + 1)), Notices());
    }
    BAS::DateTime const begin = second(BAS::DateTime::now().seconds() + 200000);
    auto const after = [&](std::uint64_t seconds) { return second(begin.seconds() + seconds); };
    site.folder.write("data.dat", "0172 " + digitsOf(after(11)) + " B\n0171 " + digitsOf(after(11)) + " A\n0173 " +
                                      digitsOf(after(31)) + " C\n");
    {
        Served silent(site, false);
        silent.now = begin;
        ASSERT_TRUE(silent.hasListIn(10000));
        EXPECT_EQ(silent.next(), after(11));
        EXPECT_EQ(silent.noticesAt(after(11)), Notices());
        EXPECT_EQ(silent.next(), after(31));
        EXPECT_EQ(silent.noticesAt(after(31)), Notices());
        EXPECT_EQ(silent.next(), std::nullopt);
    }
    Served served(site);
    served.now = begin;
    ASSERT_TRUE(served.hasListIn(10000));
    EXPECT_EQ(served.noticesAt(after(10)), Notices());
    EXPECT_EQ(served.noticesAt(after(11)), (Notices{{"2", "0044171", "A", digitsOf(after(11))}}));

    site.folder.write("data.dat", "0174 " + digitsOf(after(22)) + " D\n");
    served.reload();
    ASSERT_TRUE(served.hasListIn(10000));
    EXPECT_EQ(served.noticesAt(after(31)), (Notices{{"1", "0044174", "D", digitsOf(after(22))}}));
    EXPECT_NE(contentOf(site.folder.file("log")).find("assignments that have taken effect: 2; the first: 0044171 to A"),
              std::string::npos);
}
