// The cache manager alone: normalisation, the record parser, load, reload, delta load, and look-ups meanwhile.
#include "cache/LineStore.h"
#include "cache/RecordBatch.h"
#include "cache/TreeFilling.h"
#include "framework/STR/FileIo.h"
#include "framework/STR/FilePlace.h"
#include "tests/OwnerDouble.h"
#include "tests/TemporaryFolder.h"
#include "tests/Texts.h"
#include "tests/WatchedThread.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <iostream>
#include <latch>
#include <sstream>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

using namespace DAT::NumberPortability;
using namespace std::string_literals;
using Identifiers = std::vector<std::string>;
using Arguments = std::vector<std::string>;

namespace {

constexpr uid_t nobodyCM = 65534;

struct Codes {
    BAS::String national = "0", international = "00", country = "44", sign = "+";
};

class Cache : public testing::Test {
  protected:
    Cache() { use(Codes()); }

    void use(Codes const& newCodes, unsigned columns = 3) {
        codes = newCodes;
        cache = std::make_unique<CacheManager>(&plugIn, codes.national, codes.international, codes.country, codes.sign,
                                               columns, BAS::String(folder.file("main")));
    }
    void write(std::string const& lines) { folder.write("main", lines); }
    bool loadLines(std::string const& lines) {
        write(lines);
        return cache->load();
    }
    bool delta(std::string const& lines) { return cache->cacheDeltaLoad(BAS::String(folder.write("delta", lines))); }
    std::string answer(char const* number, char const* instant = "20240101000000", unsigned method = 0) {
        NumberPortabilityData out;
        return cache->search(number, BAS::DateTime(BAS::String(instant)), out, method) ? out.networkIdM.c_str() : "-";
    }
    std::string listing() {
        std::ostringstream out;
        cache->print(out, false);
        return out.str();
    }
    // Makes the reader's file fail to be read from here on: its descriptor becomes that of a file whose every read
    // fails.
    void breakReading(std::string const& file) {
        DIR* const descriptors = opendir("/proc/self/fd");
        while (dirent const* const entry = readdir(descriptors)) { // NOLINT(concurrency-mt-unsafe)
            std::error_code ignored;
            auto const link = std::filesystem::read_symlink("/proc/self/fd/"s + entry->d_name, ignored);
            if (link == file) {
                int const broken = open("/proc/self/mem", O_RDONLY);
                dup2(broken, std::stoi(entry->d_name));
                close(broken);
            }
        }
        closedir(descriptors);
    }
    // Leaves the folder's files to an account that may not make others there. False when this process cannot.
    bool giveFilesAway() {
        write("");
        return geteuid() == 0 && chown(folder.file("main").c_str(), nobodyCM, nobodyCM) == 0 &&
               chmod(folder.path().c_str(), 0755) == 0;
    }
    // Long lines, one of them bad, that are more than one batch: when the bad one is reported there is still some of
    // the file to read.
    static std::string manyLines(std::string const& network) {
        return "a bad line of words\n" +
               numberedLines(30'000, "0044", 7'000'000'000,
                             "  20200101000000  " + network + std::string(RecordBatch::mostBytesCM / 25'000, ' '));
    }

    TemporaryFolder folder;
    PlugIn plugIn;
    Codes codes;
    std::unique_ptr<CacheManager> cache;
};

} // namespace

TEST_F(Cache, NormalisesByTheFirstRuleThatApplies) {
    struct Case {
        char const *from, *to;
    };
    auto const expect = [&](char const* what, Codes const& with, std::initializer_list<Case> cases) {
        use(with);
        for (Case const& c : cases) {
            BAS::String number(c.from);
            cache->normalize(number);
            EXPECT_EQ(number.str(), c.to) << what << ": " << c.from;
        }
    };
    expect("usual codes", {},
           {{"+441711234567", "00441711234567"},
            {"00441711234567", "00441711234567"},
            {"0031201234567", "0031201234567"},
            {"01711234567", "00441711234567"},
            {"1711234567", "00441711234567"},
            {"", "0044"},
            {"+", "00"},
            {"0", "0044"},
            {"0 171 1234567", "0044 171 1234567"},
            {"+00441711234567", "0000441711234567"},
            {"441711234567", "0044441711234567"}});
    expect("no sign", {"0", "00", "44", ""}, {{"01711234567", "0001711234567"}, {"", "0044"}});
    expect("no international code", {"0", "", "44", "+"},
           {{"01711234567", "01711234567"}, {"+441711234567", "441711234567"}, {"", "44"}});
    expect("no national code", {"", "00", "44", "+"}, {{"0171", "00440171"}, {"171", "0044171"}});
}

struct Line {
    std::string line;
    std::string identifier; // empty: a good line
    Arguments arguments;    // of the report, with FILE for the file's name, or the listing of the good line
};

std::string const invalidCM = "Invalid N-Port Data at Line# 1 in File 'FILE'. ";

Line badFields(char const* count, std::string const& line) {
    return {line, "ERR_NUMBER_OF_FIELDS_IN_RECORD", {count, "3", line, "At Line# 1 in File 'FILE'. "}};
}

std::vector<Line> const linesCM = {
    {"01711234567  20240101000000  NET1", "", {"00441711234567  20240101000000  NET1\n"}},
    {"\t 0171 \t20240101000000\v\fS\xc3\xad\x80\xff\r", "", {"0044171  20240101000000  S\xc3\xad\x80\xff\n"}},
    {"01\00071 20240101000000 N"s, "", {"0044171  20240101000000  N\n"}},
    {"0171 99991231235959 more-than-seven-characters", "", {"0044171  99991231235959  more-than-seven-characters\n"}},
    badFields("0", ""),
    badFields("0", "   "),
    badFields("0", "\r"),
    badFields("2", "0171 20240101000000"),
    badFields("4", "0 171 20240101000000 NET1"),
    {"0171 UNKNOWN NET1", "ERR_INVALID_DATETIME", {invalidCM, "UNKNOWN", "0044171"}},
    {"0171 20230229000000 NET1", "ERR_INVALID_DATETIME", {invalidCM, "20230229000000", "0044171"}},
    {"0171 2024010100000 NET1", "ERR_INVALID_DATETIME", {invalidCM, "2024010100000", "0044171"}},
    {"0171 20240101000000 N\0T"s, "ERR_INVALID_NETWORK_ID", {invalidCM, "N\0T"s, "0044171"}},
};

TEST_F(Cache, ReportsEveryBadLineWithItsNumberFileAndReason) {
    for (Line const& c : linesCM) {
        SCOPED_TRACE(c.line);
        use(codes);
        EXPECT_TRUE(loadLines(c.line + "\n"));
        bool const good = c.identifier.empty();
        EXPECT_EQ(listing(), good ? c.arguments[0] : "");
        ASSERT_EQ(plugIn.reports.size(), good ? 1U : 3U) << "once per tree, and the end of the file";
        Arguments arguments = c.arguments;
        arguments.front() = replaced(arguments.front(), "FILE", folder.file("main"));
        arguments.back() = replaced(arguments.back(), "FILE", folder.file("main"));
        for (std::size_t i = 0; i + 1 < plugIn.reports.size(); ++i) {
            EXPECT_EQ(plugIn.reports[i].identifier, c.identifier);
            EXPECT_EQ(plugIn.reports[i].severity, 2);
            EXPECT_EQ(plugIn.reports[i].arguments, arguments);
        }
        plugIn.reports.clear();
    }
}

TEST_F(Cache, TakesLinesOfAnyColumnCountThatHoldsARecord) {
    struct Case {
        unsigned columns;
        char const *line, *expected; // words of a line that is rejected
    };
    for (Case const& c : {Case{4, "0171 20240101000000 A more\n", ""},
                          {4, "0171 20240101000000 A\n", "4"},
                          {2, "0171 20240101000000\n", "3"},
                          {2, "0171 20240101000000 A\n", "2"}}) {
        SCOPED_TRACE(c.line + std::to_string(c.columns));
        use(codes, c.columns);
        plugIn.reports.clear();
        EXPECT_TRUE(loadLines(c.line));
        EXPECT_EQ(listing(), *c.expected == 0 ? "0044171  20240101000000  A\n" : "");
        EXPECT_TRUE(*c.expected == 0 || plugIn.reports[0].arguments[1] == c.expected);
    }
}

class Filling : public Cache {
  protected:
    struct Seen {
        std::string stored;
        std::vector<std::string> reports;
    };
    Filling() {
        for (char const* const number : {"0171-1", "171", "+(171)1", "NULL", "+1234567890123456", "+1234567890123456-7",
                                         "+12345678901234567", "+12345678901234568", "+123456789012345-6"})
            for (std::string const& rest : {" 20240101000000 A"s, " x B"s, " 20250101000000 N\0T"s, ""s,
                                            " 20250101000000 C"s, " 20240101000000 D"s})
                lines.push_back(number + rest);
    }
    Seen see(NumberPortabilityTree const& tree) {
        std::ostringstream out;
        tree.printTree(out, false);
        Seen seen{out.str(), {}};
        for (PlugIn::Report const& report : std::exchange(plugIn.reports, {})) {
            seen.reports.push_back(report.identifier);
            for (std::string const& argument : report.arguments)
                seen.reports.back() += "|" + argument;
        }
        return seen;
    }
    // By insertCache; keeps the numbers of the lines that are reported.
    Seen lineByLine() {
        NumberPortabilityTree tree;
        rejectedLines.clear();
        for (unsigned long number = 1; number <= lines.size(); ++number) {
            cache->insertCache(&tree, lines[number - 1], number, true, reader);
            rejectedLines.resize(plugIn.reports.size(), number);
        }
        return see(tree);
    }
    // In batches of that many lines, into one tree or two.
    void expectBatches(std::uint32_t gathered, bool two, Seen const& expected, LineCounts const& counts) {
        SCOPED_TRACE(std::to_string(gathered) + (two ? " into two trees" : ""));
        DiallingCodes const dialling(codes.national, codes.international, codes.country, codes.sign);
        LoadStop const stop;
        NumberPortabilityTree first, second;
        std::vector<unsigned long> told;
        std::array<std::uint64_t, lineOutcomesCM> outcomes{};
        TreeFilling filling({dialling, 3, LineReporter(plugIn, dialling, reader), stop, gathered}, first,
                            two ? &second : nullptr,
                            [&](unsigned long number, LineOutcome outcome, BAS::String const& line) {
                                told.push_back(number);
                                ++outcomes[static_cast<std::size_t>(outcome)];
                                EXPECT_EQ(line.str(), lines[number - 1]);
                            });
        for (std::string const& line : lines)
            filling.add(line);
        filling.finish();
        Seen const seen = see(first);
        EXPECT_EQ(seen.stored, expected.stored);
        EXPECT_EQ(seen.reports, expected.reports);
        EXPECT_EQ(see(second).stored, two ? expected.stored : "");
        EXPECT_EQ(told, rejectedLines);
        EXPECT_EQ(filling.counts().rejected, told.size());
        EXPECT_EQ(filling.counts().byOutcome, outcomes);
        EXPECT_EQ(filling.counts().duplicates, counts.duplicates);
        EXPECT_EQ(filling.counts().withoutDigits, counts.withoutDigits);
        EXPECT_EQ(filling.counts().firstWithoutDigits, counts.firstWithoutDigits);
    }
    void expectAlike(LineCounts counts) {
        Seen const once = lineByLine();
        Seen twice{once.stored, {}};
        for (std::string const& report : once.reports) {
            twice.reports.insert(twice.reports.end(), 2, report);
            counts.duplicates += report.starts_with("ERR_DUPLICATE") ? 1 : 0;
        }
        ASSERT_GT(counts.duplicates, 5U);
        for (std::uint32_t const gathered : {1U, 2U, 3U, 4U, 7U, 19U, 53U, 54U, 1000U})
            for (bool const two : {false, true})
                expectBatches(gathered, two, two ? twice : once, counts);
    }

