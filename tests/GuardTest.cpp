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

// That many numbers with a record each.
std::string records(int count) {
    std::string lines;
    for (int i = 0; i < count; ++i)
        lines += "0044" + std::to_string(7'000'000'000 + i) + " 20200101000000 ALPHA\n";
    return lines;
}

TEST(GuardLimitsTest, FilesAgainstLimits) {
    struct Case {
        char const* label;
        std::string content;
        char const* limits;
        Arguments more;
        int status;
        char const* part;
    };
    std::string const good = "00441 20200101000000 A\n";
    std::vector<Case> const cases = {
        {"limits not asked of deltas",
         good,
         "maxLossPercent = 5\nminRecords = 9",
         {"--delta"},
         0,
         "limits: none is asked of this kind of load\n"},
        {"limits of which one is asked",
         good,
         "minRecords = 1\nmaxLossPercent = 5\nmaxRejectedPercent = 1",
         {"--delta"},
         0,
         "limits: maxRejectedPercent = 1\n"},
        {"loss at the limit", records(95), "maxLossPercent = 5", {"--live", "100"}, 0, "let it pass as a reload"},
        {"loss over it",
         records(94),
         "maxLossPercent = 5",
         {"--live", "100"},
         3,
         "refused: 6.0 % of the records would be lost (6 of 100), more than maxLossPercent = 5\n"},
        {"loss just over it, and shown so",
         records(9499),
         "maxLossPercent = 5",
         {"--live", "10000"},
         3,
         "5.01 % of the records would be lost (501 of 10,000)"},
        {"at a limit that has no exact binary form",
         records(9943),
         "maxLossPercent = 0.57",
         {"--live", "10000"},
         0,
         ""},
        {"over that", records(9942), "maxLossPercent = 0.57", {"--live", "10000"}, 3, "0.6 %"},
        {"no loss of no live records",
         "",
         "maxLossPercent = 0\nminRecords = 0",
         {"--live", "0"},
         0,
         "beside 0 live records"},
        {"more than before", records(2), "maxLossPercent = 0", {"--live", "1"}, 0, ""},
        {"all of it lost", "", "maxLossPercent = 99.999", {"--live", "1000000"}, 3, "(1,000,000 of 1,000,000)"},
        {"a first load loses nothing", records(1), "maxLossPercent = 0", {}, 0, "as a first load:"},
        {"an empty file has no bad lines and no incomplete one",
         "",
         "maxRejectedPercent = 0\nrequireCompleteLastLine = true\nminRecords = 0",
         {},
         0,
         ""},
        {"an empty file has too few records, whatever is asked",
         "",
         "",
         {},
         3,
         "has 0 records, fewer than minRecords = 1\n"},
        {"so has one without a good line", "bad\n", "", {"--live", "9"}, 3, "has 0 records"},
        {"one record is enough", good + "bad\n", "", {}, 1, "limits: minRecords = 1\n"},
        {"an empty delta", "", "maxRejectedPercent = 1", {"--delta"}, 0, "limits: maxRejectedPercent = 1\n"},
        {"numbers without digits, at the limit",
         good + "NULL 20200101000000 A\n- 20200101000000 A\n0044 20210101000000 A\n",
         "maxNumbersWithoutDigits = 2",
         {},
         1,
         "Numbers without digits:      2\n  a warning: in the country's stored form they answer for all of the "
         "country; "
         "the first is in line 2\n"},
        {"over it, in a delta, too",
         good + "NULL 20200101000000 A\n+ 20200101000000 A\n",
         "maxNumbersWithoutDigits = 1",
         {"--delta"},
         3,
         "refused: 2 records have no digit in their number field, the first at line 2, more than "
         "maxNumbersWithoutDigits = 1\n"},
        {"just enough records", records(7), "minRecords = 7", {}, 0, ""},
        {"one too few", records(6), "minRecords = 7", {"--live", "1"}, 3, "has 6 records"},
        {"rejected lines at the limit", good + "bad\n", "maxRejectedPercent = 50", {}, 1, "let it pass"},
        {"over it",
         good + "bad\n0044 2020 A\n",
         "maxRejectedPercent = 50",
         {},
         3,
         "66.7 % of the lines are rejected (2 of 3), more than maxRejectedPercent = 50, the first at line 2: Number "
         "of fields: 1 instead of 3\n"},
        {"all rejected",
         "bad\nworse\n",
         "maxRejectedPercent = 99.9",
         {},
         3,
         "100.0 % of the lines are rejected (2 of 2)"},
        {"a duplicate is a rejected line", good + good, "maxRejectedPercent = 49", {}, 3, "(1 of 2)"},
        {"no newline at the end",
         good + "00442 20200101000000 A",
         "requireCompleteLastLine = true",
         {},
         3,
         "the last line (2) does not end with a newline"},
        {"nobody asks for it", good + "00442 20200101000000 A", "minRecords = 2", {}, 0, ""},
        {"a newline", good, "requireCompleteLastLine = true", {}, 0, ""},
        {"of another system", "00441 20200101000000 A\r\n", "requireCompleteLastLine = true", {}, 0, ""},
        {"not required", good + "0", "requireCompleteLastLine = false\nminRecords = 1", {}, 1, ""},
        {"a small delta",
         good,
         "maxLossPercent = 0\nminRecords = 9",
         {"--delta", "--live", "10"},
         0,
         "as a delta beside 10 live records:"},
        {"a bad delta", "bad", "maxRejectedPercent = 1", {"--delta"}, 3, "(1 of 1)"},
        {"a delta cut off", good + "00442 2", "requireCompleteLastLine = true", {"--delta"}, 3, "the last line (2)"},
        {"memory", good, "maxMemoryMiB = 1", {}, 3, "MiB of memory, more than maxMemoryMiB = 1\n"},
        {"memory for what is live", good, "maxMemoryMiB = 500", {"--live", "10000000"}, 3, "MiB of memory"},
        {"the same for a delta", good, "maxMemoryMiB = 500", {"--live", "10000000", "--delta"}, 3, "MiB of memory"},
        {"enough memory", good, "maxMemoryMiB = 500", {"--live", "1000000"}, 0, ""},
        {"every limit crossed is named", "bad", "minRecords = 1\nmaxRejectedPercent = 0", {}, 3, "has 0 records"},
        {"and the other too", "bad", "minRecords = 1\nmaxRejectedPercent = 0", {}, 3, "the lines are rejected"},
        {"no limit", good, "minRecords = 0", {}, 2, "there is no limit in [host.guard]"},
        {"a percentage that is none", good, "maxLossPercent = 101", {}, 2, "from 0 to 100 with at most three decimals"},
        {"too fine a one", good, "maxLossPercent = 0.0005", {}, 2, "nphost.toml:8: 'maxLossPercent' must be"},
        {"no number", good, "maxRejectedPercent = nan", {}, 2, "'maxRejectedPercent' must be a number"},
        {"a truth for a number", good, "maxRejectedPercent = true", {}, 2, "'maxRejectedPercent' must be a number"},
        {"half a record", good, "minRecords = 0.5", {}, 2, "'minRecords' must be a whole number from 0"},
        {"no memory", good, "maxMemoryMiB = 0", {}, 2, "'maxMemoryMiB' must be a whole number from 1"},
        {"a number for a truth", good, "requireCompleteLastLine = 1", {}, 2, "must be true or false"},
        {"an unknown limit", good, "maxLoss = 1", {}, 2, "unknown key 'maxLoss' in [host.guard]"},
        {"negative live records", good, "minRecords = 1", {"--live", "-1"}, 2, "--live"},
    };
    for (Case const& test : cases) {
        Site const site(test.content, std::string("[host.guard]\n") + test.limits + "\n");
        Arguments command = {"check", "--config", site.folder.file("nphost.toml"), "--guard", site.data()};
        command.insert(command.end(), test.more.begin(), test.more.end());
        expectResult(runProgram(site.folder, command, "check"), test.status, test.part, test.label);
    }
}

// The reckoning must not fall behind what a load really takes, whatever the histories look like.
TEST(GuardLimitsTest, MemoryIsNeverReckonedTooSmall) {
#ifdef NP_SANITIZED
    GTEST_SKIP() << "a sanitizer's own memory is in the measurement";
#endif
    constexpr unsigned seed = 20261123;
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    auto const lines = [&random](int count, std::uint64_t histories, std::string const& network) {
        std::string text;
        for (int i = 0; i < count; ++i)
            text += "0044" + std::to_string(1'000'000'000 + random() % 9'000'000'000 / histories * histories) + " 20" +
                    std::to_string(10 + random() % 80) + "0101000000 " + network + std::to_string(random() % 50) + "\n";
        return text;
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
        auto const expectRoom = [&](Arguments const& command) {
            std::ofstream(process + "/clear_refs") << "5"; // the peak begins anew
            Json const answer = Json::parse(site.ctl(command).out);
            std::string const memory = contentOf(process + "/status");
            unsigned long const peak = std::stoul(memory.substr(memory.find("VmHWM:") + 6)) / 1024;
            EXPECT_EQ(answer.at("succeeded"), true) << test.label << command[1];
            EXPECT_GE(answer.at("check").at("memoryMiB").get<unsigned long>(), peak) << test.label << command[1];
        };
        site.folder.write("data.dat", test.then);
        expectRoom({"--json", "reload", "--wait"});
        site.folder.write("delta", test.delta);
        expectRoom({"--json", "delta", site.folder.file("delta"), "--wait"});
    }
}

std::string const limitsCM = "[host.guard]\nmaxLossPercent = 25\nmaxRejectedPercent = 40\nminRecords = 3\n"
                             "requireCompleteLastLine = true\nmaxMemoryMiB = 1000\n";

// Every way to ask for a load is refused, says why, and leaves what is served; forced, it is carried out.
TEST(GuardDaemonTest, RefusesEveryWayToLoadABrokenFile) {
    Site site(dataCM, limitsCM);
    site.start();
    std::string const half = "0044770 20200101000000 NEW\n00447700900123 20210301020000 NEW\n";
    std::string const lost = "50.0 % of the records would be lost (2 of 4), more than maxLossPercent = 25";
    std::string const bad = site.folder.write("bad", "0033 20200101000000 NEW\nx\ny\n");
    std::string const cut = site.folder.write("cut", "0033 20200101000000 NEW");
    site.folder.write("data.dat", half);
    struct Case {
        Arguments command;
        std::string part;
        std::string reason; // in the status afterwards
    };
    auto const expectOldData = [&](std::string const& label) {
        Result const answer = site.ctl({"lookup", "--at", "20240101000000", "00447700900123"});
        EXPECT_TRUE(contains(answer.out, "\tBRAVO\n")) << label << answer.out;
        EXPECT_EQ(site.status().at("records"), 4) << label;
        EXPECT_EQ(site.status().at("usable"), true) << label;
        EXPECT_EQ(contentOf(site.data()), half) << label;
    };
    std::string const rejected = "66.7 % of the lines are rejected (2 of 3)";
    for (Case const& test :
         {Case{{"reload", "--wait"}, "refused: " + lost + "\n", lost},
          Case{{"reload", "--wait"}, "refused: the file has 2 records", lost},
          Case{{"delta", bad, "--wait"}, "refused: " + rejected, rejected},
          Case{{"update", "Reload=TRUE"}, "ERR_HOST_GUARD_REFUSED \"reload\"", lost},
          Case{{"delta", cut, "--wait"}, "refused: the last line (1) does not end", "the last line (1)"},
          Case{{"update", "Reload=TRUE", "ReuseOnFailure=FALSE"}, lost, lost},
          Case{{"update", "AdditionalNumPortData=" + bad}, rejected, rejected},
          Case{{"delta", site.folder.file("none"), "--wait"},
               "refused: the file could not be read",
               "could not be read"}}) {
        std::string const label = test.command[0] + " " + test.command[1];
        expectResult(site.ctl(test.command), 1, test.part, label);
        expectOldData(label);
        Json const refusal = site.status().at("guard").at("lastRefusal");
        EXPECT_TRUE(contains(refusal.at("reasons").dump(), test.reason)) << label << refusal;
        EXPECT_TRUE(contains(site.ctl({"status"}).out, test.reason)) << label;
        EXPECT_TRUE(contains(site.ctl({"status"}).out, "Refused since:    a " + refusal.at("kind").get<std::string>()));
    }
    auto const refusals = [&] {
        std::string const log = site.log();
        std::size_t count = 0;
        for (std::size_t at = log.find(lost + "\" "); at != std::string::npos; at = log.find(lost + "\" ", at + 1))
            ++count;
        return count;
    };
    std::size_t const before = refusals();
    site.daemon->signal(SIGHUP);
    EXPECT_TRUE(eventually([&] { return refusals() > before; })) << site.log();
    expectOldData("SIGHUP");
    EXPECT_TRUE(contains(site.ctl({"reload", "--wait"}).out, "reload: REFUSED after ")) << "with the time of the check";

    expectResult(site.ctl({"reload", "--wait", "--force"}), 0, "INF_HOST_GUARD_FORCED", "forced reload");
    EXPECT_EQ(site.status().at("records"), 2);
    EXPECT_FALSE(contains(site.ctl({"status"}).out, "Refused since:"));
    expectResult(site.ctl({"delta", bad, "--wait", "--force"}), 0, "records added: 1", "forced delta");
    expectResult(site.ctl({"update", "--force", "AdditionalNumPortData=" + cut}), 0, "INF_NUM_NPORT_ADDED",
                 "forced update");
    site.folder.write("data.dat", dataCM);
    Result const sound = site.ctl({"reload", "--wait"});
    expectResult(sound, 0, "reload: done in ", "a sound file");
    EXPECT_TRUE(contains(sound.out, " s, the check ")) << sound.out;
    expectResult(site.ctl({"update", "Reload=TRUE", "PrintData=" + site.folder.file("p")}), 0, "Check:  ", "update");
    EXPECT_EQ(site.status().at("records"), 4);
    EXPECT_EQ(site.stop(), 0);
}

TEST(GuardDaemonTest, RefusesToStartWithABrokenFile) {
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
        Arguments command = {"run", "--config", site.folder.file("nphost.toml")};
        command.insert(command.end(), test.more.begin(), test.more.end());
        if (test.status == 0) {
            site.start(test.more);
            EXPECT_EQ(site.stop(), 0) << test.label;
        } else {
            Process daemon(command, site.folder.file("out"), site.folder.file("log"));
            EXPECT_EQ(daemon.wait(), test.status) << test.label;
            EXPECT_FALSE(std::filesystem::exists(site.socket())) << test.label;
            EXPECT_TRUE(contains(site.log(), "nphost: the first load is refused: ")) << test.label << site.log();
        }
        EXPECT_TRUE(contains(site.log(), test.part)) << test.label << site.log();
    }
}

