// The plug-in through the real module: configuration, life cycle, run-time updates, probes, and all of it at once.
#include "tests/LimitedMemory.h"
#include "tests/LoadedPlugIn.h"
#include "tests/Texts.h"
#include "tests/WatchedThread.h"

#include <atomic>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

using Entries = std::vector<std::string>;
using DAT::NumberPortability::PlugIn;

std::string loaded(std::string const& file) {
    return "INF_FILE_EOF(1): " + file;
}

} // namespace

class Configuration : public LoadedPlugIn {};
class LifeCycle : public LoadedPlugIn {};
class Update : public LoadedPlugIn {};
class Probe : public LoadedPlugIn {};

TEST_F(Configuration, NeedsThreeKeysOnly) {
    EXPECT_TRUE(create().isValid());
    EXPECT_TRUE(plugIn->isUsable());
    EXPECT_EQ(journal.take(), Entries{"INF_FILE_OPENED(1): " + file});
    EXPECT_EQ(root.asked, Entries{"REQ_EVENTHANDLER_NAME from NP"});
    EXPECT_TRUE(plugIn->init());
    folder.write("main", "+440171 20200101000000 C\n0044 20200101000000 D\n0172 20200101000000 E\n");
    EXPECT_EQ(update({{"Reload", ""}}), "true handled");
    EXPECT_EQ(answer("00440171"), "C") << "sign + and access code 00 by default, best match";
    EXPECT_EQ(answer("00449"), "D");
}

TEST_F(Configuration, ReportsWhatIsMissingAndStopsThere) {
    Entries const order{"FileName", "CountryCode", "NationalAccessCode"};
    auto const all = keys;
    for (std::string const& missing : order) {
        keys = all;
        unset(missing);
        EXPECT_FALSE(create().isValid());
        EXPECT_FALSE(plugIn->isUsable());
        EXPECT_EQ(journal.take(), Entries{"ERR_REG_NAME_NOT_FOUND(5): NP." + missing});
    }
    EXPECT_TRUE(root.asked.empty());
    BAS::InstrumentationProbeList probes;
    plugIn->getInstrumentationProbe(probes);
    EXPECT_EQ(probes.length(), 0U);

    EXPECT_FALSE(create("another name").isValid());
    EXPECT_EQ(journal.take(), Entries{"ERR_REG_SUBTREE_NOT_FOUND(5): another name"});
}

TEST_F(Configuration, TakesTheSearchMethodAsAnUnsignedNumber) {
    struct Case {
        char const* value;
        char const* answer; // of a number stored under 0044171 and 00441712, at an instant when both hold
        std::string error;
    };
    for (Case const& c : {Case{"0", "B", ""},
                          {"1", "-", ""},
                          {"2", "A", ""},
                          {"7", "B", ""},
                          {"4294967295", "B", ""},
                          {"x1", "", "ERR_REG_VALUE_INVALID(5): NP.SearchMethod, x1"},
                          {"4294967296", "", "ERR_REG_VALUE_INVALID(5): NP.SearchMethod, 4294967296"},
                          {"-1", "", "ERR_REG_VALUE_INVALID(5): NP.SearchMethod, -1"},
                          {"", "", "ERR_REG_VALUE_INVALID(5): NP.SearchMethod"}}) {
        SCOPED_TRACE(c.value);
        unset("SearchMethod");
        set("SearchMethod", c.value);
        EXPECT_EQ(create().isValid(), c.error.empty());
        Entries const reports = journal.take();
        if (!c.error.empty()) {
            EXPECT_EQ(reports, Entries{c.error});
            continue;
        }
        EXPECT_TRUE(plugIn->init());
        EXPECT_EQ(answer("004417123"), c.answer);
        journal.take();
    }
}

TEST_F(Configuration, ChecksThatTheDataFileOpens) {
    for (std::string const& name : {folder.file("missing"), folder.path().string(), std::string("/dev/null")}) {
        unset("FileName");
        set("FileName", name);
        EXPECT_FALSE(create().isValid());
        EXPECT_EQ(journal.take(), Entries{"ERR_FILE_NOT_FOUND(4): " + name});
        EXPECT_FALSE(plugIn->isUsable());
        EXPECT_TRUE(root.asked.empty());
        BAS::InstrumentationProbeList probes;
        plugIn->getInstrumentationProbe(probes);
        EXPECT_EQ(probes.length(), 0U);
        EXPECT_FALSE(plugIn->readRegistry()) << "of an invalid plug-in it only checks the file";
        EXPECT_EQ(journal.take(), Entries{"ERR_FILE_NOT_FOUND(4): " + name});
        EXPECT_FALSE(plugIn->init());
        EXPECT_EQ(journal.take(), (Entries{"INF_LOAD_DATA(1): NP", "ERR_FILE_NOT_FOUND(4): " + name}));
    }
}