    std::vector<std::string> lines;
    std::vector<unsigned long> rejectedLines;
    STR::FileIoTurbo reader;
};

// However few lines are gathered before they are inserted, the same is stored, reported and counted as line by line.
TEST_F(Filling, IsAlikeInBatchesOfAnyLength) {
    LineCounts counts;
    counts.withoutDigits = 3;
    counts.firstWithoutDigits = 19;
    expectAlike(counts);
    use({"0", "", "44", "+"}); // a number may then be left without a digit
    expectAlike({});
}

// What is told in the end belongs together.
TEST_F(Cache, AnExaminationThatIsEndedCountsWhatItHasRead) {
    std::string lines;
    for (int i = 0; i < 9000; ++i)
        lines += "0171" + std::to_string(i % 8000) + " 20240101000000 N\n";
    write(lines);
    DataSummary summary;
    int asked = 0;
    EXPECT_TRUE(cache->examine(
        BAS::String(folder.file("main")), summary, [](unsigned long, LineOutcome, BAS::String const&) {},
        [&](std::uint64_t) { return ++asked < 2; }));
    EXPECT_FALSE(summary.readToEnd);
    EXPECT_EQ(summary.lines, 8192U);
    EXPECT_EQ(summary.records, 8000U);
    EXPECT_EQ(summary.duplicates, 192U);
}

// Whoever calls during the first load finds nothing, or all of it once the load has ended.
TEST_F(Cache, NobodySeesHalfOfTheFirstLoad) {
    constexpr std::uint32_t count = 60'000;
    write(numberedLines(count, "017", 1'000'000, " 20240101000000 N"));
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
    auto const look = [&](bool isFound) { wrong += isFound && cache->numOfEntries() != count ? 1 : 0; };
    std::vector<std::function<void()>> const calls{
        [&] { look(answer("0044171059999") != "-"); }, [&] { look(!cache->explain("0044171000000").empty()); },
        [&] { look(!listing().empty()); },
        [&] {
            ServiceStatus status;
            cache->describe(status);
            look(status.records != 0 || status.liveSince.isValid());
        },
        [&] {
            std::uint32_t seen = 0;
            cache->visitUpcoming(BAS::DateTime("20200101000000"), [&](auto const&, auto const&) { ++seen; });
            wrong += seen != 0 && seen != count ? 1 : 0;
        }};
    std::vector<std::jthread> threads;
    for (auto const& call : calls)
        threads.emplace_back([&] {
            while (!stop)
                call();
        });
    EXPECT_TRUE(cache->load());
    stop = true;
    threads.clear(); // joined
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(cache->numOfEntries(), count);
}

TEST_F(Cache, ReadsEveryFormOfNumberAndReportsTheRest) {
    use({"0", "00", "49", "+"});
    ASSERT_TRUE(loadLines("00491711234567  20040101000000  NETA\n"
                          "00491711234567  20050301120000  NETB\n"
                          "+491711234567  20050301120000  NETC\n"
                          "00491729876543  UNKNOWN  NETA\n"
                          "00491729876543  20050301120000\n"
                          "01729876543  20060101000000  NETB")); // the last line lacks its newline and counts
    EXPECT_EQ(listing(), "00491711234567  20050301120000  NETB\n00491711234567  20040101000000  NETA\n"
                         "00491729876543  20060101000000  NETB\n");
    EXPECT_EQ(plugIn.reports[0].arguments,
              (Arguments{"Invalid N-Port Data at Line# 3 in File '" + folder.file("main") + "'. ", "00491711234567",
                         "20050301120000"}));
    EXPECT_EQ(plugIn.takeIdentifiers(),
              (Identifiers{"ERR_DUPLICATE_NUMPORTDATA", "ERR_DUPLICATE_NUMPORTDATA", "ERR_INVALID_DATETIME",
                           "ERR_INVALID_DATETIME", "ERR_NUMBER_OF_FIELDS_IN_RECORD", "ERR_NUMBER_OF_FIELDS_IN_RECORD",
                           "INF_FILE_EOF"}));
}

TEST_F(Cache, TellsWhetherALineWasAccepted) {
    NumberPortabilityTree tree;
    STR::FileIoTurbo reader;
    auto const insert = [&](char const* line, bool ordered) {
        return cache->insertCache(&tree, line, 7, ordered, reader);
    };
    EXPECT_TRUE(insert("+441711234567 20240101000000 A", true));
    EXPECT_TRUE(insert("01711234567 20240101000000 B", true)) << "a duplicate";
    EXPECT_TRUE(insert("00441711234567 20240101000000 C", true));
    EXPECT_EQ(tree.entries(), 1U);
    EXPECT_EQ(plugIn.takeIdentifiers(), (Identifiers{"ERR_DUPLICATE_NUMPORTDATA", "ERR_DUPLICATE_NUMPORTDATA"}));
    EXPECT_FALSE(insert("01711234567 20240101000000", true));
    EXPECT_FALSE(insert("01711234567 x A", true));
    EXPECT_TRUE(insert("01711234567 20240101000000 D", false)) << "unordered takes it";
    EXPECT_EQ(tree.entries(), 2U);
    use({"", "", "", "+"}); // without digits in the codes a number may be left without any
    EXPECT_FALSE(insert("abc 20240101000000 A", true));
    EXPECT_EQ(plugIn.reports.back().identifier, "ERR_INVALID_NUMBER");
    EXPECT_EQ(plugIn.reports.back().arguments,
              (Arguments{"Invalid N-Port Data at Line# 7 in File ''. ", "abc", "20240101000000"}));
    EXPECT_EQ(tree.entries(), 2U);
}

TEST_F(Cache, LoadsWhatIsThereAndReportsTheEnd) {
    EXPECT_TRUE(loadLines(numberedLines(1000, "0171", 1'000'000, " 20240101000000 NET")));
    EXPECT_EQ(cache->numOfEntries(), 1000U);
    EXPECT_EQ(plugIn.reports.at(0).arguments, Arguments{folder.file("main")});
    EXPECT_EQ(plugIn.takeIdentifiers(), Identifiers{"INF_FILE_EOF"});
    EXPECT_EQ(cache->progress().lines(), 1000U);
    EXPECT_EQ(cache->progress().bytes(), cache->progress().totalBytes());
    // A delta load makes the standby tree active: it must hold the same.
    std::string const before = listing();
    EXPECT_TRUE(delta(""));
    EXPECT_EQ(listing(), before);

    use(codes);
    EXPECT_TRUE(loadLines(""));
    EXPECT_EQ(cache->numOfEntries(), 0U);
    EXPECT_EQ(plugIn.takeIdentifiers(), Identifiers{"INF_FILE_EOF"});
}

TEST_F(Cache, ChangesNothingWhenTheFileCheckFails) {
    ASSERT_TRUE(loadLines("0171 20240101000000 NET\n"));
    plugIn.reports.clear();
    plugIn.fileOpens = false;
    write("0172 20240101000000 NET\n");
    EXPECT_FALSE(cache->cacheReload(true));
    EXPECT_FALSE(delta("0173 20240101000000 NET\n"));
    EXPECT_FALSE(CacheManager(&plugIn, codes.national, codes.international, codes.country, codes.sign, 3,
                              BAS::String(folder.file("main")))
                     .load());
    EXPECT_TRUE(plugIn.reports.empty());
    EXPECT_EQ(listing(), "0044171  20240101000000  NET\n");
    EXPECT_EQ(contentOf(folder.file("main")), "0172 20240101000000 NET\n");
}

TEST_F(Cache, ReloadsWhateverItReadsWithReuse) {
    ASSERT_TRUE(loadLines("0171 20240101000000 OLD\n"));
    for (auto const& [lines, entries] : {std::pair{"0172 20240101000000 NEW\nbad\n", 1U}, {"bad\n", 0U}, {"", 0U}}) {
        SCOPED_TRACE(lines);
        plugIn.reports.clear();
        write(lines);
        EXPECT_TRUE(cache->cacheReload(true));
        EXPECT_EQ(cache->numOfEntries(), entries);
        EXPECT_EQ(plugIn.reports.back().identifier, "INF_DELETE_OLD_DATA");
        EXPECT_EQ(plugIn.reports.back().arguments, Arguments{"NP"});
    }
}

TEST_F(Cache, KeepsTheOldDataWhenTheLastLineFailsAndReuseIsOff) {
    ASSERT_TRUE(loadLines("0171 20240101000000 OLD\n0171 20200101000000 OLDER\n"));
    std::string const old = listing();
    plugIn.reports.clear();
    struct Case {
        char const* lines;
        bool adopted;
    };
    for (Case const& c : {Case{"", false},
                          {"0172 20240101000000 NEW\nbad\n", false},
                          {"0172 x NEW\n", false},
                          {"bad\n0172 20240101000000 NEW\n", true},
                          {"0172 20240101000000 NEW\n0172 20240101000000 DUPLICATE\n", true}}) {
        SCOPED_TRACE(c.lines);
        write(c.lines);
        EXPECT_EQ(cache->cacheReload(false), c.adopted);
        EXPECT_EQ(listing(), c.adopted ? "0044172  20240101000000  NEW\n" : old);
        if (!c.adopted) { // nothing but what the parser said, and the standby tree holds the old records again
            for (std::string const& identifier : plugIn.takeIdentifiers())
                EXPECT_TRUE(identifier.starts_with("ERR_NUMBER_OF") || identifier == "ERR_INVALID_DATETIME");
            EXPECT_TRUE(delta("0173 20240101000000 ADDED\n"));
            EXPECT_EQ(listing(), old + "0044173  20240101000000  ADDED\n");
            use(codes);
            ASSERT_TRUE(loadLines("0171 20240101000000 OLD\n0171 20200101000000 OLDER\n"));
            plugIn.reports.clear();
        }
    }
}

TEST_F(Cache, MergesADeltaAndRewritesTheMainFile) {
    ASSERT_TRUE(loadLines("0171 20240101000000 A\n0171 20200101000000 B\n"));
    plugIn.reports.clear();
    EXPECT_TRUE(delta("0172 20240101000000 C\n+44171 20240101000000 X\nbad\n0170 20240101000000 long-network-id\n"));
    std::string const merged = "0044170  20240101000000  long-network-id\n0044171  20240101000000  A\n"
                               "0044171  20200101000000  B\n0044172  20240101000000  C\n";
    EXPECT_EQ(cache->numOfEntries(), 4U);
    EXPECT_EQ(contentOf(folder.file("main")), merged);
    ASSERT_EQ(plugIn.reports.size(), 4U);
    for (std::size_t const i : {0U, 2U}) { // the second parse numbers and names the lines like the first
        EXPECT_EQ(plugIn.reports[i].arguments[0],
                  "Invalid N-Port Data at Line# 2 in File '" + folder.file("delta") + "'. ");
        EXPECT_EQ(plugIn.reports[i + 1].arguments[3], "At Line# 3 in File '" + folder.file("delta") + "'. ");
    }
    EXPECT_EQ(plugIn.takeIdentifiers(), (Identifiers{"ERR_DUPLICATE_NUMPORTDATA", "ERR_NUMBER_OF_FIELDS_IN_RECORD",
                                                     "ERR_DUPLICATE_NUMPORTDATA", "ERR_NUMBER_OF_FIELDS_IN_RECORD"}));
    EXPECT_TRUE(cache->cacheReload(false));
    EXPECT_EQ(listing(), merged);
    EXPECT_EQ(plugIn.takeIdentifiers(), Identifiers{"INF_DELETE_OLD_DATA"});
    // The main file itself as the delta: all duplicates, nothing lost.
    EXPECT_TRUE(cache->cacheDeltaLoad(BAS::String(folder.file("main"))));
    EXPECT_EQ(contentOf(folder.file("main")), merged);
}

// Rewriting the main file with less than was in it would lose what is in it.
TEST_F(Cache, RefusesADeltaBeforeTheMainFileHasBeenRead) {
    write("0171 20240101000000 A\n");
    for (char const* attempt : {"before the load", "after a load that did not find the file"}) {
        SCOPED_TRACE(attempt);
        EXPECT_FALSE(delta("0172 20240101000000 B\n"));
        EXPECT_EQ(plugIn.reports.back().identifier, "ERR_MAIN_DATA_NOT_LOADED");
        EXPECT_EQ(contentOf(folder.file("main")), "0171 20240101000000 A\n");
        plugIn.fileOpens = false;
        EXPECT_FALSE(cache->load());
        plugIn.fileOpens = true;
    }
    EXPECT_TRUE(cache->cacheReload(true));
    EXPECT_TRUE(delta("0172 20240101000000 B\n"));
    EXPECT_EQ(cache->numOfEntries(), 2U);
}

class KilledCache : public Cache {
  protected:
    // A child does the delta load and is killed when it has been stopped that often, at a system call's beginning or
    // its end. False when it has come to its own end before.
    bool isKilledAfter(int stops, bool asNobody) {
        pid_t const child = fork();
        if (child == 0) {
            if (asNobody && setresuid(nobodyCM, nobodyCM, nobodyCM) != 0)
                _exit(2);
            ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
            raise(SIGSTOP);
            _exit(cache->cacheDeltaLoad(BAS::String(folder.file("delta"))) ? 0 : 1);
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFSTOPPED(status)) << "cannot trace a child here";
        for (; stops > 0 && WIFSTOPPED(status); --stops) {
            ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
            waitpid(child, &status, 0);
        }
        if (!WIFSTOPPED(status)) {
            EXPECT_EQ(status, 0);
            return false;
        }
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
        return true;
    }
};

// At its first system call, its second, and so on to its last: the main file is the old one or the merged one, whole,
// at every point. Where the file can only be overwritten that is so for a single block: nothing of it goes before the
// new content is complete.
TEST_F(KilledCache, ADeltaLeavesTheMainFileWhole) {
    std::string const old = "0044171  20240101000000  A\n";
    std::string const merged = old + "0044172  20240101000000  B\n";
    folder.write("delta", "0172 20240101000000 B\n");
    ASSERT_TRUE(loadLines(old));
    for (bool const inPlace : {false, true}) {
        if (inPlace && !giveFilesAway())
            GTEST_SKIP() << "only root can have a file of somebody else, and become nobody";
        int oldFound = 0;
        int mergedFound = 0;
        bool killed = true;
        for (int stops = 0; killed; ++stops) {
            write(old);
            killed = isKilledAfter(stops, inPlace);
            std::string const content = contentOf(folder.file("main"));
            ++(content == merged ? mergedFound : oldFound);
            ASSERT_FALSE(HasFailure());
            ASSERT_TRUE(content == merged || (killed && content == old)) << "after " << stops << " stops:\n" << content;
        }
        EXPECT_GT(oldFound, 20);
        EXPECT_GT(mergedFound, 2);
    }
}

struct InPlace {
    std::string network; // that the delta adds; a reload when there is none
    mode_t mode;         // of the data file
    bool unsaved;
    Identifiers reports;
};

std::vector<InPlace> const inPlaceCM = {{"B", 0600, false, {"INF_FILE_WRITTEN_IN_PLACE"}},
                                        {"C", 0400, true, {}},
                                        {"D", 0400, true, {}},
                                        {"E", 0600, false, {"INF_FILE_WRITTEN_IN_PLACE"}},
                                        {"F", 0400, true, {}},
                                        {"", 0600, false, {"INF_DELETE_OLD_DATA"}}};

// In a folder that is closed to the account, so that no file can be put beside the data file.
TEST_F(Cache, ADeltaOverwritesWhatCannotBeReplacedAndTellsOfWhatItCouldNotSave) {
    if (!giveFilesAway())
        GTEST_SKIP() << "only root can have a file of somebody else, and become nobody";
    std::string const a = "0044171  20240101000000  A\n";
    ASSERT_TRUE(loadLines(a));
    std::string live = a;
    ServiceStatus status;
    for (InPlace const& c : inPlaceCM) {
        SCOPED_TRACE(c.network);
        bool const isDelta = !c.network.empty();
        ASSERT_EQ(chmod(folder.file("main").c_str(), c.mode), 0);
        plugIn.reports.clear();
        std::string const before = contentOf(folder.file("main"));
        std::string const record = "004418" + std::to_string(c.network[0]) + "  20240101000000  " + c.network + "\n";
        folder.write("delta", record);
        ASSERT_EQ(seteuid(nobodyCM), 0);
        EXPECT_TRUE(isDelta ? cache->cacheDeltaLoad(BAS::String(folder.file("delta"))) : cache->cacheReload(true));
        ASSERT_EQ(seteuid(0), 0);
        if (isDelta)
            live += record;
        else
            live = before;
        EXPECT_EQ(listing(), live);
        EXPECT_EQ(contentOf(folder.file("main")), c.unsaved ? before : live);
        EXPECT_EQ(plugIn.takeIdentifiers(), c.reports);
        cache->describe(status);
        EXPECT_EQ(status.unsaved, c.unsaved);
        EXPECT_TRUE(STR::versionOf(BAS::String(folder.file("main"))).hasContentOf(status.dataFileVersion));
    }
    write(a);
    EXPECT_FALSE(STR::versionOf(BAS::String(folder.file("main"))).hasContentOf(status.dataFileVersion));
}

// While the file is being read, look-ups and counts are answered: reports are made then, and none under the tree lock.
TEST_F(Cache, AnswersDuringTheReading) {
    ASSERT_TRUE(loadLines("0171 20240101000000 OLD\n"));
    write("bad\n0171 20240101000000 NEW\n");
    std::vector<std::string> answers;
    plugIn.onReport = [&](PlugIn::Report const&) {
        answers.push_back(answer("0044171") + std::to_string(cache->numOfEntries()));
    };
    EXPECT_TRUE(cache->cacheReload(true));
    EXPECT_EQ(answers, (std::vector<std::string>{"OLD1", "NEW1", "NEW1"}));
}

// An international access code with other characters than digits does not survive the listing, which has digits only.
TEST_F(Cache, RewritesAFormThatReadsBackOnlyWithCodesOfDigits) {
    use({"0", "+", "44", "00"});
    ASSERT_TRUE(loadLines("+44171 20240101000000 A\n"));
    ASSERT_TRUE(delta(""));
    EXPECT_EQ(contentOf(folder.file("main")), "44171  20240101000000  A\n");
    EXPECT_TRUE(cache->cacheReload(true));
    EXPECT_EQ(listing(), "4444171  20240101000000  A\n") << "as docs/data-format.md warns";
}

TEST_F(Cache, ExplainsWhatALookUpChoosesFromAndHowItStands) {
    ASSERT_TRUE(loadLines("0171 20240101000000 A\n01712 20200101000000 B\n01712 20300101000000 C\n018 1 X\n"));
    auto const prefixes = cache->explain("0044-1712 5");
    ASSERT_EQ(prefixes.size(), 2U);
    EXPECT_EQ(prefixes[0].key.str(), "00441712");
    ASSERT_EQ(prefixes[0].history.size(), 2U);
    EXPECT_STREQ(prefixes[0].history[0].networkIdM.c_str(), "C");
    EXPECT_EQ(prefixes[1].key.str(), "0044171");
    EXPECT_TRUE(cache->explain("none").empty());
    answer("0044171");
    ServiceStatus status;
    cache->describe(status);
    EXPECT_EQ(status.records, 3U);
    EXPECT_EQ(status.numbers, 2U);
    EXPECT_EQ(status.lookUps, 1U);
    std::vector<BAS::String> const numbers(600, "0044171");
    std::vector<BAS::DateTime> const instants(600, BAS::DateTime("20240101000000"));
    std::vector<NumberPortabilityData> records(600);
    std::array<bool, 600> found{};
    cache->search(numbers, instants, records, found, 1);
    EXPECT_EQ(std::count(found.begin(), found.end(), true), 600);
    cache->describe(status);
    EXPECT_EQ(status.lookUps, 601U) << "each of a batch counts";
    EXPECT_TRUE(status.liveSince.isValid());
    EXPECT_EQ(cache->linesRead(), 4U);
    EXPECT_EQ(cache->lineCounts().rejected, 1U);
    plugIn.fileOpens = false;
    EXPECT_FALSE(cache->cacheReload(true));
    EXPECT_EQ(cache->linesRead() + cache->lineCounts().rejected, 0U) << "a load that read nothing";
}

TEST_F(Cache, CountsLookUpsExactlyWhileItIsAsked) {
    ASSERT_TRUE(loadLines("0171 20240101000000 A\n"));
    answer("0044171");
    std::atomic<bool> wrong{false};
    std::vector<std::jthread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < 3000; ++round) {
                ServiceStatus status;
                cache->describe(status);
                cache->explain("0044171");
                wrong = wrong || status.lookUps != 1;
            }
        });
    threads.clear(); // joined
    EXPECT_FALSE(wrong);
}

