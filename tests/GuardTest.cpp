// What keeps a broken data file from going live: files against limits, and a daemon whose loads are guarded.
#include "host/cli/Sections.h"
#include "host/module/Host.h"
#include "host/service/LoadGuard.h"
#include "tests/DaemonSite.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

namespace {

struct Checked {
    char const* label;
    std::string content;
    char const* limits;
    char const* more; // options
    int status;
    char const* part;
};

std::string const goodCM = "00441 20200101000000 A\n";

std::vector<Checked> const checkedCM = {
    {"limits not asked of deltas", goodCM, "maxLossPercent = 5\nminRecords = 9", "--delta", 0,
     "limits: none is asked of this kind of load\n"},
    {"limits of which one is asked", goodCM, "minRecords = 1\nmaxLossPercent = 5\nmaxRejectedPercent = 1", "--delta", 0,
     "limits: maxRejectedPercent = 1\n"},
    {"loss at the limit", records(95), "maxLossPercent = 5", "--live 100", 0, "let it pass as a reload"},
    {"loss over it", records(94), "maxLossPercent = 5", "--live 100", 3,
     "refused: 6.0 % of the records would be lost (6 of 100), more than maxLossPercent = 5\n"},
    {"loss just over it, and shown so", records(9499), "maxLossPercent = 5", "--live 10000", 3,
     "5.01 % of the records would be lost (501 of 10,000)"},
    {"at a limit that has no exact binary form", records(9943), "maxLossPercent = 0.57", "--live 10000", 0, ""},
    {"over that", records(9942), "maxLossPercent = 0.57", "--live 10000", 3, "0.6 %"},
    {"no loss of no live records", "", "maxLossPercent = 0\nminRecords = 0", "--live 0", 0, "beside 0 live records"},
    {"more than before", records(2), "maxLossPercent = 0", "--live 1", 0, ""},
    {"all of it lost", "", "maxLossPercent = 99.999", "--live 1000000", 3, "(1,000,000 of 1,000,000)"},
    {"a first load loses nothing", records(1), "maxLossPercent = 0", "", 0, "as a first load:"},
    {"an empty file has no bad lines and no incomplete one", "",
     "maxRejectedPercent = 0\nrequireCompleteLastLine = true\nminRecords = 0", "", 0, ""},
    {"an empty file has too few records, whatever is asked", "", "", "", 3,
     "has 0 records, fewer than minRecords = 1\n"},
    {"so has one without a good line", "bad\n", "", "--live 9", 3, "has 0 records"},
    {"one record is enough", goodCM + "bad\n", "", "", 1, "limits: minRecords = 1\n"},
    {"an empty delta", "", "maxRejectedPercent = 1", "--delta", 0, "limits: maxRejectedPercent = 1\n"},
    {"numbers without digits, at the limit",
     goodCM + "NULL 20200101000000 A\n- 20200101000000 A\n0044 20210101000000 A\n", "maxNumbersWithoutDigits = 2", "",
     1,
     "Numbers without digits:      2\n  a warning: in the country's stored form they answer for all of the country; "
     "the first is in line 2\n"},
    {"over it, in a delta, too", goodCM + "NULL 20200101000000 A\n+ 20200101000000 A\n", "maxNumbersWithoutDigits = 1",
     "--delta", 3,
     "refused: 2 records have no digit in their number field, the first at line 2, more than maxNumbersWithoutDigits = "
     "1\n"},
    {"just enough records", records(7), "minRecords = 7", "", 0, ""},
    {"one too few", records(6), "minRecords = 7", "--live 1", 3, "has 6 records"},
    {"rejected lines at the limit", goodCM + "bad\n", "maxRejectedPercent = 50", "", 1, "let it pass"},
    {"over it", goodCM + "bad\n0044 2020 A\n", "maxRejectedPercent = 50", "", 3,
     "66.7 % of the lines are rejected (2 of 3), more than maxRejectedPercent = 50, the first at line 2: Number of "
     "fields: 1 instead of 3\n"},
    {"all rejected", "bad\nworse\n", "maxRejectedPercent = 99.9", "", 3, "100.0 % of the lines are rejected (2 of 2)"},
    {"a duplicate is a rejected line", goodCM + goodCM, "maxRejectedPercent = 49", "", 3, "(1 of 2)"},
    {"no newline at the end", goodCM + "00442 20200101000000 A", "requireCompleteLastLine = true", "", 3,
     "the last line (2) does not end with a newline"},
    {"nobody asks for it", goodCM + "00442 20200101000000 A", "minRecords = 2", "", 0, ""},
    {"a newline", goodCM, "requireCompleteLastLine = true", "", 0, ""},
    {"of another system", "00441 20200101000000 A\r\n", "requireCompleteLastLine = true", "", 0, ""},
    {"not required", goodCM + "0", "requireCompleteLastLine = false\nminRecords = 1", "", 1, ""},
    {"a small delta", goodCM, "maxLossPercent = 0\nminRecords = 9", "--delta --live 10", 0,
     "as a delta beside 10 live records:"},
    {"a bad delta", "bad", "maxRejectedPercent = 1", "--delta", 3, "(1 of 1)"},
    {"a delta cut off", goodCM + "00442 2", "requireCompleteLastLine = true", "--delta", 3, "the last line (2)"},
    {"memory", goodCM, "maxMemoryMiB = 1", "", 3, "MiB of memory, more than maxMemoryMiB = 1\n"},
    {"memory for what is live", goodCM, "maxMemoryMiB = 500", "--live 10000000", 3, "MiB of memory"},
    {"the same for a delta", goodCM, "maxMemoryMiB = 500", "--live 10000000 --delta", 3, "MiB of memory"},
    {"enough memory", goodCM, "maxMemoryMiB = 500", "--live 1000000", 0, ""},
    {"every limit crossed is named", "bad", "minRecords = 1\nmaxRejectedPercent = 0", "", 3, "has 0 records"},
    {"and the other too", "bad", "minRecords = 1\nmaxRejectedPercent = 0", "", 3, "the lines are rejected"},
    {"no limit", goodCM, "minRecords = 0", "", 2, "there is no limit in [host.guard]"},
    {"a percentage that is none", goodCM, "maxLossPercent = 101", "", 2, "from 0 to 100 with at most three decimals"},
    {"too fine a one", goodCM, "maxLossPercent = 0.0005", "", 2, "nphost.toml:8: 'maxLossPercent' must be"},
    {"no number", goodCM, "maxRejectedPercent = nan", "", 2, "'maxRejectedPercent' must be a number"},
    {"a truth for a number", goodCM, "maxRejectedPercent = true", "", 2, "'maxRejectedPercent' must be a number"},
    {"half a record", goodCM, "minRecords = 0.5", "", 2, "'minRecords' must be a whole number from 0"},
    {"no memory", goodCM, "maxMemoryMiB = 0", "", 2, "'maxMemoryMiB' must be a whole number from 1"},
    {"a number for a truth", goodCM, "requireCompleteLastLine = 1", "", 2, "must be true or false"},
    {"an unknown limit", goodCM, "maxLoss = 1", "", 2, "unknown key 'maxLoss' in [host.guard]"},
    {"negative live records", goodCM, "minRecords = 1", "--live -1", 2, "--live"},
};

TEST(GuardLimitsTest, FilesAgainstLimits) {
    for (Checked const& test : checkedCM) {
        Site const site(test.content, std::string("[host.guard]\n") + test.limits + "\n");
        Result const result = runProgram(
            site.folder, site.wordsOf(std::string("check --config @nphost.toml --guard @data.dat ") + test.more),
            "check");
        expectResult(result, test.status, test.part, test.label);
    }
}

std::string mixedRecords(std::mt19937_64& random, int count, std::uint64_t histories, std::string const& network) {
    std::string text;
    for (int i = 0; i < count; ++i)
        text += "0044" + std::to_string(1'000'000'000 + random() % 9'000'000'000 / histories * histories) + " 20" +
                std::to_string(10 + random() % 80) + "0101000000 " + network + std::to_string(random() % 50) + "\n";
    return text;
}

// The reckoning must not fall behind what a load really takes, whatever the histories look like.
TEST(GuardLimitsTest, MemoryIsNeverReckonedTooSmall) {
#ifdef NP_SANITIZED
    GTEST_SKIP() << "a sanitizer's own memory is in the measurement";
#endif
    constexpr unsigned seed = 20261123;
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    auto const lines = [&](int count, std::uint64_t histories, char const* network) {
        return mixedRecords(random, count, histories, network);
    };
    struct Case {
        char const* label;
        std::string first, then, delta;
    };
    for (Case const& test :
         {Case{"one record a number", lines(100'000, 1, "N"), lines(100'000, 1, "N"), lines(25'000, 1, "N")},
          Case{"many records a number, long networks", lines(50'000, 400'000, "A-long-network-"),
               lines(50'000, 400'000, "A-long-network-"), lines(10'000, 400'000, "A-long-network-")},
          Case{"much smaller than before", lines(200'000, 1, "N"), lines(1'000, 1, "N"), lines(1'000, 1, "N")},
          Case{"much larger", lines(1'000, 1, "N"), lines(150'000, 1, "N"), lines(150'000, 1, "N")}}) {
        Site site(test.first, "[host.guard]\nmaxMemoryMiB = 4000\n");
        site.start();
        std::string const process = "/proc/" + site.status().at("process").dump();
        auto const expectRoom = [&](std::string const& command) {
            std::ofstream(process + "/clear_refs") << "5"; // the peak begins anew
            Json const answer = Json::parse(site.tell(command).out);
            std::string const memory = contentOf(process + "/status");
            unsigned long const peak = std::stoul(memory.substr(memory.find("VmHWM:") + 6)) / 1024;
            EXPECT_EQ(answer.at("succeeded"), true) << test.label << command;
            EXPECT_GE(answer.at("check").at("memoryMiB").get<unsigned long>(), peak) << test.label << command;
        };
        site.folder.write("data.dat", test.then);
        expectRoom("--json reload --wait");
        site.folder.write("delta", test.delta);
        expectRoom("--json delta @delta --wait");
    }
}

std::string const limitsCM = "[host.guard]\nmaxLossPercent = 25\nmaxRejectedPercent = 40\nminRecords = 3\n"
                             "requireCompleteLastLine = true\nmaxMemoryMiB = 1000\n";

std::string const halfCM = "0044770 20200101000000 NEW\n00447700900123 20210301020000 NEW\n";
std::string const lostCM = "50.0 % of the records would be lost (2 of 4), more than maxLossPercent = 25";

// With half of the records in its data file, a bad delta and one that is cut off.
class GuardDaemonTest : public testing::Test {
  protected:
    GuardDaemonTest() {
        site.start();
        site.folder.write("data.dat", halfCM);
        site.folder.write("bad", "0033 20200101000000 NEW\nx\ny\n");
        site.folder.write("cut", "0033 20200101000000 NEW");
    }
    void expectOldData(std::string const& label) const {
        Result const answer = site.tell("lookup --at 20240101000000 00447700900123");
        EXPECT_TRUE(contains(answer.out, "\tBRAVO\n")) << label << answer.out;
        EXPECT_EQ(site.status().at("records"), 4) << label;
        EXPECT_EQ(site.status().at("usable"), true) << label;
        EXPECT_EQ(contentOf(site.data), halfCM) << label;
    }
    Site site{dataCM, limitsCM};
};

// Every way to ask for a load is refused, says why, and leaves what is served.
TEST_F(GuardDaemonTest, RefusesEveryWayToLoadABrokenFile) {
    struct Case {
        char const* command;
        std::string part;
        std::string reason; // in the status afterwards
    };
    std::string const rejected = "66.7 % of the lines are rejected (2 of 3)";
    for (Case const& test : {Case{"reload --wait", "refused: " + lostCM + "\n", lostCM},
                             {"reload --wait", "refused: the file has 2 records", lostCM},
                             {"delta @bad --wait", "refused: " + rejected, rejected},
                             {"update Reload=TRUE", "ERR_HOST_GUARD_REFUSED \"reload\"", lostCM},
                             {"delta @cut --wait", "refused: the last line (1) does not end", "the last line (1)"},
                             {"update Reload=TRUE ReuseOnFailure=FALSE", lostCM, lostCM},
                             {"update AdditionalNumPortData=@bad", rejected, rejected},
                             {"delta @none --wait", "refused: the file could not be read", "could not be read"}}) {
        site.expect(test.command, 1, test.part);
        expectOldData(test.command);
        Json const refusal = site.status().at("guard").at("lastRefusal");
        EXPECT_TRUE(contains(refusal.at("reasons").dump(), test.reason)) << test.command << refusal;
        std::string const status = site.tell("status").out;
        EXPECT_TRUE(contains(status, test.reason)) << test.command;
        EXPECT_TRUE(contains(status, "Refused since:    a " + refusal.at("kind").get<std::string>()));
    }
    EXPECT_TRUE(contains(site.tell("reload --wait").out, "reload: REFUSED after ")) << "with the time of the check";
    EXPECT_EQ(site.stop(), 0);
}

TEST_F(GuardDaemonTest, RefusesAHangUp) {
    site.daemon->signal(SIGHUP);
    EXPECT_TRUE(eventually([&] { return contains(site.log(), lostCM + "\" "); })) << site.log();
    expectOldData("SIGHUP");
    EXPECT_EQ(site.stop(), 0);
}

TEST_F(GuardDaemonTest, CarriesOutWhatIsForcedOrSound) {
    site.expect("reload --wait", 1, lostCM);
    site.expect("reload --wait --force", 0, "INF_HOST_GUARD_FORCED");
    EXPECT_EQ(site.status().at("records"), 2);
    EXPECT_FALSE(contains(site.tell("status").out, "Refused since:"));
    site.expect("delta @bad --wait --force", 0, "records added: 1");
    site.expect("update --force AdditionalNumPortData=@cut", 0, "INF_NUM_NPORT_ADDED");
    site.folder.write("data.dat", dataCM);
    Result const sound = site.tell("reload --wait");
    expectResult(sound, 0, "reload: done in ", "a sound file");
    EXPECT_TRUE(contains(sound.out, " s, the check ")) << sound.out;
    site.expect("update Reload=TRUE PrintData=@p", 0, "Check:  ");
    EXPECT_EQ(site.status().at("records"), 4);
    EXPECT_EQ(site.stop(), 0);
}

TEST(GuardStartTest, RefusesToStartWithABrokenFile) {
    struct Case {
        char const* label;
        std::string data;
        Arguments more;
        int status; // of the daemon that ends; 0: it serves
        char const* part;
    };
    for (Case const& test :
         {Case{"too few", "00441 20200101000000 A\n", {}, 3, "the file has 1 records, fewer than minRecords = 3"},
          Case{"too few, as JSON", "00441 20200101000000 A\n", {"--log-format", "json"}, 3, "ERR_HOST_GUARD_REFUSED"},
          Case{"cut off", dataCM + "x", {}, 3, "does not end with a newline"},
          Case{"forced", "x", {"--force"}, 0, "INF_HOST_GUARD_FORCED"},
          Case{"sound", dataCM, {}, 0, "INF_HOST_GUARD_PASSED"}}) {
        Site site(test.data, limitsCM);
        if (test.status == 0) {
            site.start(test.more);
            EXPECT_EQ(site.stop(), 0) << test.label;
        } else {
            site.launch(test.more);
            EXPECT_EQ(site.daemon->wait(), test.status) << test.label;
            EXPECT_FALSE(std::filesystem::exists(site.socket())) << test.label;
            EXPECT_TRUE(contains(site.log(), "nphost: the first load is refused: ")) << test.label << site.log();
        }
        EXPECT_TRUE(contains(site.log(), test.part)) << test.label << site.log();
    }
}

// Without a word in the configuration: a file without a record is the one that takes everything out of service.
TEST(GuardStartTest, NeverServesNothingUnlessToldTo) {
    for (std::string const& nothing : {std::string(), std::string(5000, '\n'), std::string("x y z\n")}) {
        Site site(nothing);
        std::string const reason = "the file has 0 records, fewer than minRecords = 1";
        Result const refused = runProgram(site.folder, {"run", "--config", site.configuration}, "refused");
        EXPECT_EQ(refused.status, 3) << refused.err;
        EXPECT_TRUE(contains(refused.err, "nphost: the first load is refused: " + reason)) << refused.err;
        site.folder.write("data.dat", records(5000) + nothing);
        site.start();
        EXPECT_FALSE(contains(site.log(), "INF_HOST_GUARD_PASSED")) << "nobody asked for a check";
        Json const sound = Json::parse(site.ctl({"--json", "reload", "--wait"}).out);
        EXPECT_EQ(sound.at("succeeded"), true);
        EXPECT_FALSE(sound.at("check").contains("lines")) << "not read to its end";
        site.folder.write("data.dat", nothing);
        expectResult(site.ctl({"reload", "--wait"}), 1, "refused: " + reason, "reload");
        expectResult(site.ctl({"update", "Reload=TRUE"}), 1, reason, "update");
        EXPECT_EQ(site.status().at("records"), 5000);
        expectResult(site.ctl({"reload", "--wait", "--force"}), 0, "0 records are loaded", "forced");
        EXPECT_EQ(site.status().at("records"), 0);
        EXPECT_EQ(site.stop(), 0);
    }
    Site site("", "[host.guard]\nminRecords = 0\n");
    site.start();
    EXPECT_TRUE(site.status().at("guard").is_null());
}

TEST(GuardStartTest, ReadsNothingTwiceThatNoLimitIsAskedOf) {
    Site site(dataCM, "[host.guard]\nmaxLossPercent = 0\n");
    site.start();
    Result const delta = site.ctl({"--json", "delta", site.folder.write("delta", "0033 20200101000000 E"), "--wait"});
    EXPECT_TRUE(Json::parse(delta.out).at("check").is_null()) << delta.out;
    EXPECT_EQ(site.status().at("records"), 5);
    EXPECT_FALSE(contains(site.log(), "INF_HOST_GUARD_PASSED")) << "also the first load";
    expectResult(site.ctl({"reload", "--wait"}), 0, ", the check ", "a reload is asked");
    EXPECT_EQ(site.stop(), 0);
}

// A large file is checked again and again until a status has been answered meanwhile.
TEST_F(GuardDaemonTest, AnswersDuringACheckAndEndsItWhenItStops) {
    site.folder.write("data.dat", records(300'000) + "cut");
    auto const isChecking = [&] {
        Json const status = site.status();
        if (!status.at("guard").at("checking").is_null())
            return true;
        site.ctl({"reload", "--no-wait"});
        return false;
    };
    EXPECT_TRUE(eventually(isChecking));
    EXPECT_TRUE(contains(site.ctl({"lookup", "--at", "20240101000000", "00447700900123"}).out, "BRAVO"));
    EXPECT_TRUE(eventually(isChecking));
    EXPECT_EQ(site.stop(), 0);
    EXPECT_FALSE(contains(site.log(), "EVT::RELOAD")) << site.log();
    EXPECT_FALSE(contains(site.log(), "\"the daemon stops\"")) << "no refusal: " << site.log();
}

// Loads by probes and by updates at once, sound and broken: each gets its own outcome, and nothing broken is served.
TEST_F(GuardDaemonTest, GuardsConcurrentLoads) {
    site.folder.write("data.dat", dataCM);
    site.expect("reload --wait", 0, "done");
    site.folder.write("good", "0044770 20200101000000 ALPHA\n");
    site.expectAtOnce({{"reload --wait", 0},
                       {"delta @bad --wait", 1},
                       {"update Reload=TRUE", 0},
                       {"update AdditionalNumPortData=@bad", 1},
                       {"delta @good --wait", 0},
                       {"print @listing --wait", 0},
                       {"reload --force --wait", 0}});
    EXPECT_EQ(site.status().at("records"), 4);
    EXPECT_EQ(site.stop(), 0);
}

std::string const otherCM = dataCM + "0033 20200101000000 ECHO\n";

// What a check let pass is what is loaded, or nothing is.
class GuardRaceTest : public testing::Test {
  protected:
    static nphost::GuardLimits limits() {
        nphost::GuardLimits limits;
        limits.maxRejectedPercent = nphost::GuardLimits::wholeCM;
        return limits;
    }
    nphost::Host& started() {
        host.start();
        return host;
    }
    bool update(char const* key, std::string const& value) {
        BAS::RegistryEntry keys{BAS::String("DAT_NumberPortability")};
        keys.append(BAS::RegistryEntry(BAS::String(key), BAS::String(value)));
        keys.append(BAS::RegistryEntry("ReuseOnFailure", "FALSE"));
        BAS::ProtectedBool handled;
        return host.plugIn().update(keys, handled);
    }

    Site const site{dataCM};
    std::string const delta = site.folder.write("delta", otherCM);
    std::string const configuration = site.configuration;
    nphost::Host host{nphost::readConfiguration(site.configuration, nphost::sectionsCM),
                      nphost::CommonOptions{configuration}};
    nphost::LoadGuard guard{limits(), started().plugIn(), host.log()};
};

TEST_F(GuardRaceTest, LoadsOnlyTheVersionThatWasChecked) {
    struct Case {
        char const* label;
        std::function<void(std::string const&)> change;
    };
    auto const hideTime = [](std::string const& file) {
        std::ofstream(file) << replaced(dataCM, "ALPHA", "OTHER"); // of the same size
        std::filesystem::last_write_time(file, std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
    };
    for (Case const& test :
         {Case{"replaced", [&](auto const& file) { std::filesystem::rename(site.folder.write("n", otherCM), file); }},
          {"written to", [](auto const& file) { std::ofstream(file, std::ios::app) << "0033 2020"; }},
          {"written with the same size", hideTime},
          {"gone", [](auto const& file) { std::filesystem::remove(file); }}}) {
        site.folder.write("data.dat", dataCM);
        site.folder.write("delta", otherCM);
        EXPECT_TRUE(guard.check(nphost::LoadKind::RELOAD, site.data, false).passed) << test.label;
        test.change(site.data);
        EXPECT_FALSE(update("Reload", "TRUE")) << test.label;
        guard.ended();
        EXPECT_TRUE(guard.check(nphost::LoadKind::DELTA, delta, false).passed) << test.label;
        test.change(delta);
        EXPECT_FALSE(update("AdditionalNumPortData", delta)) << test.label;
        guard.ended();
        EXPECT_EQ(host.plugIn().serviceStatus().records, 4U) << test.label;
    }
}

TEST_F(GuardRaceTest, LetsNothingPassThatChangesDuringTheCheck) {
    site.folder.write("data.dat", records(200'000));
    std::atomic<bool> over{false};
    std::thread toucher([&] {
        for (auto time = std::filesystem::last_write_time(site.data); !over; time += std::chrono::seconds(1))
            std::filesystem::last_write_time(site.data, time);
    });
    nphost::LoadCheck const meanwhile = guard.check(nphost::LoadKind::RELOAD, site.data, false);
    over = true;
    toucher.join();
    EXPECT_EQ(meanwhile.reasons, std::vector<std::string>{"the file changed while it was checked"});
    EXPECT_FALSE(guard.standing().checking);
    guard.ended();
    site.folder.write("data.dat", otherCM); // after the end of a guarded load any version will do
    EXPECT_TRUE(update("Reload", "TRUE"));
    EXPECT_EQ(host.plugIn().serviceStatus().records, 5U);
    guard.stop();
    EXPECT_TRUE(guard.check(nphost::LoadKind::RELOAD, site.data, false).stopped) << "the daemon ends";
    EXPECT_EQ(guard.standing().lastRefusal->reasons, meanwhile.reasons) << "which is no fault of the file's";
}

TEST_F(GuardRaceTest, LoadsNoFileThatIsExpectedOtherwise) {
    host.plugIn().expectFile(BAS::String(delta), STR::FileVersion()); // as of a name that means another file by now
    EXPECT_FALSE(guard.check(nphost::LoadKind::DELTA, delta, false).examined);
    EXPECT_FALSE(update("AdditionalNumPortData", delta));
    guard.ended();
}

} // namespace