TEST_F(Configuration, LivesWithoutAnEventHandler) {
    struct Case {
        bool served;
        Entries reply;
    };
    for (Case const& c : {Case{false, {"EventHandler"}}, {true, {}}, {true, {"EventHandler", "another"}}}) {
        root.served = c.served;
        root.reply = c.reply;
        createInitialised();
        EXPECT_TRUE(plugIn->isValid());
        EXPECT_EQ(update({{"Reload", ""}}), "true handled");
        EXPECT_EQ(journal.take().back(), "INF_NUM_NPORT_RELOADED(1): 2") << "and no event";
    }
}

TEST_F(Configuration, LivesWithARootObjectThatThrows) {
    root.throws = true;
    EXPECT_TRUE(create().isValid());
    EXPECT_EQ(journal.take().back(), "ERR_UNEXPECTED(5): NP, root");
    EXPECT_TRUE(plugIn->evalEnvironment());
}

TEST_F(Configuration, NeedsTheProbeDefinitionFile) {
    OMF::InstrumentationProbeBrokerIf::installFolder(BAS::String(folder.path().string()));
    EXPECT_FALSE(create().isValid());
    EXPECT_TRUE(journal.take().back().starts_with("ERR_PROBE_FILE(4): "));

    folder.write("DAT_NumberPortability.probe", "[reload]\ndescription = \"again\"\n");
    EXPECT_TRUE(create().isValid());
    BAS::InstrumentationProbeList list;
    plugIn->getInstrumentationProbe(list);
    auto const& group = dynamic_cast<BAS::InstrumentationProbeGroup&>(*list[0]);
    ASSERT_EQ(group.length(), 3U);
    EXPECT_EQ(group[0]->description().str(), "again");
    EXPECT_EQ(group[2]->description().str(), "");
    BAS::String value = "kept";
    EXPECT_FALSE(group[0]->getValue(value, true));
    EXPECT_EQ(value.str(), "kept");
}

TEST_F(LifeCycle, LoadsServesAndStops) {
    create();
    EXPECT_EQ(answer("0044171"), "-");
    journal.take();
    EXPECT_TRUE(plugIn->init());
    EXPECT_EQ(journal.take(), (Entries{"INF_LOAD_DATA(1): NP", "INF_FILE_OPENED(1): " + file, loaded(file),
                                       "INF_NUM_NPORT_LOADED(1): 2"}));
    EXPECT_EQ(answer("0044171"), "A");
    EXPECT_EQ(answer("00441712"), "B");
    EXPECT_EQ(answer("00441712", "20200601000000"), "A");
    EXPECT_EQ(answer("00441712", "20190601000000"), "-");
    EXPECT_FALSE(plugIn->init()) << "a second time";
    journal.take();
    EXPECT_TRUE(plugIn->shutdown());
    EXPECT_TRUE(plugIn->shutdown());
    EXPECT_TRUE(probe("reload", ""));
    EXPECT_TRUE(journal.take().empty());
    EXPECT_EQ(answer("0044171"), "A");
}

// The calls come with the report of a bad line, when the other lines have been inserted.
TEST_F(LifeCycle, ServesNothingBeforeTheFirstLoadHasEnded) {
    folder.write("main", "bad\n0171 20200101000000 A\n");
    create();
    std::string const out = folder.file("out");
    bool called = false;
    journal.hook([&](std::string const& entry) {
        if (called || !entry.starts_with("ERR_NUMBER_OF_FIELDS"))
            return;
        called = true;
        EXPECT_EQ(answer("0044171"), "-");
        EXPECT_EQ(update({{"PrintData", out}}), "true handled");
        EXPECT_EQ(contentOf(out).find("0044171"), std::string::npos);
    });
    EXPECT_TRUE(plugIn->init());
    EXPECT_TRUE(called);
    EXPECT_EQ(answer("0044171"), "A");
}

TEST_F(LifeCycle, EveryoneMayCallDuringInitAndShutdown) {
    for (int round = 0; round < 20; ++round) {
        create();
        std::atomic<bool> stop{false};
        std::vector<std::jthread> threads;
        threads.emplace_back([&] {
            while (!stop)
                update({{round % 2 == 0 ? "Reload" : "PrintData", folder.file("printed")}});
        });
        threads.emplace_back([&] {
            while (!stop) {
                serviceStatus();
                answer("0044171");
                probe("printData", folder.file("out"));
                carryOut(PlugIn::RELOAD_PROBE, "");
            }
        });
        threads.emplace_back([&] { plugIn->shutdown(); });
        EXPECT_TRUE(plugIn->init());
        EXPECT_EQ(answer("0044171"), "A");
        stop = true;
        threads.clear(); // joined
        plugIn.reset();
    }
}