TEST_F(Cache, AnswersEachOfALongBatchAtItsOwnInstant) {
    ASSERT_TRUE(loadLines("0171 20100101000000 A\n0171 20200101000000 B\n0172 20150101000000 C\n"));
    std::vector<BAS::String> numbers;
    std::vector<BAS::DateTime> instants;
    for (int i = 0; i < 600; ++i) {
        numbers.emplace_back(i % 3 == 0 ? "0044172" : "0044171");
        instants.emplace_back(BAS::String(std::to_string(2005 + i * 7 % 20) + "0601000000"));
    }
    std::vector<NumberPortabilityData> records(600);
    std::array<bool, 600> found{};
    for (unsigned const method : {0U, 1U, 2U}) {
        cache->search(numbers, instants, records, found, method);
        for (std::size_t i = 0; i < 600; ++i) {
            std::string const one =
                answer(numbers[i].str().c_str(), instants[i].asString("%Y%m%d%H%M%S").str().c_str(), method);
            ASSERT_EQ(found[i] ? records[i].networkIdM.c_str() : "-", one) << i;
        }
    }
}

class ReadErrors : public Cache {
  protected:
    // At the next report.
    void breakAt(std::string const& name) {
        plugIn.onReport = [this, name](PlugIn::Report const&) {
            breakReading(folder.file(name));
            plugIn.onReport = nullptr;
        };
    }
    void expectError(std::string const& name) const {
        EXPECT_EQ(plugIn.reports.back().identifier, "ERR_FILE_READ_ERR");
        EXPECT_EQ(plugIn.reports.back().severity, 5);
        EXPECT_EQ(plugIn.reports.back().arguments, Arguments{folder.file(name)});
    }
};

