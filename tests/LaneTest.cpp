// The daemon's loads and listings when memory runs out, when a stop comes, and as the service manager sees them.
#include "host/service/LoadLane.h"
#include "tests/DaemonSite.h"
#include "tests/Refusal.h"

#include <cstdlib>
#include <new>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>

namespace {

std::string requestOf(std::string const& command, std::string const& more = {}) {
    return R"({"version":1,"command":")" + command + "\"" + (more.empty() ? "" : "," + more) + "}\n";
}

// A named pipe that somebody could read, but nobody does.
class UnreadPipe {
  public:
    explicit UnreadPipe(std::string const& name) {
        mkfifo(name.c_str(), 0600);
        readerM = open(name.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    }
    UnreadPipe(UnreadPipe const&) = delete;
    UnreadPipe& operator=(UnreadPipe const&) = delete;
    ~UnreadPipe() { close(readerM); }

    bool hasText() const {
        pollfd ready = {readerM, POLLIN, 0};
        return poll(&ready, 1, 0) == 1;
    }
    void drainUntil(std::function<bool()> const& condition) const {
        std::array<char, 65536> block;
        EXPECT_TRUE(eventually([&] {
            while (read(readerM, block.data(), block.size()) > 0) {
            }
            return condition();
        }));
    }

  private:
    int readerM;
};

// A daemon whose allocations are refused as the test wants.
class StarvingSite : public Site {
  public:
    explicit StarvingSite(std::string const& content = dataCM)
        : Site(content, "networks = \"networks.toml\"\n[host.guard]\nminRecords = 1\n") {
        folder.write("networks.toml", "[BRAVO]\nname = \"a name of more than fifteen letters\"\n");
        std::string const file = folder.write("refusal", std::string(sizeof(Refusal), '\0'));
        int const descriptor = open(file.c_str(), O_RDWR | O_CLOEXEC);
        refusal = new (mmap(nullptr, sizeof(Refusal), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0)) Refusal;
        close(descriptor);
        setenv(Refusal::variableCM, file.c_str(), 1);   // NOLINT(concurrency-mt-unsafe): no other thread is there
        setenv("LD_PRELOAD", NP_REFUSING_ALLOCATOR, 1); // NOLINT(concurrency-mt-unsafe): no other thread is there
        start({"--log-format", "json"});                // whose lines are the harder ones to make
        unsetenv("LD_PRELOAD");                         // NOLINT(concurrency-mt-unsafe): no other thread is there
    }
    ~StarvingSite() { munmap(refusal, sizeof(Refusal)); }

    RawClient& client() {
        if (!clientM || !clientM->connected() || clientM->isDropped())
            clientM = std::make_unique<RawClient>(socket());
        return *clientM;
    }
    // The answer; "<closed>" when the daemon lets the client go instead.
    std::string ask(std::string const& request) {
        client().send(request);
        std::string answer = client().line();
        if (answer.front() != '{')
            clientM.reset();
        return answer;
    }

    // From here on; until then, and afterwards, nothing is refused.
    void refuseAfter(long count, bool lasts) const {
        refusal->lasts = lasts;
        refusal->met = false;
        refusal->givenBack = 0;
        refusal->allowed = count;
    }
    void refuseNothing() const { refusal->allowed = -1; }

    Refusal* refusal;