// The shutdown comes while init makes the worker, before its gate is closed.
TEST_F(LifeCycle, EndsAWorkerThatIsMadeDuringAShutdown) {
    create();
    std::unique_ptr<WatchedThread> stopping;
    std::function<void()> stop = [&] {
        stopping = std::make_unique<WatchedThread>([&] { plugIn->shutdown(); });
        stopping->waitUntilAsleep();
    };
    journal.hook([&](std::string const& entry) { beforeAllocation = entry.starts_with("INF_LOAD") ? &stop : nullptr; });
    EXPECT_TRUE(plugIn->init());
    EXPECT_NE(stopping, nullptr);
    stopping.reset();
    EXPECT_TRUE(probe("reload", ""));
    plugIn.reset();
    EXPECT_EQ(journal.take().back(), "INF_NUM_NPORT_LOADED(1): 2");
}

TEST_F(LifeCycle, TellsOfEveryLoadHoweverItEnded) {
    createInitialised();
    std::string const missing = folder.file("missing");
    EXPECT_EQ(update({{"AdditionalNumPortData", missing}}), "false handled");
    auto status = serviceStatus();
    EXPECT_EQ(status.loads, 2U);
    EXPECT_FALSE(status.lastLoad.succeeded);
    EXPECT_EQ(status.lastLoad.fileName.str(), missing);
    EXPECT_EQ(status.lastLoad.lines, 0U) << "not those of the load before";
    std::filesystem::remove(file);
    EXPECT_EQ(update({{"Reload", ""}}), "true handled");
    status = serviceStatus();
    EXPECT_EQ(status.loads, 3U);
    EXPECT_EQ(status.lastLoad.kind, DAT::NumberPortability::LoadOutcome::RELOAD);
    EXPECT_FALSE(status.lastLoad.succeeded);
}

TEST_F(LifeCycle, ClosesAVisitedFileWhateverTheVisitorThrows) {
    createInitialised();
    EXPECT_FALSE(visitFile(file, [](auto const&) { throw std::runtime_error("visitor"); }));
    EXPECT_EQ(journal.take(), (Entries{"INF_FILE_OPENED(1): " + file, "ERR_UNEXPECTED(5): NP, visitor",
                                       "INF_FILE_CLOSED(1): " + file}));
}

// A load's outcome is what has become of the data, whatever could be reported of it.
TEST_F(LifeCycle, OutcomesHoldWhereMemoryRunsOut) {
    createInitialised();
    BAS::RegisteredObject::installLogSink(nullptr); // the journal needs memory itself
    std::string const lines = "0171 20200101000000 A-LONG-NETWORK\n";
    bool finished = false;
    long count = 0;
    for (; !finished; ++count) {
        folder.write("main", "0171 20200101000000 OLD\n");
        ASSERT_TRUE(carryOut(PlugIn::RELOAD_PROBE, ""));
        folder.write("main", lines);
        allowed = count;
        finished = carryOut(PlugIn::RELOAD_PROBE, "");
        allowed = -1;
        ASSERT_EQ(serviceStatus().lastLoad.succeeded, finished) << count;
        ASSERT_TRUE(!finished || answer("0044171") == "A-LONG-NETWORK") << count;
    }
    EXPECT_GT(count, 10);

    BAS::RegistryEntry both("NP"); // whose listing takes nothing back of the reload
    for (auto const& [key, value] : std::vector<std::pair<char const*, std::string>>{
             {"Reload", ""}, {"ReuseOnFailure", "FALSE"}, {"PrintData", folder.file("listing")}})
        both.append(BAS::RegistryEntry(BAS::String(key), BAS::String(value)));
    refusesOne = true;
    for (count = 0, finished = false; !finished; ++count) {
        auto const loads = serviceStatus().loads;
        BAS::ProtectedBool handled;
        allowed = count;
        bool const result = plugIn->registryUpdate(&both, handled);
        finished = std::exchange(allowed, -1) >= 0;
        auto const status = serviceStatus();
        ASSERT_EQ(result, status.loads > loads && status.lastLoad.succeeded) << count;
    }
    refusesOne = false;
    EXPECT_TRUE(contentOf(folder.file("listing")).ends_with("A-LONG-NETWORK\n"));

    allowed = 0;
    EXPECT_THROW(answer("0044171"), std::bad_alloc) << "which is not to say that there is none";
    allowed = -1;
}

