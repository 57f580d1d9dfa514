// nphost run and nphost ctl as an operator meets them: a daemon of its own for each test, in a folder of its own.
#include "host/base/Instant.h"
#include "host/log/LogTarget.h"
#include "host/module/Explanation.h"
#include "host/service/DeltaFolders.h"
#include "tests/DaemonSite.h"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

TEST(DaemonLifeTest, SignalsStopItInOrder) {
    for (int const signal : {SIGTERM, SIGINT}) {
        Site site;
        site.start();
        struct stat status = {};
        ASSERT_EQ(lstat(site.socket().c_str(), &status), 0);
        EXPECT_TRUE(S_ISSOCK(status.st_mode));
        EXPECT_EQ(status.st_mode & 07777U, 0660U);
        EXPECT_EQ(site.stop(signal), 0) << site.log();
        EXPECT_FALSE(std::filesystem::exists(site.socket()));
        EXPECT_TRUE(contains(site.log(), "INF_NUM_NPORT_LOADED")) << "all of the log is shown\n" << site.log();
    }
}

TEST(DaemonLifeTest, ReplacesAStaleSocketAndNothingElse) {
    Site site;
    site.start();
    site.daemon->signal(SIGKILL);
    site.daemon->wait();
    ASSERT_TRUE(std::filesystem::exists(site.socket()));
    site.start();

    // A second daemon on the same socket gives up; the first does not notice.
    Arguments const again = site.wordsOf("run --config @nphost.toml");
    expectResult(runProgram(site.folder, again, "2"), 2, "another daemon answers", "the socket of another");
    EXPECT_EQ(site.ctl({"status"}).status, 0);
    EXPECT_EQ(site.stop(), 0);

    // Who may only read the folder locks it in vain; a lock file that is not the daemon's own is not used.
    int const folder = open(site.folder.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(folder, LOCK_EX), 0);
    site.start();
    EXPECT_EQ(site.stop(), 0);
    close(folder);
    EXPECT_FALSE(std::filesystem::exists(site.folder.file(".s.lock")));
    std::filesystem::create_symlink("data.dat", site.folder.file(".s.lock"));
    expectResult(runProgram(site.folder, again, "2"), 2, "its lock file", "a link for a lock file");
    std::filesystem::remove(site.folder.file(".s.lock"));

    site.folder.write("s", "precious");
    EXPECT_EQ(runProgram(site.folder, again, "2").status, 2);
    EXPECT_EQ(contentOf(site.socket()), "precious");
}

TEST(DaemonLifeTest, CannotStart) {
    struct Case {
        char const* label;
        char const* more;
        char const* name; // of the data file
        char const* reason;
    };
    for (Case const& test : {Case{"no data file", "", "gone.dat", "ERR_FILE_NOT_FOUND"},
                             Case{"a folder for a data file", "", "data.dat", "ERR_FILE_NOT_FOUND"},
                             Case{"a socket where none can be", "", "s", "cannot be made"},
                             Case{"a table of networks that is none", "networks = \"data.dat\"\n", "", "data.dat"},
                             Case{"a log file where none can be", "logFile = \"none/log\"\n", "", "the log file"}}) {
        Site site(dataCM, test.more);
        std::filesystem::remove(site.data);
        if (std::string(test.name) == "data.dat")
            std::filesystem::create_directory(site.data);
        if (std::string(test.name) == "s")
            std::filesystem::create_directory(site.socket());
        site.launch();
        EXPECT_EQ(site.daemon->wait(), 2) << test.label;
        std::string const log = site.log();
        EXPECT_TRUE(contains(log, std::string("nphost: ")) && contains(log, test.reason)) << test.label << "\n" << log;
        EXPECT_FALSE(std::filesystem::is_socket(site.socket())) << test.label;
    }
}

TEST(DaemonLifeTest, TellsTheServiceManager) {
    for (bool const abstract : {false, true}) {
        Site site(dataCM, "[host.guard]\nminRecords = 3\n");
        ServiceManager const manager((abstract ? "@" : "") + site.folder.file("notify"));
        manager.fill(); // READY waits for room
        site.start({}, manager.name());
        EXPECT_TRUE(manager.next().starts_with("READY=1\nSTATUS=4 records"));
        for (bool const refused : {false, true, false}) {
            site.folder.write("data.dat", refused ? "00441 20200101000000 A\n" : dataCM);
            site.daemon->signal(SIGHUP);
            std::string const reloading = manager.next();
            EXPECT_TRUE(reloading.starts_with("RELOADING=1\nMONOTONIC_USEC=")) << reloading;
            std::string const ready = manager.next();
            EXPECT_TRUE(ready.starts_with("READY=1\nSTATUS=4 records")) << ready;
            EXPECT_EQ(contains(ready, "; the last reload was refused"), refused) << ready;
        }
        EXPECT_EQ(site.stop(), 0);
        EXPECT_TRUE(manager.next().starts_with("STOPPING=1\n"));
    }
}

TEST(DaemonLogTest, HangUpReopensTheFileAndReloads) {
    Site site(dataCM, "logFile = \"daemon.log\"\n");
    site.logName = "daemon.log";
    site.start({"--log-format", "json"});
    expectResult(site.ctl({"print", site.folder.file("daemon.log")}), 2, "is the log file", "the log");
    std::filesystem::rename(site.folder.file("daemon.log"), site.folder.file("daemon.log.1"));
    site.folder.write("data.dat", dataCM + "0033 20200101000000 ECHO\n");
    site.daemon->signal(SIGHUP);
    EXPECT_TRUE(eventually([&] { return contains(site.log(), "EVT::RELOAD_SUCCESSFUL"); })) << site.log();
    EXPECT_EQ(site.status().at("records"), 5);
    EXPECT_EQ(site.stop(), 0);
    EXPECT_EQ(contentOf(site.folder.file("log")), "") << "nothing on standard error";

    std::string const log = contentOf(site.folder.file("daemon.log.1")) + site.log();
    std::istringstream lines(log);
    std::vector<std::string> identifiers;
    for (std::string line; std::getline(lines, line);) {
        Json const report = Json::parse(line, nullptr, false);
        ASSERT_TRUE(report.is_object()) << line;
        identifiers.push_back(report.at("identifier"));
        for (char const* const key : {"time", "severity", "object", "arguments", "text"})
            EXPECT_TRUE(report.contains(key)) << line;
    }
    EXPECT_EQ(identifiers.front(), "INF_FILE_OPENED");
    EXPECT_EQ(identifiers.back(), "INF_HOST_STOPPING");
}