  private:
    std::unique_ptr<RawClient> clientM;
};

class DaemonMemoryTest : public testing::TestWithParam<bool> {
  protected:
    // The answer to a request whose allocations are refused after so many; the next one finds the daemon in order.
    static std::string spoilt(StarvingSite& site, std::string const& request, long count, bool lasts) {
        site.refuseAfter(count, lasts);
        std::string answer = site.ask(request);
        site.refuseNothing();
        EXPECT_TRUE(answer == "<closed>" || Json::accept(answer)) << answer;
        EXPECT_FALSE(site.daemon->status()) << site.log();
        if (HasFailure() || !site.refusal->met)
            return answer;
        std::string const next = site.ask(requestOf("reload"));
        EXPECT_TRUE(contains(next, "\"succeeded\":true")) << answer << next << site.log();
        EXPECT_TRUE(
            contains(site.ask(requestOf("lookup", R"("at":"20240101000000","numbers":["00447700900123"])")), "BRAVO"));
        return answer;
    }
};

struct Spoilt {
    std::string request; // '@' is the folder
    long step;
};

constexpr long oftenCM = 3;
constexpr long seldomCM = 11; // what the lane has no part in

std::vector<Spoilt> const spoiltCM = {{requestOf("reload"), oftenCM},
                                      {requestOf("delta", R"("file":"@delta")"), oftenCM},
                                      {requestOf("print", R"("file":"@listing")"), oftenCM},
                                      {requestOf("update", R"("keys":{"Reload":"TRUE"})"), oftenCM},
                                      {requestOf("update", R"("keys":{"AdditionalNumPortData":"@delta"})"), oftenCM},
                                      {requestOf("update", R"("keys":{"PrintData":"@listing"})"), oftenCM},
                                      {requestOf("status"), seldomCM},
                                      {requestOf("probes"), seldomCM},
                                      {requestOf("log"), seldomCM},
                                      {requestOf("lookup", R"("numbers":["00447700900123"])"), seldomCM},
                                      {requestOf("explain", R"("number":"00447700900123")"), seldomCM}};

// Each allocation from a request to its answer is refused in turn, alone or with all that follow. Whatever fails, the
// client hears of it, and the daemon serves on.
TEST_P(DaemonMemoryTest, RefusedAllocationsSpoilOneRequestAtMost) {
#ifdef NP_SANITIZED
    GTEST_SKIP() << "sanitizers bring their own allocator";
#endif
    StarvingSite site;
    site.folder.write("delta", "0033 20200101000000 ECHO\n");
    for (Spoilt const& test : spoiltCM) {
        std::string const request = replaced(test.request, "@", site.folder.file(""));
        site.client();
        long count = -test.step;
        do {
            count += test.step;
            SCOPED_TRACE(request + " after " + std::to_string(count) + " allocations");
            std::string const answer = spoilt(site, request, count, GetParam());
            ASSERT_FALSE(HasFailure());
            EXPECT_TRUE(site.refusal->met || contains(answer, "\"ok\":true")) << answer;
        } while (site.refusal->met);
        EXPECT_GT(count, 10) << request;
    }
    EXPECT_FALSE(contains(site.log(), "\"42949672")) << "less than none was added";
    EXPECT_EQ(site.stop(), 0) << site.log();
}

INSTANTIATE_TEST_SUITE_P(Refusing, DaemonMemoryTest, testing::Bool(),
                         [](auto const& mode) { return mode.param ? "AllFromThenOn" : "One"; });

// A network whose name is longer than all memory that is left, while the answer that there is none would fit.
TEST(DaemonMemoryTest, WhatMemoryDoesNotSufficeForIsNotNotFound) {
#ifdef NP_SANITIZED
    GTEST_SKIP() << "sanitizers bring their own allocator";
#endif
    StarvingSite site("00441 20200101000000 " + std::string(700'000, 'N') + "\n");
    for (std::string const& request :
         {requestOf("lookup", R"("numbers":["00441"])"), requestOf("explain", R"("number":"00441")")})
        for (long count = 0; count == 0 || site.refusal->met; count += 4) {
            site.client();
            site.refuseAfter(count, true);
            std::string const answer = site.ask(request);
            site.refuseNothing();
            ASSERT_FALSE(contains(answer, "\"found\":false")) << answer << "\nafter " << count << " allocations";
            ASSERT_FALSE(site.daemon->status()) << site.log();
        }
    EXPECT_EQ(site.stop(), 0) << site.log();
}

// A hang-up whose reload memory does not suffice for at first is not forgotten, nor is the service manager.
TEST(DaemonMemoryTest, NoHangUpIsForgotten) {
#ifdef NP_SANITIZED
    GTEST_SKIP() << "sanitizers bring their own allocator";
#endif
    TemporaryFolder const folder;
    ServiceManager manager(folder.file("notify"));
    setenv("NOTIFY_SOCKET", manager.name().c_str(), 1); // NOLINT(concurrency-mt-unsafe): no other thread is there
    StarvingSite site;
    unsetenv("NOTIFY_SOCKET"); // NOLINT(concurrency-mt-unsafe): no other thread is there
    EXPECT_TRUE(manager.next().starts_with("READY=1\n"));
    for (long count = 0; count < 60; ++count) {
        SCOPED_TRACE(count);
        site.refuseAfter(count, true);
        site.daemon->signal(SIGHUP);
        ASSERT_TRUE(eventually([&] { return site.refusal->met.load(); })) << count;
        site.refuseNothing();
        std::string message = manager.next();
        for (; message.starts_with("RELOADING=1\n"); message = manager.next()) {
        }
        ASSERT_TRUE(message.starts_with("READY=1\n")) << message << site.log();
    }
    EXPECT_EQ(site.stop(), 0) << site.log();
}

struct BrokenOff {
    char const* label;
    bool large; // the data file is, or comes to be
    char const* more;
    std::string request; // none: it happens at the start
    char const* sign;    // of the status, or of the log at the start: it has come so far
    char const* never;   // in the log
};

constexpr char const* guardedCM = "[host.guard]\nmaxRejectedPercent = 50\n";

std::vector<BrokenOff> const brokenOffCM = {
    {"first load", true, "", "", "INF_FILE_OPENED", "INF_NUM_NPORT_LOADED"},
    {"first check", true, guardedCM, "", "INF_FILE_OPENED", "INF_LOAD_DATA"},
    {"reload", true, "", requestOf("reload"), "\"loading\":true", "EVT::RELOAD_SUCCESSFUL"},
    {"reload by update", true, "", requestOf("update", R"("keys":{"Reload":"TRUE"})"), "\"loading\":true",
     "EVT::RELOAD_SUCCESSFUL"},
    {"check of a reload", true, guardedCM, requestOf("reload"), "\"checking\":{", "INF_HOST_GUARD_PASSED \"r"},
    {"delta", false, "", requestOf("delta", R"("force":true,"file":"@large")"), "\"loading\":true",
     "EVT::ADD_NUM_PORT_DATA_SUCCESSFUL"}};

// Broken off are loads and checks, at whatever they are; nothing is left behind, nothing half is live.
TEST(DaemonStopTest, BreaksOffWhatTakesLong) {
    std::string const large = records(1'000'000);
    for (BrokenOff const& test : brokenOffCM) {
        SCOPED_TRACE(test.label);
        Site site(dataCM, test.more);
        std::string const other = site.folder.write("large", large);
        bool const atStart = test.request.empty();
        if (!atStart)
            site.start();
        if (test.large)
            std::filesystem::rename(other, site.data);
        if (atStart) {
            site.launch();
            ASSERT_TRUE(eventually([&] { return contains(site.log(), test.sign); }));
        } else {
            RawClient const client(site.socket());
            client.send(replaced(test.request, "@", site.folder.file("")));
            RawClient watcher(site.socket());
            ASSERT_TRUE(eventually([&] {
                watcher.send(requestOf("status"));
                return contains(watcher.line(), test.sign);
            }));
        }
        EXPECT_EQ(site.stop(), 0);
        EXPECT_TRUE(contains(site.log(), "ERR_LOADS_STOPPED") && contains(site.log(), "INF_HOST_STOPPING"))
            << site.log();
        EXPECT_FALSE(contains(site.log(), test.never)) << site.log();
        EXPECT_FALSE(std::filesystem::exists(site.socket()));
        for (auto const& entry : std::filesystem::directory_iterator(site.folder.path()))
            EXPECT_NE(entry.path().extension(), ".tmp") << entry.path();
    }
}

TEST(DaemonStopTest, WaitsForNoReaderOfAListing) {
    struct Case {
        char const* label;
        std::string request;
    };
    for (Case const& test : {Case{"a pipe", requestOf("print", R"("file":"PIPE")")},
                             Case{"a pipe, by update", requestOf("update", R"("keys":{"PrintData":"PIPE"})")},
                             Case{"standard output", requestOf("print")},
                             Case{"standard output, by name", requestOf("print", R"("file":"/dev/stdout")")},
                             Case{"standard output, by update", requestOf("update", R"("keys":{"PrintData":""})")}}) {
        SCOPED_TRACE(test.label);
        Site site(records(15'000));
        UnreadPipe const output(site.folder.file("out")); // the daemon's
        UnreadPipe const pipe(site.folder.file("pipe"));
        site.start();
        std::string request = test.request;
        bool const named = contains(request, "PIPE");
        if (named)
            request.replace(request.find("PIPE"), 4, site.folder.file("pipe"));
        RawClient client(site.socket());
        client.send(request);
        ASSERT_TRUE(eventually([&] { return (named ? pipe : output).hasText(); }));
        RawClient const waiting(site.socket()); // behind it
        waiting.send(requestOf("reload"));
        EXPECT_EQ(site.stop(), 0) << site.log();
        EXPECT_TRUE(contains(client.line(), "\"succeeded\":false")) << "who waits for it hears how it ended";
        EXPECT_FALSE(contains(site.log(), "EVT::RELOAD")) << site.log();
    }
}

TEST(DaemonStopTest, SurvivesLimitsThatAreLowered) {
    Site site;
    site.start();
    std::string const listing = site.folder.file("listing");
    RawClient client(site.socket());
    rlimit const small = {10, RLIM_INFINITY};
    rlimit before = {};
    pid_t const process = site.status().at("process");
    ASSERT_EQ(prlimit(process, RLIMIT_NOFILE, nullptr, &before), 0);
    rlimit const fewer = {3, before.rlim_max}; // than are open: poll refuses
    ASSERT_EQ(prlimit(process, RLIMIT_FSIZE, &small, nullptr), 0);
    expectResult(site.ctl({"print", listing, "--wait"}), 1, "ERR_WRITE_FILE", "print");
    EXPECT_FALSE(std::filesystem::exists(listing));
    expectResult(site.ctl({"print", "--wait"}), 1, "writing Console failed", "print to standard output");
    EXPECT_EQ(site.ctl({"reload", "--wait"}).status, 0);
    ASSERT_EQ(prlimit(process, RLIMIT_NOFILE, &fewer, nullptr), 0);
    ASSERT_TRUE(client.send(requestOf("status")));
    EXPECT_TRUE(contains(client.line(), "\"usable\":true"));
    ASSERT_EQ(prlimit(process, RLIMIT_NOFILE, &before, nullptr), 0); // a sanitizer needs some at the end
    EXPECT_EQ(site.stop(), 0);
}

// READY comes when the reload of the hang-up is over, not when what was before it is, however much that is; and a
// hang-up during a reload is one for the file that is there by then.
TEST(DaemonServiceTest, ReadyWaitsForTheReloadThatWasAskedFor) {
    TemporaryFolder const folder;
    ServiceManager manager(folder.file("notify"));
    Site site(records(15'000));
    UnreadPipe const pipe(site.folder.file("pipe"));
    site.start({}, manager.name());
    EXPECT_TRUE(manager.next().starts_with("READY=1\n"));
    RawClient client(site.socket());
    client.send(requestOf("print", "\"wait\":false,\"file\":\"" + site.folder.file("pipe") + "\""));
    EXPECT_TRUE(contains(client.line(), "queued"));
    ASSERT_TRUE(eventually([&] { return pipe.hasText(); }));
    for (std::size_t i = 0; i <= nphost::LoadLane::mostWaitingCM; ++i) {
        client.send(requestOf("print", R"("wait":false,"file":"/dev/null")"));
        bool const isTooMuch = i == nphost::LoadLane::mostWaitingCM;
        EXPECT_TRUE(contains(client.line(), isTooMuch ? "too many requests are waiting" : "queued")) << i;
    }
    site.folder.write("data.dat", records(100'000));
    site.daemon->signal(SIGHUP);
    EXPECT_TRUE(manager.next().starts_with("RELOADING=1\n"));
    pipe.drainUntil([&] { return contains(site.log(), "INF_NUM_PORT_PRINT_DATA"); });
    std::string const ready = manager.next();
    EXPECT_TRUE(ready.starts_with("READY=1\nSTATUS=100000 records")) << ready;

    std::string const next = site.folder.write("next", records(5));
    site.daemon->signal(SIGHUP);
    ASSERT_TRUE(eventually([&] {
        client.send(requestOf("status"));
        return contains(client.line(), "\"loading\":true");
    }));
    std::filesystem::rename(next, site.data);
    site.daemon->signal(SIGHUP);
    std::string message = manager.next();
    while (message.front() != '<' && !message.starts_with("READY=1\nSTATUS=5 records"))
        message = manager.next();
    EXPECT_NE(message, "<nothing>");
    EXPECT_EQ(site.stop(), 0);
}

} // namespace