// The journal needs memory itself, and so does the root object; what that throws is no different.
TEST_F(LifeCycle, MakesNoPlugInWhereMemoryRunsOut) {
    create(); // whatever is made once
    plugIn.reset();
    BAS::RegisteredObject::installLogSink(nullptr);
    BAS::String const name("NP");
    auto* const entry = symbol<void* (*)(BAS::String const&)>("DAT_NumberPortabilityModuleStart");
    auto* const entryWithoutName = symbol<void* (*)()>("ModuleStartNL");
    auto const made = [&](bool named, long count) {
        allowed = count;
        void* const object = named ? entry(name) : entryWithoutName();
        allowed = -1;
        return std::unique_ptr<PLG::DataPlugIn>(static_cast<PLG::DataPlugIn*>(object));
    };
    for (bool const named : {true, false}) {
        long count = 0;
        for (; !(plugIn = made(named, count)); ++count) {
        }
        EXPECT_EQ(plugIn->isValid(), named) << "made with too little memory: " << count;
        EXPECT_GT(count, named ? 20 : 3);
        plugIn.reset();
    }
}

TEST_F(LifeCycle, InitMayBeRepeatedAfterAFailure) {
    create();
    std::filesystem::rename(file, file + ".away");
    EXPECT_FALSE(plugIn->init());
    std::filesystem::rename(file + ".away", file);
    EXPECT_TRUE(plugIn->init());
    EXPECT_EQ(answer("0044171"), "A");
    EXPECT_EQ(journal.take().back(), "INF_NUM_NPORT_LOADED(1): 2");
}

TEST_F(LifeCycle, CommandsBeforeInitLoseNothing) {
    create();
    journal.take();
    std::string const before = contentOf(file);
    EXPECT_EQ(update({{"AdditionalNumPortData", folder.write("delta", "0173 20200101000000 C\n")}}), "false handled");
    EXPECT_EQ(contentOf(file), before);
    EXPECT_EQ(update({{"Reload", ""}}), "true handled");
    EXPECT_EQ(answer("0044171"), "A");
    EXPECT_TRUE(plugIn->init());
    for (std::string const& entry : journal.take())
        EXPECT_FALSE(entry.starts_with("ERR_DUPLICATE")) << entry;
    EXPECT_EQ(answer("0044171"), "A");
}

// A receiver of events may command loads, and what it throws harms nobody.
TEST_F(LifeCycle, EventsMayCommandAndThrow) {
    createInitialised();
    int events = 0;
    journal.hook([&](std::string const& entry) {
        if (!entry.starts_with("EVT::"))
            return;
        if (++events == 1) {
            EXPECT_EQ(update({{"Reload", ""}}), "true handled");
        }
        throw std::runtime_error("receiver");
    });
    EXPECT_EQ(update({{"Reload", ""}}), "true handled");
    journal.hook(nullptr);
    EXPECT_EQ(events, 2);
    EXPECT_EQ(journal.take().back(), "ERR_UNEXPECTED(5): NP, receiver");
    EXPECT_TRUE(plugIn->isUsable());
}

TEST_F(LifeCycle, SurvivesEveryOrderOfSteps) {
    create(); // never initialised
    plugIn.reset();
    create().shutdown(); // shut down without init
    plugIn.reset();
    createInitialised(); // destroyed without shutdown, with a request posted
    probe("printData", folder.file("never mind"));
    plugIn.reset();
    createInitialised();
    PLG::PlugInControlIf* const control = plugIn.release(); // driven and destroyed through the other view
    EXPECT_TRUE(control->shutdown());
    delete control;
}

TEST_F(LifeCycle, ANameThatIsTakenIsNotValid) {
    create();
    auto const second = start("NP");
    EXPECT_TRUE(plugIn->isValid());
    EXPECT_FALSE(second->isValid());
    EXPECT_FALSE(start("")->isValid());
}

TEST_F(LifeCycle, DefaultConstructedDoesNothing) {
    plugIn.reset(static_cast<PLG::DataPlugIn*>(symbol<void* (*)()>("ModuleStartNL")()));
    EXPECT_EQ(journal.take(), Entries{"ERR_OBJ_NOT_INITIALIZED(5): DAT::NumberPortability::PlugIn"});
    EXPECT_EQ(plugIn->status().severity(), BAS::Status::CRITICAL);
    EXPECT_FALSE(plugIn->isValid());
    EXPECT_FALSE(plugIn->isUsable());
    EXPECT_FALSE(plugIn->init());
    EXPECT_EQ(answer("0044171"), "-");
    EXPECT_EQ(update({{"Reload", ""}, {"ReuseOnFailure", "false"}}), "false handled");
    EXPECT_EQ(update({{"AdditionalNumPortData", file}}), "false handled");
    EXPECT_EQ(update({{"PrintData", ""}}), "true handled");
    EXPECT_TRUE(plugIn->shutdown());
    journal.take();
}