TEST_F(ReadErrors, EndTheFirstLoad) {
    breakAt("main");
    EXPECT_FALSE(loadLines(manyLines("OLD")));
    expectError("main");
    std::uint32_t const partial = cache->numOfEntries();
    EXPECT_GT(partial, 0U);
    EXPECT_LT(partial, 30'000U);
    EXPECT_FALSE(delta("0049 20240101000000 N\n")) << "the main file has not been read to its end";
}

TEST_F(ReadErrors, LeaveTheOldData) {
    ASSERT_TRUE(loadLines(manyLines("OLD")));
    std::string const old = listing();
    write(manyLines("NEW"));
    for (bool const reuse : {true, false}) {
        breakAt("main");
        EXPECT_FALSE(cache->cacheReload(reuse));
        expectError("main");
        EXPECT_EQ(listing(), old);
    }
    write("untouched");
    breakAt("delta");
    EXPECT_FALSE(delta("a bad line of words\n" + manyLines("DELTA") + "0049 20240101000000 N\n"));
    expectError("delta");
    EXPECT_EQ(listing(), old);
    EXPECT_EQ(contentOf(folder.file("main")), "untouched");
    EXPECT_TRUE(delta("0049 20240101000000 N\n")) << "the next delta merges into the old data";
    EXPECT_EQ(listing(), old + "0049  20240101000000  N\n");

    std::filesystem::remove(folder.path() / "main"); // gone between the check and the opening
    EXPECT_FALSE(cache->cacheReload(true));
    expectError("main");
}

// The file is opened as it is expected to be, and something is written to it before its end.
TEST_F(Cache, AdoptsNothingOfAnExpectedFileThatChangesWhileItIsRead) {
    auto const expect = [&](std::string const& name, std::string const& lines) {
        STR::FileIoTurbo reader;
        ASSERT_TRUE(reader.openFile(BAS::String(folder.write(name, lines)), STR::FileIoTurbo::readModeCM));
        cache->expectFile(reader.fileName(), reader.version());
        plugIn.reports.clear();
        plugIn.onReport = [this, name](PlugIn::Report const&) {
            std::ofstream(folder.path() / name, std::ios::app) << "0171 20240101000000 LATE\n";
            plugIn.onReport = nullptr;
        };
    };
    auto const changed = [&](std::string const& name) {
        EXPECT_EQ(plugIn.reports.back().identifier, "ERR_FILE_CHANGED");
        EXPECT_EQ(plugIn.reports.back().arguments, Arguments{folder.file(name)});
    };
    expect("main", manyLines("OLD"));
    EXPECT_FALSE(cache->load());
    changed("main");
    EXPECT_FALSE(delta("0049 20240101000000 N\n")) << "the main file has not been read";

    use(codes);
    ASSERT_TRUE(loadLines("0171 20240101000000 OLD\n"));
    std::string const old = listing();
    expect("main", manyLines("NEW"));
    EXPECT_FALSE(cache->cacheReload(true));
    changed("main");
    EXPECT_EQ(listing(), old);
    std::string const lines = manyLines("DELTA");
    expect("delta", lines);
    EXPECT_FALSE(cache->cacheDeltaLoad(BAS::String(folder.file("delta"))));
    changed("delta");
    EXPECT_EQ(listing(), old);

    EXPECT_FALSE(delta("0049 20240101000000 N\n")) << "another version still";
    cache->expectAnyFile();
    EXPECT_TRUE(delta("0049 20240101000000 N\n")) << "and into the old data";
    EXPECT_EQ(listing(), old + "0049  20240101000000  N\n");
}

class StoppedCache : public Cache {
  public:
    bool load() { return cache->load(); }
    bool reload() { return cache->cacheReload(true); }
    bool addDelta() { return cache->cacheDeltaLoad(BAS::String(folder.file("delta"))); }
    bool visit() {
        return cache->visitFile(BAS::String(folder.file("delta")), [&](FileLine const&) { cache->stopLoads(); });
    }
    bool examine() {
        return cache->examine(BAS::String(folder.file("delta")), summary,
                              [](unsigned long, LineOutcome, BAS::String const&) {}, {});
    }
    void stopAtReport(int count) {
        plugIn.reports.clear();
        plugIn.onReport = [this, left = count](PlugIn::Report const&) mutable {
            if (--left == 0)
                cache->stopLoads();
        };
    }
    // What comes later is refused before it looks at the file.
    void expectRefusals() {
        plugIn.reports.clear();
        plugIn.fileOpens = false;
        EXPECT_FALSE(load() || reload() || addDelta() || examine());
        plugIn.fileOpens = true;
        EXPECT_EQ(plugIn.takeIdentifiers(), Identifiers(4, "ERR_LOADS_STOPPED"));
        EXPECT_EQ(summary.lines, 0U);
    }
    DataSummary summary;
};

// The stop comes with a report that is made while a tree is being filled: the first bad line, or the same line again
// when the new data are live.
TEST_F(StoppedCache, ChangesNothingThatIsLive) {
    std::string const old = "0044171  20240101000000  OLD\n";
    std::string const fresh = "0044172  20240101000000  NEW\n";
    std::string const lines = "bad\n0172 20240101000000 NEW\n";
    struct Case {
        char const* what;
        bool (StoppedCache::*load)();
        int reports; // with the last of these comes the stop
        bool succeeds;
        std::string live, file; // afterwards
    };
    for (Case const& c : {Case{"first load", &StoppedCache::load, 1, false, "", lines},
                          {"reload", &StoppedCache::reload, 1, false, old, lines},
                          {"delta load", &StoppedCache::addDelta, 1, false, old, lines},
                          {"reload, live", &StoppedCache::reload, 2, true, fresh, lines},
                          {"delta load, live", &StoppedCache::addDelta, 2, true, old + fresh, old + fresh},
                          {"visit", &StoppedCache::visit, 0, false, old, lines},
                          {"examination", &StoppedCache::examine, 1, false, old, lines}}) {
        SCOPED_TRACE(c.what);
        use(codes);
        ASSERT_TRUE(c.live.empty() || loadLines("0171 20240101000000 OLD\n"));
        write(lines);
        folder.write("delta", lines);
        stopAtReport(c.reports);
        EXPECT_EQ((this->*c.load)(), c.succeeds);
        plugIn.onReport = nullptr;
        EXPECT_EQ(plugIn.reports.back().identifier == "ERR_LOADS_STOPPED", !c.succeeds);
        EXPECT_EQ(listing(), c.live);
        EXPECT_EQ(contentOf(folder.file("main")), c.file);
        expectRefusals();
        EXPECT_EQ(listing(), c.live);
    }
}

// A print to somebody who takes nothing holds the exchange up, but not the stop.
TEST_F(Cache, AStopEndsALoadThatWaitsForAPrint) {
    struct Stuck : std::stringbuf {
        std::latch reached{1}, leave{1};
        std::streamsize xsputn(char const*, std::streamsize count) override {
            if (!reached.try_wait())
                reached.count_down();
            leave.wait();
            return count;
        }
    } stuck;
    ASSERT_TRUE(loadLines("0171 20240101000000 OLD\n"));
    std::string const old = listing();
    write("0172 20240101000000 NEW\n");
    WatchedThread const print([&] {
        std::ostream out(&stuck);
        cache->print(out, false);
    });
    stuck.reached.wait();
    {
        WatchedThread const reload([&] { EXPECT_FALSE(cache->cacheReload(true)); });
        WatchedThread const count([&] { EXPECT_EQ(cache->numOfEntries(), 1U); });
        reload.waitUntilAsleep();
        count.waitUntilAsleep();
        cache->stopLoads();
    }
    EXPECT_EQ(plugIn.reports.back().identifier, "ERR_LOADS_STOPPED");
    stuck.leave.count_down();
    EXPECT_EQ(listing(), old);
}

TEST_F(Cache, PrintsToTheConsoleOrAFile) {
    ASSERT_TRUE(loadLines("0171 20240101000000 A\n"));
    std::string const target = folder.write("target", "old");
    EXPECT_TRUE(cache->printData(BAS::String(target)));
    std::string const text = contentOf(target);
    EXPECT_TRUE(text.starts_with(std::string(59, '-') + "\n"));
    EXPECT_TRUE(text.ends_with("\n0044171  20240101000000  A\n"));
    testing::internal::CaptureStdout();
    std::cout.setstate(std::ios_base::badbit); // as a listing before left it that could not be written
    EXPECT_TRUE(cache->printData(BAS::NULL_STRING));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), text);
    EXPECT_TRUE(cache->printData(BAS::String(folder.file("no/such/folder"))));
}

