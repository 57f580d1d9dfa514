// The control socket's limits, by a clock that the test turns.
#include "host/daemon/ControlProtocol.h"
#include "host/net/LineServer.h"
#include "tests/DaemonSite.h"

#include <sys/resource.h>

namespace {

using namespace std::chrono_literals;

constexpr nphost::LineServer::Limits limitsCM; // those of the control socket

// A server whose loop the test runs by hand.
class Loop : private nphost::LineServer::Handler {
  public:
    Loop() : socketM(folderM.file("s")), serverM(socketM, *this, limitsCM, [this] { return now; }) {}

    // True when something happened.
    bool once() {
        std::vector<pollfd> polled;
        serverM.collect(polled);
        bool const busy = poll(polled.data(), polled.size(), 0) > 0 || serverM.patience() == 0ms;
        serverM.serve(polled);
        return busy;
    }
    // Until nothing happens any more.
    void turn() {
        while (once()) {
        }
    }
    std::size_t polled() const {
        std::vector<pollfd> polled;
        serverM.collect(polled);
        return polled.size();
    }
    std::string name() const { return folderM.file("s"); }
    std::unique_ptr<RawClient> connect(std::string const& request = {}) {
        auto client = std::make_unique<RawClient>(folderM.file("s"));
        turn();
        if (!request.empty())
            say(*client, request);
        return client;
    }
    void say(RawClient const& client, std::string const& text) {
        EXPECT_TRUE(client.send(text, MSG_DONTWAIT));
        turn();
    }
    // A line for the latest client that asked.
    void tell(std::string const& line, bool more) {
        serverM.send(latestM, line, more);
        turn();
    }
    bool isThere() const { return serverM.has(latestM); }
    // What was noticed: opened, closed, turned away, slow requests, slow readers.
    std::string noticedOf() const {
        std::string text;
        for (int const count : noticedM)
            text += std::to_string(count) + " ";
        return text;
    }

    nphost::LineServer::Clock::time_point now;
    std::size_t bytes = 0; // of the latest request

  private:
    void request(nphost::LineServer::Client client, std::string_view line) override {
        latestM = client;
        bytes = line.size();
        if (line != "later")
            serverM.send(client, "answer\n", line == "follow");
    }

    std::string refusal(std::string const& reason) override { return nphost::errorLine(reason); }

    void noticed(nphost::LineServer::Event event) noexcept override { ++noticedM[static_cast<std::size_t>(event)]; }