TEST_F(LifeCycle, ClosesTheFileOfALastCheckWhenDestroyed) {
    createInitialised();
    std::string const added = folder.write("delta", "0173 20200101000000 C\n");
    probe("deltaLoad", added); // the worker leaves the checked file open
    journal.take(3);
    plugIn.reset();
    EXPECT_EQ(journal.take(), Entries{"INF_FILE_CLOSED(1): " + added});
}

TEST_F(Update, Reloads) {
    createInitialised();
    folder.write("main", "0172 20200101000000 C\n");
    Entries const reports{"INF_RELOAD_DATA(1): NP",     "INF_FILE_OPENED(1): " + file,  "INF_FILE_OPENED(1): " + file,
                          "INF_DELETE_OLD_DATA(1): NP", "INF_NUM_NPORT_RELOADED(1): 1", "EVT::RELOAD_SUCCESSFUL"};
    for (char const* value : {"", "TRUE", "FALSE"}) {
        EXPECT_EQ(update({{"Reload", value}}), "true handled");
        EXPECT_EQ(journal.take(), reports);
    }
    EXPECT_EQ(update({{"ReuseOnFailure", "False"}, {"Reload", ""}}), "true handled");
    EXPECT_EQ(journal.take(), reports);
    EXPECT_EQ(answer("0044171"), "-");
    EXPECT_EQ(answer("0044172"), "C");
}

TEST_F(Update, RefusesWhatContradictsOrIsInvalid) {
    createInitialised();
    EXPECT_EQ(update({{"Reload", ""}, {"AdditionalNumPortData", file}, {"PrintData", folder.file("out")}}),
              "false handled");
    EXPECT_EQ(journal.take(), Entries{"ERR_INVALID_REG_ENTRIES(5): Both 'Reload' and 'AdditionalNumPortData' can not "
                                      "be specified in update registry."});
    for (auto const& [value, upper] : {std::pair{"maybe", "MAYBE"}, {"true ", "TRUE "}, {"", ""}}) {
        EXPECT_EQ(update({{"Reload", ""}, {"ReuseOnFailure", value}, {"PrintData", folder.file("out")}}),
                  "false handled");
        EXPECT_EQ(journal.take(), Entries{"ERR_INVALID_REG_VALUE(5): " + std::string(upper) + ", ReuseOnFailure"});
    }
    EXPECT_FALSE(std::filesystem::exists(folder.file("out")));
    EXPECT_EQ(update({{"ReuseOnFailure", "maybe"}}), "true not handled");
    EXPECT_EQ(update({{"FileName", "x"}, {"reload", ""}}), "true not handled");
    EXPECT_EQ(update({}), "true not handled");
    EXPECT_TRUE(journal.take().empty());
}

TEST_F(Update, AFailedReloadLeavesTheOldDataAndTheChoiceOfUsability) {
    createInitialised();
    std::filesystem::remove(file);
    Entries const reports{"INF_RELOAD_DATA(1): NP", "ERR_FILE_NOT_FOUND(4): " + file, "EVT::RELOAD_FAILED"};
    EXPECT_EQ(update({{"Reload", ""}, {"PrintData", folder.file("printed")}}), "true handled");
    EXPECT_EQ(journal.take(), reports);
    EXPECT_TRUE(plugIn->isUsable());
    EXPECT_TRUE(std::filesystem::exists(folder.file("printed")));
    EXPECT_EQ(update({{"Reload", ""}, {"ReuseOnFailure", "fAlse"}, {"PrintData", folder.file("not printed")}}),
              "false handled");
    EXPECT_EQ(journal.take(), reports);
    EXPECT_FALSE(plugIn->isUsable());
    EXPECT_FALSE(std::filesystem::exists(folder.file("not printed")));
    EXPECT_EQ(answer("0044171"), "A");

    folder.write("main", "bad\n"); // opens, and counts as failed
    EXPECT_EQ(update({{"Reload", ""}, {"ReuseOnFailure", "false"}}), "false handled");
    EXPECT_FALSE(plugIn->isUsable());
    EXPECT_EQ(answer("0044171"), "A");
    EXPECT_EQ(update({{"Reload", ""}}), "true handled");
    EXPECT_TRUE(plugIn->isUsable());
    EXPECT_EQ(answer("0044171"), "-");
}