// Without a word in the configuration: a file without a record is the one that takes everything out of service.
TEST(GuardDaemonTest, NeverServesNothingUnlessToldTo) {
    for (std::string const& nothing : {std::string(), std::string(5000, '\n'), std::string("x y z\n")}) {
        Site site(nothing);
        std::string const reason = "the file has 0 records, fewer than minRecords = 1";
        Result const refused = runProgram(site.folder, {"run", "--config", site.folder.file("nphost.toml")}, "refused");
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

TEST(GuardDaemonTest, ReadsNothingTwiceThatNoLimitIsAskedOf) {
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
TEST(GuardDaemonTest, AnswersDuringACheckAndEndsItWhenItStops) {
    Site site(dataCM, limitsCM);
    site.start();
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
TEST(GuardDaemonTest, GuardsConcurrentLoads) {
    Site site(dataCM, limitsCM);
    site.start();
    std::string const bad = site.folder.write("bad", "x\n");
    std::string const good = site.folder.write("good", "0044770 20200101000000 ALPHA\n");
    std::vector<std::pair<Arguments, int>> const commands = {
        {{"reload", "--wait"}, 0},           {{"delta", bad, "--wait"}, 1},
        {{"update", "Reload=TRUE"}, 0},      {{"update", "AdditionalNumPortData=" + bad}, 1},
        {{"delta", good, "--wait"}, 0},      {{"print", site.folder.file("listing"), "--wait"}, 0},
        {{"reload", "--force", "--wait"}, 0}};
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < commands.size(); ++i)
        threads.emplace_back([&, i] {
            for (int round = 0; round < 4; ++round) {
                Result const result = site.ctl(commands[i].first, "c" + std::to_string(i));
                EXPECT_EQ(result.status, commands[i].second) << commands[i].first[0] << result.out << result.err;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(site.status().at("records"), 4);
    EXPECT_EQ(site.stop(), 0);
}

// What a check let pass is what is loaded, or nothing is.
TEST(GuardRaceTest, LoadsOnlyTheVersionThatWasChecked) {
    Site const site(dataCM);
    nphost::Configuration configuration =
        nphost::readConfiguration(site.folder.file("nphost.toml"), nphost::sectionsCM);
    nphost::Host host(std::move(configuration), nphost::CommonOptions{site.folder.file("nphost.toml")});
    host.start();
    nphost::GuardLimits limits;
    limits.maxRejectedPercent = nphost::GuardLimits::wholeCM;
    nphost::LoadGuard guard(limits, host.plugIn(), host.log());
    std::string const other = dataCM + "0033 20200101000000 ECHO\n";
    std::string const delta = site.folder.write("delta", other);
    auto const update = [&](char const* key, std::string const& value) {
        BAS::RegistryEntry keys{BAS::String("DAT_NumberPortability")};
        keys.append(BAS::RegistryEntry(BAS::String(key), BAS::String(value)));
        keys.append(BAS::RegistryEntry("ReuseOnFailure", "FALSE"));
        BAS::ProtectedBool handled;
        return host.plugIn().update(keys, handled);
    };
    struct Case {
        char const* label;
        std::function<void(std::string const&)> change;
    };
    std::string sameSize = dataCM;
    sameSize.replace(sameSize.find("ALPHA"), 5, "OTHER");
    for (Case const& test :
         {Case{"replaced",
               [&](std::string const& file) { std::filesystem::rename(site.folder.write("n", other), file); }},
          Case{"written to", [](std::string const& file) { std::ofstream(file, std::ios::app) << "0033 2020"; }},
          Case{"written with the same size",
               [&](std::string const& file) {
                   std::ofstream(file) << sameSize;
                   std::filesystem::last_write_time(file, std::filesystem::file_time_type::clock::now() -
                                                              std::chrono::hours(1));
               }},
          Case{"gone", [](std::string const& file) { std::filesystem::remove(file); }}}) {
        site.folder.write("data.dat", dataCM);
        site.folder.write("delta", other);
        EXPECT_TRUE(guard.check(nphost::LoadKind::RELOAD, site.data(), false).passed) << test.label;
        test.change(site.data());
        EXPECT_FALSE(update("Reload", "TRUE")) << test.label;
        guard.ended();
        EXPECT_TRUE(guard.check(nphost::LoadKind::DELTA, delta, false).passed) << test.label;
        test.change(delta);
        EXPECT_FALSE(update("AdditionalNumPortData", delta)) << test.label;
        guard.ended();
        EXPECT_EQ(host.plugIn().serviceStatus().records, 4U) << test.label;
    }
    site.folder.write("data.dat", records(200'000));
    std::atomic<bool> over{false};
    std::thread toucher([&] {
        for (auto time = std::filesystem::last_write_time(site.data()); !over; time += std::chrono::seconds(1))
            std::filesystem::last_write_time(site.data(), time);
    });
    nphost::LoadCheck const meanwhile = guard.check(nphost::LoadKind::RELOAD, site.data(), false);
    over = true;
    toucher.join();
    EXPECT_EQ(meanwhile.reasons, std::vector<std::string>{"the file changed while it was checked"});
    EXPECT_FALSE(guard.standing().checking);
    guard.ended();
    site.folder.write("data.dat", other); // after the end of a guarded load any version will do
    EXPECT_TRUE(update("Reload", "TRUE"));
    EXPECT_EQ(host.plugIn().serviceStatus().records, 5U);
    host.plugIn().expectFile(BAS::String(delta), STR::FileVersion()); // as of a name that means another file by now
    EXPECT_FALSE(guard.check(nphost::LoadKind::DELTA, site.folder.write("delta", other), false).examined);
    EXPECT_FALSE(update("AdditionalNumPortData", delta));
    guard.ended();
    auto const refused = guard.standing().lastRefusal->reasons;
    guard.stop();
    EXPECT_TRUE(guard.check(nphost::LoadKind::RELOAD, site.data(), false).stopped) << "the daemon ends";
    EXPECT_EQ(guard.standing().lastRefusal->reasons, refused) << "which is no fault of the file's";
}

} // namespace