TEST_F(Cache, WithoutTreesTouchesNothing) {
    CacheManager empty(&plugIn);
    NumberPortabilityData out;
    EXPECT_FALSE(empty.load() || empty.cacheReload(true) || empty.cacheDeltaLoad("x"));
    EXPECT_FALSE(empty.search("1", BAS::DateTime(), out, 0));
    EXPECT_EQ(empty.numOfEntries(), 0U);
    NumberPortabilityTree tree;
    STR::FileIoTurbo reader;
    EXPECT_FALSE(empty.insertCache(&tree, "", 1, true, reader) ||
                 empty.insertCache(&tree, "0171 20240101000000 A", 1, true, reader));
}

TEST_F(Cache, ExaminesAFileWithoutServingIt) {
    write("0171 20240101000000 A\n0171 20200101000000 B\n0172 20300101000000 A\n0171 20200101000000 C\nbad\n0 x y\n"
          "0 20200101000000 N\0\n"s);
    DataSummary summary;
    std::vector<unsigned long> rejected;
    auto const onReject = [&](unsigned long number, LineOutcome, BAS::String const& line) {
        rejected.push_back(number);
        EXPECT_FALSE(line.empty());
    };
    EXPECT_TRUE(cache->examine(BAS::String(folder.file("main")), summary, onReject, {}));
    EXPECT_EQ(rejected, (std::vector<unsigned long>{4, 5, 6, 7}));
    EXPECT_EQ(summary.lines, 7U);
    EXPECT_EQ(summary.records, 3U);
    EXPECT_EQ(summary.numbers, 2U);
    EXPECT_EQ(summary.duplicates, 1U);
    EXPECT_EQ(summary.rejectedFields, 1U);
    EXPECT_EQ(summary.rejectedDateTimes, 1U);
    EXPECT_EQ(summary.rejectedNetworks, 1U);
    EXPECT_EQ(summary.rejected(), 4U);
    EXPECT_EQ(summary.earliest.asString("%Y").str(), "2020");
    EXPECT_EQ(summary.latest.asString("%Y").str(), "2030");
    ASSERT_EQ(summary.networks.size(), 2U);
    EXPECT_EQ(summary.networks[0].first.str(), "A");
    EXPECT_EQ(summary.networks[0].second, 2U);
    EXPECT_EQ(plugIn.reports.size(), 4U);
    EXPECT_EQ(cache->numOfEntries(), 0U);
}