// What the log cannot take is counted, and said as soon as it takes something again; half a line is ended before.
TEST(DaemonLogTest, CountsWhatCannotBeWritten) {
    Site site(dataCM, "logFile = \"daemon.log\"\n");
    std::filesystem::create_symlink("/dev/full", site.folder.file("daemon.log"));
    site.launch();
    ASSERT_TRUE(eventually([&] { return site.ctl({"status"}).status == 0; }));
    unsigned long const lost = site.status().at("reportsLost");
    EXPECT_GE(lost, 5U);
    EXPECT_TRUE(contains(site.ctl({"status"}).out, std::to_string(lost) + " reports could not be written"));
    std::filesystem::remove(site.folder.file("daemon.log"));
    site.logName = "daemon.log";
    site.daemon->signal(SIGHUP);
    std::string const said = " MAJOR ERR_HOST_LOG_LOST \"" + std::to_string(lost) + "\" : ";
    EXPECT_TRUE(eventually([&] { return contains(site.log(), "EVT::RELOAD_SUCCESSFUL"); })) << site.log();
    EXPECT_TRUE(contains(site.log().substr(0, site.log().find('\n')), said)) << site.log();
    EXPECT_EQ(site.log().rfind("ERR_HOST_LOG_LOST"), site.log().find("ERR_HOST_LOG_LOST")) << "said once";
    EXPECT_EQ(site.status().at("reportsLost"), lost) << "none since";
    EXPECT_EQ(site.stop(), 0);
}