TEST_F(Update, LoadsADelta) {
    createInitialised();
    std::string const added = folder.write("delta", "0173 20200101000000 C\n0174 20200101000000 D\n");
    for (char const* count : {"2", "0"}) {
        EXPECT_EQ(update({{"AdditionalNumPortData", added}}), "true handled");
        Entries made = journal.take();
        std::erase_if(made, [](auto const& entry) { return entry.starts_with("ERR_DUPLICATE_NUMPORTDATA"); });
        EXPECT_EQ(made, (Entries{"INF_ADD_DATA(1): NP", "INF_FILE_OPENED(1): " + added, "INF_FILE_OPENED(1): " + added,
                                 "INF_FILE_CLOSED(1): " + added, "INF_NUM_NPORT_ADDED(1): " + std::string(count),
                                 "EVT::ADD_NUM_PORT_DATA_SUCCESSFUL"}));
    }
    EXPECT_EQ(answer("0044174"), "D");
    EXPECT_EQ(contentOf(file), "0044171  20200101000000  A\n00441712  20210101000000  B\n"
                               "0044173  20200101000000  C\n0044174  20200101000000  D\n");
    std::string const missing = folder.file("missing");
    EXPECT_EQ(update({{"AdditionalNumPortData", missing}, {"PrintData", folder.file("not printed")}}), "false handled");
    EXPECT_EQ(journal.take(),
              (Entries{"INF_ADD_DATA(1): NP", "ERR_FILE_NOT_FOUND(4): " + missing, "EVT::ADD_NUM_PORT_DATA_FAILED"}));
    EXPECT_FALSE(std::filesystem::exists(folder.file("not printed")));
    EXPECT_TRUE(plugIn->isUsable());
}

TEST_F(Update, Prints) {
    createInitialised();
    std::string const out = folder.file("out");
    EXPECT_EQ(update({{"PrintData", out}}), "true handled");
    testing::internal::CaptureStdout();
    EXPECT_EQ(update({{"PrintData", ""}}), "true handled");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), contentOf(out));
    EXPECT_TRUE(journal.take().empty());
    EXPECT_EQ(update({{"PrintData", folder.path().string()}}), "true handled");
    EXPECT_EQ(journal.take().size(), 1U) << "the writer says why";
}

TEST_F(Probe, Reloads) {
    createInitialised();
    folder.write("main", "0172 20200101000000 C\n");
    for (char const* value : {"TRUE", "false", "False", "", "yes", "false "}) {
        EXPECT_TRUE(probe("reload", value));
        EXPECT_EQ(journal.take(4), (Entries{"INF_FILE_OPENED(1): " + file, "INF_DELETE_OLD_DATA(1): NP",
                                            "INF_NUM_NPORT_RELOADED(1): 1", "EVT::RELOAD_SUCCESSFUL"}));
    }
    folder.write("main", "");
    Entries const failed{"INF_FILE_OPENED(1): " + file, "ERR_NUM_PORT_RELOAD(4): " + file, "EVT::RELOAD_FAILED"};
    for (char const* value : {"FALSE", "fAlSe"}) {
        EXPECT_TRUE(probe("reload", value));
        EXPECT_EQ(journal.take(3), failed);
        EXPECT_EQ(answer("0044172"), "C");
        EXPECT_TRUE(plugIn->isUsable());
    }
    std::filesystem::remove(file);
    EXPECT_TRUE(probe("reload", "TRUE"));
    EXPECT_EQ(journal.take(3),
              (Entries{"ERR_FILE_NOT_FOUND(4): " + file, "ERR_NUM_PORT_RELOAD(4): " + file, "EVT::RELOAD_FAILED"}));
    EXPECT_FALSE(plugIn->isUsable()) << "the file check said so";
    folder.write("main", "0172 20200101000000 C\n");
    EXPECT_TRUE(probe("reload", "false ")) << "not FALSE: with reuse";
    journal.take(4);
    folder.write("main", "bad\n");
    EXPECT_TRUE(probe("reload", "0"));
    EXPECT_EQ(journal.take(6).back(), "EVT::RELOAD_SUCCESSFUL");
    EXPECT_EQ(answer("0044172"), "-");
}

TEST_F(Probe, LoadsADelta) {
    createInitialised();
    std::string const added = folder.write("Delta", "0173 20200101000000 C\n0174 20200101000000 D\n0175 1 X\n");
    EXPECT_TRUE(probe("deltaLoad", added));
    Entries const made = journal.take(5);
    EXPECT_EQ(made[3], "INF_NUM_NPORT_ADDED(1): 2 : " + added);
    EXPECT_EQ(made[4], "EVT::ADD_NUM_PORT_DATA_SUCCESSFUL");
    folder.write("Delta", "");
    EXPECT_TRUE(probe("deltaLoad", added));
    EXPECT_EQ(journal.take(2), (Entries{"INF_FILE_OPENED(1): " + added, "EVT::ADD_NUM_PORT_DATA_SUCCESSFUL"}));
    std::string const pipe = folder.file("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    for (std::string const& bad : {folder.file("missing"), folder.path().string(), pipe}) {
        EXPECT_TRUE(probe("deltaLoad", bad));
        EXPECT_EQ(journal.take(3), (Entries{"ERR_FILE_NOT_FOUND(4): " + bad, "ERR_NUM_PORT_DELTALOAD(4): " + bad,
                                            "EVT::ADD_NUM_PORT_DATA_FAILED"}));
    }
    EXPECT_EQ(answer("0044174"), "D");
}