// Every number of a generation belongs to that generation's network, so an answer from two generations in one look-up
// shows as a network that the prefix does not have.
class Generations : public Cache {
  protected:
    static std::string generation(int n) {
        return numberedLines(300, "0171", 1000, " 20200101000000 G" + std::to_string(n));
    }
    // Of the answer to a question that was asked when `least` had been loaded.
    void judge(bool found, NumberPortabilityData const& record, int least) {
        int const answered = found ? std::atoi(record.networkIdM.c_str() + 1) : -1; // NOLINT
        if (answered < least || answered > loading)
            ++wrong;
    }
    void askSingly(int first) {
        BAS::DateTime const when(BAS::String("20240101000000"));
        NumberPortabilityData out;
        for (int n = first; !stop; ++n) {
            BAS::String const number(("0044171" + std::to_string(1000 + n % 300)));
            int const least = loaded;
            judge(cache->search(number, when, out, static_cast<unsigned>(n % 3)), out, least);
        }
    }
    // What one batch asks at once, it sees of one generation.
    void askInBatches() {
        std::vector<BAS::String> numbers;
        for (std::size_t i = 0; i < CacheManager::batchSizeCM; ++i)
            numbers.emplace_back("0044171" + std::to_string(1000 + i));
        std::vector<BAS::DateTime> const instants(numbers.size(), BAS::DateTime("20240101000000"));
        std::vector<NumberPortabilityData> records(numbers.size());
        std::array<bool, CacheManager::batchSizeCM> found{};
        std::vector<LookUpDetail> details(numbers.size());
        for (bool detailed = false; !stop; detailed = !detailed) {
            int const least = loaded;
            if (detailed)
                cache->describeMany(numbers, instants, details, 0);
            else
                cache->search(numbers, instants, records, found, 0);
            for (std::size_t i = 0; detailed && i < found.size(); ++i) {
                found[i] = details[i].found();
                records[i] = details[i].record;
                // The first load is of generation 0.
                if (details[i].epoch != std::strtoull(records[i].networkIdM.c_str() + 1, nullptr, 10) + 1)
                    ++wrong;
            }
            for (std::size_t i = 0; i < found.size(); ++i)
                if (!found[i] || records[i].networkIdM.view() != records[0].networkIdM.view())
                    ++wrong;
            judge(found[0], records[0], least);
        }
    }
    // All of one generation, or the printing saw an exchange.
    void print() {
        while (!stop) {
            if (cache->numOfEntries() != 300)
                ++wrong;
            std::string const text = listing();
            std::string const network = text.substr(text.rfind(' '));
            if (lineCount(text) != 300 || replaced(text, network, "").size() != text.size() - 300 * network.size())
                ++wrong;
        }
    }
    std::atomic<int> loaded{0};  // the generation whose reload has returned
    std::atomic<int> loading{0}; // the one being loaded
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
};