    TemporaryFolder folderM;
    nphost::ListeningSocket socketM;
    nphost::LineServer serverM;
    nphost::LineServer::Client latestM = 0;
    std::array<int, 5> noticedM{};
};

TEST(ControlServerTest, TimeLimits) {
    struct Step {
        std::chrono::seconds after;
        char const* text;
    };
    struct Case {
        char const* label;
        std::vector<Step> steps;
        std::chrono::seconds then;
        char const* line; // that the client gets behind its answer; null: it is still there
    };
    for (Case const& test :
         {Case{"idle, not yet", {{0s, "a\n"}}, 600s, nullptr}, Case{"idle", {{0s, "a\n"}}, 601s, "<closed>"},
          Case{"idle from the last request on", {{0s, "a\n"}, {400s, "a\n"}}, 400s, nullptr},
          Case{"a follower may be silent", {{0s, "follow\n"}}, 10'000s, nullptr},
          Case{"who waits for an answer, too", {{0s, "later\n"}}, 10'000s, nullptr},
          Case{"half a request, not yet", {{0s, "a\nb"}}, 5s, nullptr},
          Case{"half a request", {{0s, "a\nb"}}, 6s, "not finished in time"},
          Case{"half a request of a follower", {{0s, "follow\nb"}}, 6s, "not finished in time"},
          Case{"byte by byte", {{0s, "a\nb"}, {3s, "c"}, {2s, "d"}}, 1s, "not finished in time"},
          Case{"byte by byte, in time", {{0s, "a\nb"}, {3s, "c"}, {2s, "\na\n"}}, 6s, nullptr}}) {
        SCOPED_TRACE(test.label);
        Loop loop;
        auto const client = loop.connect();
        for (Step const& step : test.steps) {
            loop.now += step.after;
            loop.turn();
            loop.say(*client, step.text);
        }
        loop.now += test.then;
        loop.turn();
        EXPECT_EQ(loop.isThere(), test.line == nullptr);
        std::string last = "answer";
        while (test.line != nullptr && last == "answer")
            last = client->line();
        EXPECT_TRUE(test.line == nullptr || contains(last, test.line)) << last;
        bool const slow = contains(last, "not finished in time");
        EXPECT_EQ(loop.noticedOf(), test.line == nullptr ? "1 0 0 0 0 " : slow ? "1 1 0 1 0 " : "1 1 0 0 0 ");
    }
}

TEST(ControlServerTest, UnreadLimits) {
    std::string const line(100'000, 'x');
    for (bool const follows : {true, false}) {
        Loop loop;
        auto const client = loop.connect(follows ? "follow\n" : "later\n");
        std::size_t told = 0;
        for (; told < 40 && loop.isThere(); ++told)
            loop.tell(line, follows);
        EXPECT_EQ(loop.isThere(), !follows) << "an answer may be as long as it is";
        EXPECT_GT(told * line.size(), limitsCM.mostUnreadBytes);
        loop.now += 6s;
        loop.turn();
        EXPECT_FALSE(loop.isThere()) << "it reads nothing";
        EXPECT_EQ(loop.noticedOf(), "1 1 0 0 1 ");
    }
}

TEST(ControlServerTest, TurnsAwayTheOneTooMany) {
    Loop loop;
    std::vector<std::unique_ptr<RawClient>> clients;
    for (std::size_t i = 0; i < limitsCM.mostClients; ++i) {
        clients.push_back(loop.connect("a\n"));
        EXPECT_EQ(clients.back()->line(), "answer") << i;
    }
    auto const late = loop.connect();
    EXPECT_TRUE(contains(late->line(), "too many clients"));
    EXPECT_EQ(late->line(), "<closed>");
    clients.pop_back();
    loop.turn();
    EXPECT_EQ(loop.connect("a\n")->line(), "answer");
    EXPECT_EQ(loop.noticedOf(), std::to_string(limitsCM.mostClients + 1) + " 1 1 0 0 ");
}

// While there is no descriptor for who wants to connect, the loop must wait and not turn.
TEST(ControlServerTest, PausesWithoutDescriptors) {
    Loop loop;
    loop.once(); // a sanitizer looks at a type when it is first met, and needs descriptors for that
    RawClient client(loop.name());
    client.send("a\n");
    rlimit before = {};
    getrlimit(RLIMIT_NOFILE, &before);
    int const next = dup(STDIN_FILENO);
    close(next);
    rlimit const none = {static_cast<rlim_t>(next), before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    loop.once();
    std::size_t const polled = loop.polled();
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(polled, 0U);
    loop.once(); // when its time has come
    loop.turn();
    EXPECT_EQ(client.line(), "answer");
}

TEST(ControlServerTest, RequestsUpToTheBound) {
    for (std::size_t const bytes : {limitsCM.mostRequestBytes, limitsCM.mostRequestBytes + 1})
        for (bool const ended : {true, false}) {
            Loop loop;
            bool const fits = bytes <= limitsCM.mostRequestBytes;
            auto const client = loop.connect(std::string(bytes - 1, ' ') + (ended ? "\n" : ""));
            EXPECT_EQ(loop.bytes, fits && ended ? bytes - 1 : 0) << bytes;
            if (fits && !ended)
                loop.say(*client, "\n"); // its last byte comes late
            EXPECT_TRUE(contains(client->line(), fits ? "answer" : "longer than 65536")) << bytes;
        }
}

} // namespace