TEST(LogTargetTest, EndsTheLineThatItCouldOnlyBegin) {
    TemporaryFolder const folder;
    std::string const file = folder.file("fifo");
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    int const reader = open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    nphost::LogTarget target(file);
    std::string const line = std::string(100'000, 'x') + "\n"; // more than the pipe holds
    EXPECT_FALSE(target.write(line));
    EXPECT_FALSE(target.write("lost\n"));
    std::string content(line.size(), '\0');
    EXPECT_GT(read(reader, content.data(), content.size()), 0);
    EXPECT_TRUE(target.write("next\n"));
    content.resize(static_cast<std::size_t>(read(reader, content.data(), content.size())));
    EXPECT_EQ(content, "\nnext\n");
    close(reader);
}

// Whoever does not read the daemon's standard error holds up nothing; half a line is ended before the next one.
TEST(DaemonLogTest, GoesOnWhenNobodyReadsStandardError) {
    Site site("x\n" + std::string(100'000, '7') + " 2018x A\n" + dataCM);
    ASSERT_EQ(mkfifo(site.folder.file("fifo").c_str(), 0600), 0);
    int const reader = open(site.folder.file("fifo").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GT(fcntl(reader, F_SETPIPE_SZ, 4096), 0);
    site.launch({"--log-format", "json"}, {}, "fifo");
    ASSERT_TRUE(eventually([&] { return site.ctl({"status"}).status == 0; }));
    EXPECT_EQ(site.ctl({"reload", "--wait"}).status, 0);
    EXPECT_GT(site.status().at("reportsLost"), 0);
    std::string text;
    EXPECT_TRUE(eventually([&] {
        std::array<char, 65536> block;
        ssize_t const count = read(reader, block.data(), block.size());
        text.append(block.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
        bool const said = contains(text, "ERR_HOST_LOG_LOST") && text.ends_with('\n');
        return said || site.ctl({"reload", "--wait"}).status != 0;
    }));
    std::size_t const begin = text.rfind('\n', text.find("ERR_HOST_LOG_LOST")) + 1;
    EXPECT_TRUE(Json::accept(text.substr(begin, text.find('\n', begin) - begin))) << text;
    EXPECT_EQ(site.stop(), 0);
    close(reader);
}

TEST(DeltaFoldersTest, SaysWhatKeptFromLooking) {
    TemporaryFolder const folder;
    nphost::DeltaFolders const folders({folder.path()});
    auto const found = folders.find(folder.file(std::string(5000, 'n')));
    EXPECT_TRUE(found.refusal.ends_with(" cannot be looked for: File name too long")) << found.refusal;
    EXPECT_TRUE(folders.find(folder.file("delta")).version.has_value());
}

// A file that is wrong throughout must not fill the log; each load begins anew.
TEST(DaemonLogTest, LogsTheFirstThousandRejectsOfALoadAndCountsTheRest) {
    std::string bad = dataCM;
    for (int i = 0; i < 400; ++i)
        bad += "x\n00441 2020 A\n" + dataCM.substr(0, dataCM.find('\n') + 1);
    Site site(bad);
    site.start();
    EXPECT_EQ(site.ctl({"reload", "--wait"}).status, 0);
    ASSERT_TRUE(eventually([&] { return contains(site.log(), "EVT::RELOAD_SUCCESSFUL"); }));
    std::istringstream lines(site.log());
    std::vector<std::string> sums;
    std::size_t single = 0;
    for (std::string line; std::getline(lines, line);) {
        single += contains(line, "Line# ") ? 1U : 0U;
        if (contains(line, " WARNING ERR_HOST_REJECTS_NOT_LOGGED "))
            sums.push_back(line.substr(line.find('"')));
    }
    EXPECT_EQ(single, 2000U) << "a thousand each of two loads";
    // 1200 bad lines, each reported for either tree.
    ASSERT_EQ(sums.size(), 2U);
    EXPECT_TRUE(sums[0].starts_with("\"1400\" \"ERR_NUMBER_OF_FIELDS_IN_RECORD 466, ERR_INVALID_DATETIME 466, "
                                    "ERR_DUPLICATE_NUMPORTDATA 468\" : 1400 more"))
        << sums[0];
    EXPECT_TRUE(sums[1].starts_with("\"1400\"")) << sums[1];
    EXPECT_EQ(site.stop(), 0);
}

// Three numbers come to the network in every second from now on.
std::string endlessChanges(char const* network) {
    std::ostringstream data;
    std::uint64_t const now = BAS::DateTime::now().seconds();
    for (std::uint64_t i = 0; i < 1800; ++i)
        data << "0044" << 1000 + i << ' ' << BAS::DateTime::fromSeconds(now + i / 3) << ' ' << network << '\n';
    return data.str();
}

TEST(DaemonLogTest, AnnouncesAssignmentsThatTakeEffect) {
    Site site(endlessChanges("BEFORE"), "announceChanges = true\n");
    auto const announced = [&](std::string const& network) {
        std::istringstream lines(site.log());
        std::vector<std::string> found;
        for (std::string line; std::getline(lines, line);)
            if (contains(line, "EVT::ASSIGNMENTS_IN_EFFECT") && contains(line, network))
                found.push_back(line);
        return found;
    };
    site.start();
    ASSERT_TRUE(eventually([&] { return announced("BEFORE").size() >= 2; })) << site.log();
    // The first may sum up several seconds; so may the others, where the machine is slow.
    EXPECT_TRUE(contains(announced("BEFORE").back(), "assignments that have taken effect: ")) << site.log();
    site.folder.write("data.dat", endlessChanges("AFTER"));
    site.daemon->signal(SIGHUP);
    EXPECT_TRUE(eventually([&] { return !announced("AFTER").empty(); })) << site.log();
    EXPECT_EQ(site.stop(), 0);
}

TEST(DaemonLogTest, FollowersSeeAReloadInOrder) {
    Site site;
    site.start();
    RawClient follower(site.socket());
    ASSERT_TRUE(follower.send("{\"version\":1,\"command\":\"log\",\"follow\":true}\n"));
    Json const first = Json::parse(follower.line());
    EXPECT_EQ(first.at("reports").back().at("identifier"), "INF_HOST_READY");
    EXPECT_EQ(site.ctl({"reload", "--wait"}).status, 0);
    std::vector<std::string> seen;
    while (seen.empty() || seen.back() != "EVT::RELOAD_SUCCESSFUL")
        seen.push_back(Json::parse(follower.line()).at("report").at("identifier"));
    Arguments const expected = {"INF_FILE_OPENED",        "INF_FILE_CLOSED", // of the check
                                "INF_FILE_OPENED",        "INF_DELETE_OLD_DATA",
                                "INF_NUM_NPORT_RELOADED", "EVT::RELOAD_SUCCESSFUL"};
    EXPECT_EQ(seen, expected);
    Result const log = site.ctl({"log"});
    EXPECT_EQ(log.status, 0);
    EXPECT_TRUE(contains(log.out, " NORMAL INF_NUM_NPORT_RELOADED \"4\" : 4 records are loaded after the reload\n"))
        << log.out;

    Process following({"ctl", "--socket", site.socket(), "log", "--follow"}, site.folder.file("f.out"),
                      site.folder.file("f.err"));
    EXPECT_TRUE(eventually([&] { return contains(contentOf(site.folder.file("f.out")), "EVT::RELOAD_SUCCESSFUL"); }));
    EXPECT_EQ(site.stop(), 0);
    EXPECT_EQ(following.wait(), 2) << "the daemon has gone";
    EXPECT_TRUE(contains(contentOf(site.folder.file("f.out")), "INF_HOST_STOPPING"));
}

class DaemonQuestionTest : public testing::Test {
  protected:
    DaemonQuestionTest() { site.start(); }
    Site site;
};

TEST_F(DaemonQuestionTest, CommandsAndTheirAnswers) {
    struct Case {
        std::string command;
        int status;
        char const* part;
    };
    for (Case const& test :
         {Case{"lookup --at 20240101000000 00447700900123 00447700", 0,
               "00447700900123\t20240101000000\t20210301020000\tBRAVO\n"
               "00447700\t20240101000000\t20200101000000\tALPHA\n"},
          {"lookup --at 20240101000000 0033", 1, "0033\t20240101000000\t-\t-\n"},
          {"lookup --ported --at 20240101000000 00447700900123 00447700 0033", 1,
           "\tBRAVO\ttrue\n00447700\t20240101000000\t20200101000000\tALPHA\tfalse\n"
           "0033\t20240101000000\t-\t-\t-\n"},
          {"--json lookup 0044770 --at 20240101000000", 0, "\"ported\":null"},
          {"explain 0044770 --at 20240101000000", 0,
           "Ported:           not known; no shorter prefix has a record that has begun\n"},
          {"explain 00447700 --at 20240101000000", 0, "Ported:           no; the range 0044770 belongs to ALPHA\n"},
          {"lookup --at 20240101000000 --method shortest 00447700900123", 0, "ALPHA"},
          {"lookup --at 20240101000000 --method exact 004477009001", 1, "\t-\t-\n"},
          {"lookup --at 20230229000000 0044", 2, "'20230229000000' is not a valid instant"},
          {"lookup none", 2, "is not a number"},
          {"lookup 0044\xff", 2, "cannot be sent"},
          {"explain 0033", 1, "No prefix of the number is stored."},
          {"explain x", 2, "is not a number"},
          {"explain " + std::string(2000, '1'), 2, "longer than 1000"},
          {"probes", 0, "printData"},
          {"status", 0, "Search method:    best"},
          {"reload --wait --no-wait", 2, "--wait excludes --no-wait"},
          {"dance", 2, "no command or option 'dance'"}})
        site.expect(test.command, test.status, test.part);
    expectResult(site.ctl({"lookup", "--at", "20240101000000", "--normalise", "(07700) 900-123"}), 0,
                 "00447700900123\t", "as people write it");
    expectResult(site.ctl({"lookup", "00447700900123 20240101000000"}), 2, "is not one number", "two words");
    EXPECT_EQ(site.stop(), 0);
    site.expect("status", 2, "no daemon answers");
}

TEST_F(DaemonQuestionTest, StatusAfterManyLookups) {
    Arguments many = {"lookup", "--at", "20240101000000"};
    many.resize(2500, "00447700900123"); // several requests
    EXPECT_EQ(lineCount(site.ctl(many).out), 2497);
    many[3] = "0033";
    EXPECT_EQ(site.ctl(many).status, 1) << "one was not found";

    Json const status = site.status();
    EXPECT_EQ(status.at("usable"), true);
    EXPECT_EQ(status.at("records"), 4);
    EXPECT_EQ(status.at("numbers"), 3);
    EXPECT_EQ(status.at("dataFile").at("size"), dataCM.size());
    EXPECT_EQ(status.at("lastLoad").at("kind"), "load");
    EXPECT_EQ(status.at("lastLoad").at("lines"), 4);
    EXPECT_EQ(status.at("lookUps"), 2 * 2497);
    EXPECT_GT(status.at("memoryBytes"), 100000);
}

TEST_F(DaemonQuestionTest, ExplainsToPeople) {
    Result const text = site.tell("explain 00447700900123 --at 20240101000000");
    EXPECT_EQ(text.status, 0);
    for (char const* const part :
         {"Ported:           yes; the range 0044770 belongs to ALPHA\n",
          "    2099-09-15 02:00:00  CHARLIE  (still to come)\n",
          "  best:     BRAVO since 2021-03-01 02:00:00  (as configured)", "00447700900123 is the number itself",
          "  shortest: ALPHA since", "Next change (best): 2099-09-15 02:00:00, then CHARLIE"})
        EXPECT_TRUE(contains(text.out, part)) << part << "\n" << text.out;
}

// With the data's zone, in which the question's instant is asked.
TEST(DaemonNetworksTest, KeepsTheOldTableWhenTheNewOneIsWrong) {
    Site site(dataCM, "networks = \"networks.toml\"\ndataZone = \"Europe/London\"\n");
    site.folder.write("networks.toml", "[BRAVO]\nname = 'Bravo'\nmcc = '234'\n");
    site.start();
    struct Case {
        std::string table; // what the file becomes
        char const* name;  // of the network then
        char const* status;
        char const* refused = "";
    };
    for (Case const& test : {Case{"[BRAVO]\nname = 'Bravo'\n", "Bravo", "Networks:         1 in "},
                             Case{"[BRAVO]\nname = 'New'\n[B]\nmcc = '1'\n", "Bravo", "Networks:         1 in ",
                                  "networks.toml:4: 'mcc' must be three digits"},
                             Case{"[BRAVO]\nname = 'New'\n[B]\n", "New", "Networks:         2 in "}}) {
        site.folder.write("networks.toml", test.table);
        bool const isRefused = test.refused[0] != 0;
        site.expect("reload --wait", isRefused ? 1 : 0, isRefused ? test.refused : "reload: done");
        Result const status = site.tell("status");
        EXPECT_TRUE(contains(status.out, test.status)) << status.out;
        EXPECT_EQ(contains(status.out, "not reread:"), isRefused) << status.out;
        EXPECT_TRUE(contains(status.out, test.refused)) << status.out;
        site.expect("explain 00447700900123 --at 20240101000000", 0,
                    ("BRAVO (" + std::string(test.name) + ") since").c_str());
        Result const answer = site.tell("--json lookup --at 2024-07-01T00:00:00Z 00447700900123 0033");
        EXPECT_EQ(answer.status, 1);
        Json const json = Json::parse(answer.out);
        EXPECT_EQ(json.at("at"), "20240701010000");
        EXPECT_EQ(json.at("networks"), Json({{"BRAVO", {{"id", "BRAVO"}, {"name", test.name}}}})) << answer.out;
    }
    EXPECT_TRUE(contains(site.log(), " MAJOR ERR_HOST_NETWORKS ")) << site.log();
    EXPECT_EQ(site.stop(), 0);
}

TEST_F(DaemonQuestionTest, ExplainsNestedPrefixesAndTheNextChange) {
    struct Case {
        char const* label;
        char const* question;
        char const* network;
        char const* reason;
        Json next; // when, or null
    };
    for (Case const& test :
         {Case{"a longer prefix is still to come", "00447700955 --at 20240101000000", "ALPHA",
               "0044770 is the longest stored prefix with a record that has begun; 004477009 is stored, but its first "
               "record begins only at 2098-01-01 00:00:00",
               "20980101000000"},
          {"a shorter prefix's future changes nothing", "00447700900123 --at 20240101000000", "BRAVO",
           "00447700900123 is the number itself", "20990915020000"},
          {"the second before", "00447700900123 --at 20990915015959", "BRAVO", "itself", "20990915020000"},
          {"the very second", "00447700900123 --at 20990915020000", "CHARLIE", "itself", nullptr},
          {"before everything", "00447700900123 --at 20000101000000", "", "no stored prefix has a record",
           "20200101000000"}}) {
        Json const answer = Json::parse(site.tell(std::string("--json explain ") + test.question).out);
        Json const& best = answer.at("methods").at("best");
        EXPECT_EQ(best.at("network").is_null() ? "" : best.at("network").get<std::string>(), test.network)
            << test.label;
        EXPECT_TRUE(contains(best.at("reason"), test.reason)) << test.label << best;
        EXPECT_EQ(answer.at("nextChange").is_null() ? Json() : answer.at("nextChange").at("at"), test.next)
            << test.label;
    }
}

// What the three methods do with each other's prefixes, without a daemon.
TEST(ExplanationTest, AgreesWithEachMethod) {
    using DAT::NumberPortability::NumberPortabilityData;
    auto const record = [](char const* at, char const* network) {
        return NumberPortabilityData(BAS::DateTime(at), BAS::SimpleString(network));
    };
    nphost::Explanation::Prefixes const prefixes = {
        {"0044", {record("20300101000000", "C"), record("20250101000000", "B")}},
        {"00", {record("20280101000000", "E"), record("20200101000000", "A")}}};
    struct Case {
        unsigned int method;
        char const* number;
        char const* at;
        std::string network;
        std::string next;
        char range; // its network
        std::optional<bool> ported;
    };
    for (Case const& test : {Case{0, "0044 1", "20240101000000", "A", "20250101000000", 'A', false},
                             // not at 2028: E is shorter
                             Case{0, "00441", "20250101000000", "B", "20300101000000", 'B', false},
                             Case{0, "00441", "20310101000000", "C", "", 'C', false},
                             Case{0, "00-44", "20260101000000", "B", "20300101000000", 'A', true},
                             Case{1, "00441", "20260101000000", "", "", 'B', {}}, // the number itself is not stored
                             Case{1, "00-44", "20240101000000", "", "20250101000000", 'A', {}},
                             Case{2, "0044", "20260101000000", "A", "20280101000000", 'A', false},
                             Case{2, "00441", "20260101000000", "A", "20280101000000", 'B', {}}, // 00 is no range of it
                             Case{2, "0044", "20190101000000", "", "20200101000000", '-', {}}}) {
        nphost::Explanation const explanation(prefixes, test.number);
        BAS::DateTime const at(test.at);
        auto const choice = explanation.choose(test.method, at);
        EXPECT_EQ(choice.record == nullptr ? "" : choice.record->networkIdM.c_str(), test.network)
            << test.method << test.at;
        auto const next = explanation.nextChange(test.method, at);
        EXPECT_EQ(next ? nphost::digitsOf(next->at) : "", test.next) << test.method << test.at;
        auto const range = explanation.range(at);
        EXPECT_EQ(range.record == nullptr ? '-' : *range.record->networkIdM.c_str(), test.range) << test.at;
        EXPECT_EQ(explanation.ported(test.method, at), test.ported) << test.method << test.at;
    }
}

char const* const unguardedCM = "[host.guard]\nminRecords = 0\n"; // what the plug-in itself makes of a file

TEST(DaemonRequestTest, OutcomesOfReloads) {
    std::string const more = dataCM + "0033 20200101000000 ECHO\n";
    enum File { WRITTEN, GONE, FOLDER };
    struct Case {
        char const* label;
        File file;
        std::string content;
        char const* options;
        int status;
        char const* part;
        int records;
    };
    Site site(dataCM, unguardedCM);
    site.start();
    for (Case const& test :
         {Case{"a new record", WRITTEN, more, "", 0, "5 records are loaded after the reload", 5},
          {"empty, not to be adopted", WRITTEN, "", " --no-reuse", 1, "ERR_NUM_PORT_RELOAD", 5},
          {"last line bad, not to be adopted", WRITTEN, dataCM + "0033", " --no-reuse", 1, "FAILED", 5},
          {"cut off in its last line, adopted", WRITTEN, dataCM + "0033", "", 0, "ERR_NUMBER_OF_FIELDS", 4},
          {"vanished", GONE, "", "", 1, "ERR_FILE_NOT_FOUND", 4},
          {"a folder", FOLDER, "", "", 1, "ERR_FILE_NOT_FOUND", 4},
          {"back again", WRITTEN, more, " --no-reuse", 0, "done", 5},
          {"empty, adopted", WRITTEN, "", "", 0, "0 records", 0}}) {
        std::filesystem::remove_all(site.data);
        if (test.file == WRITTEN)
            site.folder.write("data.dat", test.content);
        if (test.file == FOLDER)
            std::filesystem::create_directory(site.data);
        expectResult(site.tell(std::string("reload --wait") + test.options), test.status, test.part, test.label);
        EXPECT_EQ(site.status().at("records"), test.records) << test.label;
    }
    EXPECT_EQ(site.tell("reload --no-wait").out, "reload: requested\n");
}

// The site's folder with names of every kind in it.
void fillFolder(Site const& site) {
    site.folder.write("delta", "0033 20200101000000 ECHO\n");
    ASSERT_EQ(mkfifo(site.folder.file("fifo").c_str(), 0600), 0);
    std::filesystem::create_symlink("data.dat", site.folder.file("link"));
    std::filesystem::create_hard_link(site.data, site.folder.file("hard"));
    std::filesystem::create_directories(site.folder.path() / "real/sub");
    std::filesystem::create_symlink("real/sub", site.folder.file("sub"));
    site.folder.write("real/other", "");
}

struct Outcome {
    std::string command;
    int status;
    char const* part;
};

std::vector<Outcome> const outcomesCM = {
    {"delta @sub/../other", 0, "delta: done"},
    {"delta @none", 1, "ERR_NUM_PORT_DELTALOAD"},
    {"delta @fifo", 1, "FAILED"},
    {"delta @real", 1, "FAILED"},
    {"delta @delta", 0, "records added: 1 : "},
    {"delta @delta", 0, "0 records added, 1 known already\ndelta: done"},
    {"update AdditionalNumPortData=@delta", 0, "INF_HOST_DELTA_LOADED \"0\" \"1\" "},
    {"delta @data.dat", 0, "delta: done"},
    {"print @listing", 0, "5 records are printed"},
    {"print", 0, "(Console)"},
    {"print @none/x", 1, "ERR_WRITE_FILE"},
    {"print /dev/full", 1, "ERR_WRITE_FILE"},
    {"print @fifo", 1, "FAILED"},
    {"print @data.dat", 2, "is the data file itself"},
    {"print @link", 2, "itself"},
    {"update PrintData=@link", 2, "is the data file itself"},
    {"print @nphost.toml", 2, "is the configuration file"},
    {"print @log", 2, "is standard error, the log"},
    {"print @s", 2, "control socket"},
    {"print /dev/fd/7", 2, "a descriptor of the daemon's own"},
    {"update PrintData=@log", 2, "is standard error, the log"},
    {"update PrintData=@sub/../../nphost.toml", 2, "is the configuration file"}};

TEST(DaemonRequestTest, OutcomesOfDeltasAndPrints) {
    Site site;
    site.start();
    fillFolder(site);
    for (Outcome const& test : outcomesCM)
        site.expect(test.command + (test.command.starts_with("update") ? "" : " --wait"), test.status, test.part);
    site.expect("delta --wait " + site.folder.path().string(), 2, "does not lie below a folder");
    std::string const again = site.tell("delta @delta --wait").out;
    EXPECT_EQ(again.find("ERR_DUPLICATE"), again.rfind("ERR_DUPLICATE")) << "once, although of two trees\n" << again;
    EXPECT_EQ(lineCount(contentOf(site.data)), 5) << "the data file has the delta, and no heading";
    EXPECT_EQ(lineCount(contentOf(site.folder.file("listing"))), 5 + 3);
    EXPECT_EQ(lineCount(contentOf(site.folder.file("out"))), 5 + 3) << "the console is the daemon's standard output";
    std::filesystem::remove(site.data); // also while nothing is there, its name is the data file's
    site.expect("print @data.dat --wait", 2, "itself");
}

// Whoever asks for a delta sees its rejected lines, so not every file is read that the daemon's account may read.
TEST(DaemonRequestTest, ReadsDeltasBelowTheirFoldersOnly) {
    Site site(dataCM, "deltaFolders = [\"none\", \"in\"]\n");
    std::filesystem::create_directories(site.folder.path() / "in/sub");
    auto const file = [&](std::string const& name) { return site.folder.file(name); };
    site.folder.write("in/delta", "0033 20200101000000 ECHO\n");
    site.folder.write("private", "secret\n");
    for (auto const& [link, target] :
         {std::pair{"in/within", std::string("sub/../delta")}, std::pair{"in/absolute", file("in/delta")},
          std::pair{"in/out", std::string("../private")}, std::pair{"in/up", std::string("..")},
          std::pair{"in/nothing", std::string("../nothing")}, std::pair{"way-in", std::string("in/delta")},
          std::pair{"alias", std::string("in")}})
        std::filesystem::create_symlink(target, file(link));
    site.start();
    std::pair<int, std::string_view> const cases[] = {
        {0, "in/delta in/sub/../delta in/within alias/delta in/absolute way-in"},
        {1, "in/none in/sub in/none/none in/none/../../private"},
        {2, "private data.dat in/../private in/out in/nothing in/nothing/x in/up/private in/up/x in into none/x"}};
    for (auto const& [status, names] : cases) {
        std::string const refusal = status == 2 ? "does not lie below a folder that deltaFolders names: " : "";
        std::istringstream words{std::string(names)};
        for (std::string name; words >> name;) {
            expectResult(site.ctl({"delta", file(name), "--wait", "--force"}), status, refusal, name);
            expectResult(site.ctl({"update", "AdditionalNumPortData=" + file(name)}), status, refusal, name);
        }
    }
    expectResult(site.ctl({"delta", "/proc/self/environ", "--wait"}), 2, "does not lie below", "elsewhere");
    EXPECT_FALSE(contains(site.log(), "secret"));
    EXPECT_EQ(site.stop(), 0);
}

TEST(DaemonRequestTest, WarnsOfNumbersWithoutDigits) {
    Site site("NULL 20200101000000 A\n" + dataCM + "- 20200101000000 A\n");
    site.start();
    EXPECT_TRUE(contains(site.log(), " WARNING ERR_NUMBERS_WITHOUT_DIGITS \"2\" \"1\" \"" + site.data + "\""))
        << site.log();
    EXPECT_EQ(site.status().at("lastLoad").at("numbersWithoutDigits"), 2) << "a duplicate among them";
    EXPECT_TRUE(contains(site.ctl({"status"}).out, "  warning:        2 numbers without digits"));
    site.folder.write("data.dat", dataCM);
    EXPECT_EQ(site.ctl({"reload", "--wait"}).status, 0);
    EXPECT_EQ(site.status().at("lastLoad").at("numbersWithoutDigits"), 0);
}

// The worker is held by a pipe that is read late, while a name that was free comes to mean the data file.
TEST(DaemonRequestTest, RefusesWhatANameComesToMeanWhileItWaits) {
    std::string const lines = records(15'000);
    Site site(lines);
    site.start();
    std::string const pipe = site.folder.file("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    int const reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(site.ctl({"print", pipe, "--no-wait"}).status, 0);
    EXPECT_EQ(site.ctl({"print", site.folder.file("later"), "--no-wait"}).status, 0);
    std::string const delta = site.folder.write("delta", "0033 20200101000000 ECHO\n");
    TemporaryFolder const elsewhere;
    EXPECT_EQ(site.ctl({"delta", delta, "--no-wait"}).status, 0);
    std::filesystem::remove(delta);
    std::filesystem::create_symlink(elsewhere.write("private", "secret\n"), delta);
    std::filesystem::create_symlink("data.dat", site.folder.file("later"));
    std::array<char, 65536> block;
    EXPECT_TRUE(eventually([&] {
        while (read(reader, block.data(), block.size()) > 0) {
        }
        return contains(site.log(), "ERR_HOST_PRINT_REFUSED") && contains(site.log(), "ERR_HOST_DELTA_REFUSED");
    })) << site.log();
    EXPECT_FALSE(contains(site.log(), "secret"));
    close(reader);
    EXPECT_EQ(contentOf(site.data), lines);
}

// Reports hold the lines that they are about, and lines may be of any length.
TEST(DaemonRequestTest, KeepsOnlyTheBeginningOfLongReports) {
    Site site(std::string(dataCM) + std::string(1'000'000, '7') + " 2018x A\n");
    site.start();
    Result const log = site.ctl({"--json", "log"});
    EXPECT_TRUE(contains(log.out, "(1000004 bytes)")) << log.out.substr(0, 3000);
    EXPECT_LT(log.out.size(), 20'000U);
    expectResult(site.ctl({"reload", "--wait"}), 0, "reload", "with the long line");
}

TEST(DaemonRequestTest, Updates) {
    Site site(dataCM, unguardedCM);
    site.start();
    site.folder.write("delta", "0033 20200101000000 ECHO\n");
    struct Case {
        std::string keys;
        int status;
        char const* part;
    };
    for (Case const& test :
         {Case{"Reload=TRUE AdditionalNumPortData=@x", 1, "Result:           false\nHandled:          true\n"},
          {"Reload=TRUE AdditionalNumPortData=@x", 1, "ERR_INVALID_REG_ENTRIES"},
          {"Reload=x ReuseOnFailure=maybe", 1, "ERR_INVALID_REG_VALUE \"MAYBE\""},
          {"ReuseOnFailure=maybe", 1, "Result:           true\nHandled:          false\n"},
          {"Reload=FALSE ReuseOnFailure=false", 0, "EVT::RELOAD_SUCCESSFUL"},
          {"Speed=high", 2, "no key 'Speed' of an update; the keys are Reload, ReuseOnFailure, Add"},
          {"Reload=", 0, "INF_NUM_NPORT_RELOADED \"4\""},
          {"AdditionalNumPortData=@delta", 0, "EVT::ADD_NUM_PORT_DATA_SUCCESSFUL"},
          {"AdditionalNumPortData=@delta", 0, "INF_NUM_NPORT_ADDED \"0\""},
          {"PrintData=", 0, "Result:           true\nHandled:          true"},
          {"AdditionalNumPortData=@none", 1, "EVT::ADD_NUM_PORT_DATA_FAILED"},
          {"PrintData=@none/x", 1, "ERR_WRITE_FILE"},
          {"PrintData=@listing", 0, "Handled:          true"},
          {"Reload", 2, "is not KEY=VALUE"},
          {"Reload=1 Reload=2", 2, "given twice"}})
        site.expect("update " + test.keys, test.status, test.part);
    expectResult(site.ctl({"update", "Reload=x", "ReuseOnFailure=true "}), 1, "ERR_INVALID_REG_VALUE \"TRUE \"",
                 "a blank behind it");
    std::filesystem::remove(site.data);
    // Without the key the plug-in stays usable with its old data, although the file check reports its error.
    site.expect("update Reload=TRUE", 1, "Result:           true");
    EXPECT_EQ(site.tell("status").status, 0);
    site.expect("update Reload=TRUE ReuseOnFailure=FALSE", 1, "Result:           false");
    Result const status = site.tell("status");
    EXPECT_EQ(status.status, 1) << "not usable";
    EXPECT_TRUE(contains(status.out, "Usable:           no")) << status.out;
}

// Each gets the outcome of its own request, whatever the others do at the same time.
TEST(DaemonRequestTest, ConcurrentClientsGetTheirOwnOutcomes) {
    Site site;
    site.start();
    site.folder.write("delta", "0033 20200101000000 ECHO\n");
    site.expectAtOnce({{"reload --wait", 0},
                       {"delta @none --wait", 1},
                       {"print @listing --wait", 0},
                       {"update AdditionalNumPortData=@none", 1},
                       {"print @none/x --wait", 1},
                       {"delta @delta --wait", 0},
                       {"update Reload=TRUE", 0}});
    EXPECT_EQ(site.stop(), 0);
}

// Networks may have names of any length, and a thousand answers may name the same one.
TEST(DaemonProtocolTest, AnswersAreBounded) {
    std::string const name(1'000'000, 'N');
    Site site("00441 20200101000000 " + name + "\n004411 20200101000000 " + name + "\n0044111 20200101000000 " + name +
              "\n00441111 20200101000000 " + name + "\n004411111 20200101000000 " + name + "\n00442 20200101000000 " +
              std::string(4'200'000, 'N') + "\n0049 20200101000000 " + name.substr(0, 125'000) + "\n" + dataCM);
    site.start();
    RawClient client(site.socket());
    std::string numbers = R"("004412","004412","004412","004412")";
    client.send(R"({"version":1,"command":"lookup","numbers":[)" + numbers + "]}\n");
    EXPECT_TRUE(contains(client.line(), "\"ok\":true")) << "four megabytes and no more";
    client.send(R"({"version":1,"command":"lookup","numbers":["004412",)" + numbers + "]}\n");
    std::string const refusal = client.line();
    EXPECT_TRUE(contains(refusal, "the answer would be longer than 4194304 bytes")) << refusal;
    EXPECT_TRUE(contains(refusal, "\"tooLong\":true")) << refusal;
    numbers = "\"0049\"";
    for (int i = 1; i < 34; ++i) // several batches
        numbers += ",\"0049\"";
    client.send(R"({"version":1,"command":"lookup","numbers":[)" + numbers + "]}\n");
    EXPECT_TRUE(contains(client.line(), "\"tooLong\":true"));
    Arguments many = {"lookup"};
    many.resize(7, "004412");
    Result const parts = site.ctl(many);
    EXPECT_EQ(parts.status, 0) << parts.err;
    EXPECT_EQ(lineCount(parts.out), 6) << "asked for in parts";
    many.emplace_back("00442");
    expectResult(site.ctl(many), 2, "the answer would be longer than 4194304 bytes", "one that is too long alone");
    expectResult(site.ctl({"explain", "00441111"}), 0, "00441111 is the number itself", "four names");
    expectResult(site.ctl({"explain", "004411111"}), 2, "the answer would be longer than 4194304 bytes", "five");
    EXPECT_EQ(site.stop(), 0);
}

struct BadRequest {
    char const* label;
    std::string request;
    char const* reason;
};

std::vector<BadRequest> const badRequestsCM = {
    {"no JSON", "hello\n", "cannot be understood"},
    {"empty", "\n", "cannot be understood"},
    {"no object", "[1]\n", "not an object"},
    {"deep", std::string(60000, '[') + "\n", "cannot be understood"},
    {"NUL", std::string("{\0}\n", 4), "cannot be understood"},
    {"no version", "{\"command\":\"status\"}\n", "version is 1"},
    {"another version", "{\"version\":2,\"command\":\"status\"}\n", "version is 1"},
    {"no command", "{\"version\":1}\n", "the key 'command' is missing"},
    {"unknown", "{\"version\":1,\"command\":\"x\\ny\"}\n", "no command 'x\\\\ny'"},
    {"a number for a text", "{\"version\":1,\"command\":1}\n", "'command' must be a text"},
    {"an instant of no kind", "{\"version\":1,\"command\":\"lookup\",\"numbers\":[\"1\"],\"at\":1}\n",
     "'at' must be a text"},
    {"a truth of no kind", "{\"version\":1,\"command\":\"explain\",\"number\":\"1\",\"normalise\":1}\n",
     "'normalise' must be true or false"},
    {"no number", "{\"version\":1,\"command\":\"explain\"}\n", "the key 'number' is missing"},
    {"a number among the numbers", "{\"version\":1,\"command\":\"lookup\",\"numbers\":[1]}\n",
     "each of 'numbers' must be a text"},
    {"numbers of no kind", "{\"version\":1,\"command\":\"lookup\",\"numbers\":{}}\n", "a list"},
    {"a relative file", "{\"version\":1,\"command\":\"delta\",\"file\":\"x\"}\n", "absolute"},
    {"a NUL in a file", "{\"version\":1,\"command\":\"print\",\"file\":\"/x\\u0000\"}\n", "must name a file"},
    {"deep keys",
     "{\"version\":1,\"command\":\"update\",\"keys\":" + std::string(32000, '[') + std::string(32000, ']') + "}\n",
     "must be an object"},
    {"keys of no kind", "{\"version\":1,\"command\":\"update\",\"keys\":[1]}\n", "must be an object"},
    {"a truth of no kind that says nothing", "{\"version\":1,\"command\":\"print\",\"force\":1}\n",
     "'force' must be true or false"},
    {"a relative file to print", "{\"version\":1,\"command\":\"update\",\"keys\":{\"PrintData\":\"x\"}}\n", "absolute"},
};

std::string const statusRequestCM = "{\"version\":1,\"command\":\"status\"}\n";

TEST(DaemonProtocolTest, BadRequestsHarmNobody) {
    Site site;
    rlimit stack = {};
    getrlimit(RLIMIT_STACK, &stack);
    rlimit const small = {2UL << 20U, stack.rlim_max};
    setrlimit(RLIMIT_STACK, &small); // the daemon's: nesting must not take it
    site.start();
    setrlimit(RLIMIT_STACK, &stack);
    RawClient other(site.socket());
    for (BadRequest const& test : badRequestsCM) {
        RawClient client(site.socket());
        ASSERT_TRUE(client.send(test.request + statusRequestCM)) << test.label;
        std::string const answer = client.line();
        EXPECT_TRUE(contains(answer, "\"ok\":false") && contains(answer, test.reason)) << test.label << answer;
        EXPECT_TRUE(contains(client.line(), "\"usable\":true")) << "the connection goes on: " << test.label;
        ASSERT_TRUE(other.send(statusRequestCM));
        EXPECT_TRUE(contains(other.line(), "\"usable\":true")) << test.label;
    }
    EXPECT_EQ(site.stop(), 0);
}

TEST_F(DaemonQuestionTest, LinesThatAreTooLongOrEndEarly) {
    RawClient large(site.socket());
    large.send(std::string(70000, ' '));
    EXPECT_TRUE(contains(large.line(), "longer than 65536"));
    EXPECT_EQ(large.line(), "<closed>");
    RawClient half(site.socket());
    ASSERT_TRUE(half.send("{\"version\""));
    half.endSending();
    EXPECT_TRUE(contains(half.line(), "does not end with a newline"));
    RawClient ended(site.socket()); // still gets its answers
    ASSERT_TRUE(ended.send(statusRequestCM + statusRequestCM));
    ended.endSending();
    EXPECT_TRUE(contains(ended.line(), "usable") && contains(ended.line(), "usable"));
    EXPECT_EQ(ended.line(), "<closed>");
    EXPECT_EQ(site.stop(), 0);
}

TEST(DaemonProtocolTest, DropsWhoNeitherFinishesNorReads) {
    Site site;
    site.start();
    RawClient half(site.socket());
    ASSERT_TRUE(half.send("{\"version\":1,"));
    RawClient halfFollower(site.socket());
    ASSERT_TRUE(halfFollower.send("{\"version\":1,\"command\":\"log\",\"follow\":true}\n{\"ver"));
    RawClient deaf(site.socket());
    std::string requests;
    for (int i = 0; i < 1000; ++i)
        requests += "{\"version\":1,\"command\":\"log\"}\n";
    while (deaf.send(requests, MSG_DONTWAIT)) {
    }
    RawClient leaver(site.socket()); // asks and goes
    ASSERT_TRUE(leaver.send("{\"version\":1,\"command\":\"reload\"}\n"));
    EXPECT_EQ(site.ctl({"reload", "--wait"}).status, 0);
    EXPECT_TRUE(contains(half.line(), "not finished in time"));
    EXPECT_EQ(half.line(), "<closed>");
    EXPECT_TRUE(eventually([&] { return deaf.isDropped(); }));
    std::string last;
    for (std::string line = halfFollower.line(); line.front() == '{'; line = halfFollower.line())
        last = line;
    EXPECT_TRUE(contains(last, "not finished in time")) << last;

    std::vector<std::unique_ptr<RawClient>> crowd;
    bool turnedAway = false;
    for (int i = 0; i < 40 && !turnedAway; ++i) {
        crowd.push_back(std::make_unique<RawClient>(site.socket()));
        crowd.back()->send("{\"version\":1,\"command\":\"probes\"}\n"); // it may have been turned away already
        turnedAway = contains(crowd.back()->line(), "too many clients");
    }
    EXPECT_TRUE(turnedAway);
    crowd.clear();
    EXPECT_TRUE(eventually([&] { return site.ctl({"status"}).status == 0; }));
    EXPECT_EQ(site.stop(), 0);
}

} // namespace