TEST_F(Generations, LookUpsSeeTheOldOrTheNewNeverAMixture) {
    ASSERT_TRUE(loadLines(generation(0)));
    std::vector<std::jthread> readers;
    for (int i = 0; i < 3; ++i)
        readers.emplace_back([this, i] { askSingly(i); });
    readers.emplace_back([this] { askInBatches(); });
    readers.emplace_back([this] { print(); });
    for (int n = 1; n <= 40; ++n) {
        write(generation(n));
        loading = n;
        EXPECT_TRUE(cache->cacheReload(n % 2 == 0));
        loaded = n;
    }
    stop = true;
    readers.clear(); // joined
    EXPECT_EQ(wrong, 0);
}

TEST(Caches, LoadSideBySideAndCountTheirNodesRight) {
    TemporaryFolder const folder;
    std::string lines;
    for (int i = 0; i < 2000; ++i)
        lines += "0" + std::to_string(1'000'000 + 37 * i) + " 20200101000000 N\n";
    std::string const file = folder.write("main", lines);
    using Node = PBC::PtrTreeNode<NumberPortabilityList>;
    std::uint64_t const before = Node::nodeCountM;
    std::uint64_t single = 0;
    Codes const codes;
    auto const load = [&](std::atomic<std::uint64_t>& nodes) {
        PlugIn plugIn;
        CacheManager cache(&plugIn, codes.national, codes.international, codes.country, codes.sign, 3,
                           BAS::String(file));
        EXPECT_TRUE(cache.load());
        EXPECT_TRUE(cache.cacheReload(true));
        EXPECT_EQ(cache.numOfEntries(), 2000U);
        nodes = Node::nodeCountM - before;
    };
    std::atomic<std::uint64_t> ignored{0};
    {
        std::atomic<std::uint64_t> nodes{0};
        load(nodes);
        single = nodes;
    }
    EXPECT_EQ(Node::nodeCountM, before);
    for (int round = 0; round < 5; ++round) {
        std::thread other([&] { load(ignored); });
        load(ignored);
        other.join();
        EXPECT_EQ(Node::nodeCountM, before);
    }
    EXPECT_GT(single, 4000U);
}