TEST_F(Probe, Prints) {
    createInitialised();
    std::string const out = folder.file("Out.txt");
    EXPECT_TRUE(probe("printData", out));
    EXPECT_EQ(journal.take(1), Entries{"INF_NUM_PORT_PRINT_DATA(1): 2, File : " + out});
    testing::internal::CaptureStdout();
    for (char const* value : {"NULL", "null", "Null", ""}) {
        EXPECT_TRUE(probe("printData", value));
        EXPECT_EQ(journal.take(1), Entries{"INF_NUM_PORT_PRINT_DATA(1): 2, Console"});
    }
    std::string const text = contentOf(out);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), text + text + text + text);
}

// The worker is held inside an action by the report that it makes there.
TEST_F(Probe, CarriesOutTheLatestOfSeveralRequestsInOneFurtherPass) {
    createInitialised();
    std::atomic<bool> posted{false};
    journal.hook([&](std::string const& entry) {
        if (entry == "INF_DELETE_OLD_DATA(1): NP" && !posted.exchange(true)) {
            probe("reload", "");
            probe("deltaLoad", "nothing of the kind");
            probe("printData", folder.file("out"));
        }
    });
    EXPECT_TRUE(probe("reload", ""));
    EXPECT_EQ(journal.take(5),
              (Entries{"INF_FILE_OPENED(1): " + file, "INF_DELETE_OLD_DATA(1): NP", "INF_NUM_NPORT_RELOADED(1): 2",
                       "EVT::RELOAD_SUCCESSFUL", "INF_NUM_PORT_PRINT_DATA(1): 2, File : " + folder.file("out")}));
    EXPECT_TRUE(plugIn->shutdown());
    EXPECT_TRUE(journal.take().empty());
    journal.hook(nullptr);
}

// Each request once by the worker and once by the calling thread, which tells the outcome.
TEST_F(Probe, IsCarriedOutByTheCallingThreadAsByTheWorker) {
    struct Case {
        char const* probe;
        PlugIn::ProbeMode mode;
        std::string value, lines; // of the main file
        std::size_t entries;
        bool succeeds;
    };
    std::string const good = "0171 20200101000000 A\n";
    createInitialised();
    for (Case const& c :
         {Case{"reload", PlugIn::RELOAD_PROBE, "false", good, 4, true},
          Case{"reload", PlugIn::RELOAD_PROBE, "FALSE", "", 3, false},
          Case{"deltaLoad", PlugIn::DELTA_LOAD_PROBE, folder.write("delta", "0172 20200101000000 B\n"), good, 3, true},
          Case{"deltaLoad", PlugIn::DELTA_LOAD_PROBE, folder.file("missing"), "", 3, false},
          Case{"printData", PlugIn::PRINT_DATA_PROBE, folder.file("out"), good, 1, true}}) {
        SCOPED_TRACE(c.probe + std::string(" ") + c.value);
        auto const setUp = [&] {
            folder.write("main", good);
            EXPECT_EQ(update({{"Reload", ""}}), "true handled");
            folder.write("main", c.lines);
            journal.take();
        };
        setUp();
        EXPECT_EQ(carryOut(c.mode, c.value), c.succeeds);
        Entries const byCaller = journal.take();
        setUp();
        EXPECT_EQ(byCaller.size(), c.entries);
        EXPECT_TRUE(probe(c.probe, c.value));
        EXPECT_EQ(journal.take(c.entries), byCaller);
    }
}

TEST_F(Probe, CarriesNothingOutOnceLoadsAreStopped) {
    createInitialised();
    int seen = 0;
    BAS::DateTime liveSince;
    EXPECT_FALSE(
        operationsM->visitUpcoming(object(), BAS::DateTime("20190101000000"), liveSince, [&](auto const&, auto const&) {
            ++seen;
            stopLoads();
        }));
    EXPECT_EQ(seen, 1);
    EXPECT_EQ(journal.take(), Entries());
    EXPECT_FALSE(carryOut(PlugIn::RELOAD_PROBE, ""));
    EXPECT_EQ(journal.take(),
              (Entries{"ERR_LOADS_STOPPED(4): " + file, "ERR_NUM_PORT_RELOAD(4): " + file, "EVT::RELOAD_FAILED"}));
    EXPECT_EQ(answer("0044171"), "A");
    create();
    stopLoads();
    journal.take();
    EXPECT_FALSE(plugIn->init());
    EXPECT_EQ(journal.take(), (Entries{"INF_LOAD_DATA(1): NP", "ERR_LOADS_STOPPED(4): " + file}));
}