TEST(LineStore, GivesLinesBackInOrderAcrossChunks) {
    constexpr std::size_t chunk = LineStore::chunkSizeCM;
    using Lines = std::vector<std::string>;
    Lines manyLines;
    for (std::size_t i = 0; manyLines.size() < 400'000; ++i)
        manyLines.emplace_back(i % 40, static_cast<char>('a' + i % 26));
    auto const line = [](std::size_t length) { return std::string(length, 'x'); };
    LineStore store;
    for (Lines const& lines : {Lines{},
                               {""},
                               {"", "", "\0\r"s, ""},
                               {line(chunk - 1), ""},
                               {line(chunk - 2), "", "next"},
                               {line(chunk), "", line(chunk + 1), line(3 * chunk), "after"},
                               {"before", line(chunk - 7), line(chunk - 8), line(chunk - 1)},
                               manyLines}) {
        for (std::string const& text : lines)
            store.append(text);
        Lines consumed;
        auto const into = [](Lines& to) {
            return [&to](std::string_view text, unsigned long number) {
                to.emplace_back(text);
                ASSERT_EQ(number, to.size());
            };
        };
        store.consume(into(consumed));
        EXPECT_TRUE(consumed == lines) << lines.size() << " lines";
        store.consume([](std::string_view, unsigned long) { FAIL() << "consumed"; });
    }
}

TEST(LineStore, DropsWhatComesAfterAnException) {
    LineStore store;
    store.append("kept");
    store.append("dropped by the visitor that throws");
    EXPECT_THROW(store.consume([](std::string_view text, unsigned long number) {
        EXPECT_EQ(text, "kept");
        EXPECT_EQ(number, 1U);
        throw std::runtime_error("enough");
    }),
                 std::runtime_error);
    store.consume([](std::string_view, unsigned long) { FAIL() << "dropped"; });
}