// The worker is held between its way through the gate and its taking of the request.
TEST_F(Probe, CarriesOutARequestOnceThatComesBeforeThePassBeforeHasTakenItsOwn) {
    createInitialised();
    std::atomic<pid_t> worker{0};
    BAS::Thread* thread = nullptr;
    journal.hook([&](std::string const& entry) {
        if (entry != "EVT::RELOAD_SUCCESSFUL" || worker != 0)
            return;
        thread = BAS::Thread::current();
        thread->interrupt();
        probe("printData", "never taken");
        worker = gettid();
    });
    probe("reload", "");
    while (worker == 0)
        std::this_thread::yield();
    waitUntilAsleep(worker);
    journal.hook(nullptr);
    journal.take();
    probe("printData", folder.file("out"));
    thread->resume();
    Entries const printed{"INF_NUM_PORT_PRINT_DATA(1): 2, File : " + folder.file("out")};
    EXPECT_EQ(journal.take(1), printed);
    waitUntilAsleep(worker);
    EXPECT_EQ(journal.take(), Entries()) << "twice";
}

TEST_F(Probe, StopsAWorkerThatWritesToAPipeNobodyEmpties) {
    folder.write("main", numberedLines(20'000, "0171", 0, " 20200101000000 A"));
    createInitialised();
    std::string const pipe = folder.file("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    int const reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK);
    EXPECT_TRUE(probe("printData", pipe));
    char byte = 0;
    while (read(reader, &byte, 1) != 1) // until the worker is writing
        std::this_thread::yield();
    EXPECT_EQ(answer("00441711"), "A") << "look-ups do not wait for the print";
    EXPECT_TRUE(plugIn->shutdown());
    close(reader);
}

// Updates, probes, prints, counts and look-ups at once: every load's reports stand together, and nothing is lost.
TEST_F(LifeCycle, ServesEveryoneAtOnce) {
    createInitialised();
    folder.write("delta", "0173 20200101000000 C\n");
    std::atomic<bool> stop{false};
    std::atomic<long> wrong{0};
    std::vector<std::jthread> threads;
    for (int i = 0; i < 2; ++i)
        threads.emplace_back([&] {
            while (!stop)
                if (answer("0044171") != "A" || !plugIn->isUsable())
                    ++wrong;
        });
    threads.emplace_back([&] {
        char const* const probes[][2] = {{"reload", "FALSE"}, {"deltaLoad", "delta"}, {"printData", "out"}};
        for (int i = 0; !stop; ++i)
            probe(probes[i % 3][0], i % 3 == 0 ? "FALSE" : folder.file(probes[i % 3][1]));
    });
    for (int i = 0; i < 60; ++i) {
        EXPECT_EQ(update({{"Reload", ""}, {"PrintData", folder.file("printed")}}), "true handled");
        EXPECT_EQ(update({{"AdditionalNumPortData", folder.file("delta")}}), "true handled");
    }
    stop = true;
    threads.clear(); // joined
    EXPECT_TRUE(plugIn->shutdown());
    EXPECT_EQ(wrong, 0);
    Entries const entries = journal.take();
    for (std::size_t i = 0; i < entries.size(); ++i)
        if (entries[i] == "INF_RELOAD_DATA(1): NP") { // prints and events may fall between, loads may not
            Entries block;
            for (std::size_t j = i; block.size() < 5 && j < entries.size(); ++j)
                if (!entries[j].starts_with("INF_NUM_PORT_PRINT") && !entries[j].starts_with("EVT::"))
                    block.push_back(entries[j]);
            EXPECT_EQ(block.back().substr(0, 22), "INF_NUM_NPORT_RELOADED");
        }
    EXPECT_TRUE(contentOf(file).ends_with("0044173  20200101000000  C\n"));
}

TEST_F(LifeCycle, MemoryDoesNotGrowFromReloadToReload) {
    folder.write("main", numberedLines(500, "0171", 0, " 20200101000000 A-LONG-NETWORK-IDENTIFIER"));
    createInitialised();
    auto const residentPages = [] {
        std::ifstream statm("/proc/self/statm");
        long size = 0;
        long resident = 0;
        statm >> size >> resident;
        return resident;
    };
    auto const reload = [&] { EXPECT_EQ(update({{"Reload", ""}}), "true handled"); };
    for (int i = 0; i < 20; ++i)
        reload();
    journal.take();
    long const before = residentPages();
    for (int i = 0; i < 200; ++i) {
        reload();
        journal.take();
    }
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !defined(__clang__)
    EXPECT_LT(residentPages() - before, 256) << "a reload that kept its data would add some 10,000 pages";
#else
    static_cast<void>(before); // the sanitizers keep freed memory back; they find leaks themselves
#endif
}
