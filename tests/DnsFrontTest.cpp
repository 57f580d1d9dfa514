// The daemon as clients of DNS meet it: its sockets, connections and their limits, and its stop. What questions are
// answered with stands in EnumTest.cpp.
#include "host/dns/ResponseRates.h"
#include "tests/DaemonSite.h"

#include <arpa/inet.h>
#include <atomic>
#include <netinet/in.h>
#include <netinet/tcp.h>

namespace {

using namespace std::chrono_literals;

constexpr char const* apexCM = "[[enum.apex]]\nname = \"e164.example.\"\n";

// A question for the records of a number, BRAVO's 447700900123 among them.
std::string question(unsigned id, std::string const& digits = "447700900123") {
    std::string packet = {static_cast<char>(id >> 8), static_cast<char>(id), 0, 0, 0, 1, 0, 0, 0, 0, 0, 0};
    for (auto digit = digits.rbegin(); digit != digits.rend(); ++digit)
        packet += {1, *digit};
    return packet + "\4e164\7example" + std::string(1, '\0') + std::string({0, 35, 0, 1});
}
std::string framed(std::string const& message) {
    return std::string({static_cast<char>(message.size() >> 8), static_cast<char>(message.size())}) + message;
}
unsigned idOf(std::string const& message) {
    return message.size() < 12 ? 0
                               : static_cast<unsigned>(static_cast<unsigned char>(message[0])) << 8 |
                                     static_cast<unsigned char>(message[1]);
}
unsigned rcodeOf(std::string const& message) {
    return message.size() < 12 ? 99 : static_cast<unsigned>(message[3]) & 15U;
}
bool isBravos(std::string const& message) {
    return contains(message, "!^.*$!tel:+447700900123;npdi!");
}

// A socket of IPv4, or of IPv6 where the address has a colon.
class DnsClient {
  public:
    DnsClient(int type, std::string const& address, std::uint16_t port, bool bounded = true) {
        sockaddr_in four = {};
        sockaddr_in6 six = {};
        bool const isSix = contains(address, ":");
        four.sin_family = AF_INET;
        six.sin6_family = AF_INET6;
        four.sin_port = six.sin6_port = htons(port);
        inet_pton(AF_INET, address.c_str(), &four.sin_addr);
        inet_pton(AF_INET6, address.c_str(), &six.sin6_addr);
        descriptorM = socket(isSix ? AF_INET6 : AF_INET, type | SOCK_CLOEXEC, 0);
        int const bytes = 4096;
        if (bounded) // so that a reader that does not read is soon noticed
            setsockopt(descriptorM, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
        auto const* const to =
            isSix ? reinterpret_cast<sockaddr const*>(&six) : reinterpret_cast<sockaddr const*>(&four);
        connectedM = connect(descriptorM, to, isSix ? sizeof six : sizeof four) == 0;
    }
    DnsClient(DnsClient const&) = delete;
    DnsClient& operator=(DnsClient const&) = delete;
    ~DnsClient() { close(descriptorM); }

    bool connected() const { return connectedM; }
    int descriptor() const { return descriptorM; }
    bool send(std::string const& bytes, int flags = 0) const {
        return ::send(descriptorM, bytes.data(), bytes.size(), flags | MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    // What comes next; empty at the end, or when nothing does.
    std::string receive(std::chrono::milliseconds patience = patienceCM) const {
        pollfd ready = {descriptorM, POLLIN, 0};
        std::array<char, 65536> block;
        if (poll(&ready, 1, static_cast<int>(patience.count())) != 1)
            return {};
        ssize_t const count = recv(descriptorM, block.data(), block.size(), 0);
        return {block.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
    }
    // The next message of a connection; empty at its end.
    std::string message() {
        for (;;) {
            if (inputM.size() >= 2) {
                std::size_t const length =
                    std::size_t{static_cast<unsigned char>(inputM[0])} << 8 | static_cast<unsigned char>(inputM[1]);
                if (inputM.size() >= 2 + length) {
                    std::string message = inputM.substr(2, length);
                    inputM.erase(0, 2 + length);
                    return message;
                }
            }
            std::string const more = receive();
            if (more.empty())
                return {};
            inputM += more;
        }
    }
    // Whether the other end closes; what it sends before is passed over.
    bool ends() const {
        while (!receive().empty()) {
        }
        pollfd state = {descriptorM, POLLIN, 0};
        return poll(&state, 1, 0) == 1;
    }

  private:
    int descriptorM;
    bool connectedM = false;
    std::string inputM;
};

class DnsSite : public Site {
  public:
    explicit DnsSite(std::string const& more = {}, std::string const& listen = "\"127.0.0.1:0\"",
                     std::string const& records = dataCM)
        : Site(records, "[enum]\nlisten = [" + listen + "]\n" + more + apexCM) {}

    void start() {
        Site::start();
        port = portOf("INF_HOST_ENUM \"127.0.0.1:");
    }
    std::uint16_t portOf(std::string const& text) const {
        std::string const lines = log();
        std::size_t const at = lines.find(text);
        return static_cast<std::uint16_t>(at == std::string::npos ? 0 : std::stoi(lines.substr(at + text.size(), 5)));
    }
    std::unique_ptr<DnsClient> udp() const { return std::make_unique<DnsClient>(SOCK_DGRAM, "127.0.0.1", port); }
    std::unique_ptr<DnsClient> tcp() const { return std::make_unique<DnsClient>(SOCK_STREAM, "127.0.0.1", port); }
    // How many descriptors the daemon has.
    std::size_t descriptors() const {
        std::filesystem::directory_iterator const all("/proc/" + std::to_string(daemon->id()) + "/fd");
        return static_cast<std::size_t>(std::distance(begin(all), end(all)));
    }

    std::uint16_t port = 0;
};

} // namespace

TEST(DnsFrontTest, AnswersWhatTheToolsOfOthersAsk) {
    constexpr char const* name = "3.2.1.0.0.9.0.0.7.7.4.4.e164.example";
    struct Case {
        char const* command; // PORT and NAME are replaced
        std::vector<char const*> parts;
    };
    std::vector<Case> const cases = {
        {"dig @127.0.0.1 -p PORT NAME NAPTR",
         {"status: NOERROR", "flags: qr aa", "udp: 1232", "(good)",
          "NAPTR\t100 10 \"u\" \"E2U+pstn:tel\" \"!^.*$!tel:+447700900123;npdi!\" .", "(UDP)"}},
        {"dig @127.0.0.1 -p PORT +noedns NAME NAPTR", {"tel:+447700900123", "(UDP)"}},
        {"dig @127.0.0.1 -p PORT +tcp NAME NAPTR", {"tel:+447700900123", "(TCP)"}},
        {"dig @127.0.0.1 -p PORT +tcp +keepopen NAME NAPTR NAME ANY e164.example SOA", {"status: NOERROR", "SOA\t"}},
        {"dig @127.0.0.1 -p PORT 5.e164.example NAPTR", {"status: NOERROR", "ANSWER: 0"}},
        {"dig @127.0.0.1 -p PORT x.e164.example NAPTR", {"status: NXDOMAIN"}},
        {"dig @127.0.0.1 -p PORT example.org", {"status: REFUSED"}},
        {"dig @127.0.0.1 -p PORT e164.example AXFR", {"Transfer failed"}},
        {"dig @127.0.0.1 -p PORT +opcode=notify e164.example SOA", {"status: NOTIMP"}},
        {"dig @127.0.0.1 -p PORT +edns=1 +noednsnegotiation NAME NAPTR", {"status: BADVERS"}},
        {"kdig @127.0.0.1 -p PORT +edns NAME NAPTR", {"NOERROR", "tel:+447700900123", "(UDP)"}},
        {"kdig @127.0.0.1 -p PORT +tcp +keepopen NAME NAPTR e164.example NS", {"tel:+447700900123", "(TCP)", "NS\t"}},
    };
    DnsSite site("threads = 2\n");
    ASSERT_NO_FATAL_FAILURE(site.start());
    for (Case const& test : cases) {
        std::string const command = replaced(replaced(test.command, "PORT", std::to_string(site.port)), "NAME", name);
        std::string const output = site.folder.file("output");
        ASSERT_EQ(waitFor(spawn({"/bin/sh", "-c",
                                 std::string(command).append(" +timeout=10 >").append(output).append(" 2>&1")})) /
                      256,
                  0);
        for (char const* const part : test.parts)
            EXPECT_TRUE(contains(replaced(contentOf(output), " NAPTR ", "\tNAPTR\t"), part) ||
                        contains(contentOf(output), part))
                << command << "\nlacks " << part << "\n"
                << contentOf(output);
    }
}

// A client takes an answer only from where it has asked.
TEST(DnsFrontTest, AnswersFromTheAddressAsked) {
    DnsSite site("threads = 2\n", "\"127.0.0.1:0\", \"0.0.0.0:0\", \"[::]:0\", \"[::1]:0\"");
    ASSERT_NO_FATAL_FAILURE(site.start());
    struct {
        char const* listens;
        char const* asked;
    } const cases[] = {{"127.0.0.1", "127.0.0.1"},
                       {"0.0.0.0", "127.0.0.1"},
                       {"0.0.0.0", "127.1.2.3"},
                       {"[::]", "::1"},
                       {"[::1]", "::1"}};
    for (auto const& test : cases)
        for (int const type : {SOCK_DGRAM, SOCK_STREAM})
            for (unsigned id = 1; id <= 8; ++id) { // from other ports, so that each thread is met
                DnsClient client(type, test.asked, site.portOf(std::string("INF_HOST_ENUM \"") + test.listens + ":"));
                ASSERT_TRUE(client.connected()) << test.listens;
                client.send(type == SOCK_DGRAM ? question(id) : framed(question(id)));
                std::string const reply = type == SOCK_DGRAM ? client.receive() : client.message();
                EXPECT_TRUE(isBravos(reply) && idOf(reply) == id) << test.listens << " " << test.asked;
            }
}

TEST(DnsFrontTest, StartsOnlyWhereItCanBeAsked) {
    // One socket of another program's lets others use its address, too.
    int const other = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int const on = 1;
    setsockopt(other, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(bind(other, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    getsockname(other, reinterpret_cast<sockaddr*>(&address), &length);
    std::string const taken = "\"127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "\"";
    struct {
        std::string listen;
        char const* part;
    } const cases[] = {
        {"", "[enum] says nowhere to listen"},
        {"\"localhost:53\"", "[enum] 'localhost:53' is no place to listen on"},
        {"\"127.0.0.1\"", "is no place"},
        {"\"unix:dns\"", "is no place"},
        {"\"127.0.0.1:65536\"", "is no place"},
        {"\"192.0.2.1:0\"", "[enum] cannot listen on 192.0.2.1:0: "},
        {taken, "in use"},
    };
    for (auto const& test : cases) {
        DnsSite site("", test.listen);
        Result const result = runProgram(site.folder, {"run", "--config", site.configuration}, "run");
        EXPECT_EQ(result.status, 2) << test.listen << result.err;
        EXPECT_TRUE(contains(result.err, test.part)) << test.listen << result.err;
    }
    close(other);
}

// The service manager's sockets: what comes before there is a daemon waits for it.
TEST(DnsFrontTest, ServesThePassedSockets) {
    struct {
        std::vector<int> types;
        char const* names;
        char const* reason; // why it does not start; empty: it does
    } const cases[] = {{{SOCK_DGRAM, SOCK_STREAM}, "dns:dns", ""},
                       {{SOCK_STREAM, SOCK_DGRAM}, "dns:http", "passes no socket for UDP"},
                       {{SOCK_DGRAM}, "dns", "passes no socket for TCP"},
                       {{SOCK_SEQPACKET}, "dns", "neither of UDP nor listening by TCP"}};
    for (auto const& test : cases) {
        DnsSite site("threads = 2\n", "");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        std::vector<int> sockets;
        sockaddr_in6 address = {};
        address.sin6_family = AF_INET6; // and of IPv4, as the service manager's are
        int next = 13;
        std::string moves;
        for (int const type : test.types) {
            bool const isLocal = type == SOCK_SEQPACKET;
            sockets.push_back(socket(isLocal ? AF_UNIX : AF_INET6, type | SOCK_CLOEXEC, 0));
            socklen_t length = sizeof address;
            if (!isLocal) {
                ASSERT_EQ(bind(sockets.back(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
                getsockname(sockets.back(), reinterpret_cast<sockaddr*>(&address), &length);
            }
            if (type == SOCK_STREAM)
                listen(sockets.back(), 5);
            posix_spawn_file_actions_adddup2(&actions, sockets.back(), next);
            moves += std::to_string(next - 10) + "<&" + std::to_string(next) + " " + std::to_string(next) + "<&- ";
            ++next;
        }
        std::uint16_t const port = ntohs(address.sin6_port);
        DnsClient udp(SOCK_DGRAM, "127.1.2.3", port);
        DnsClient tcp(SOCK_STREAM, "::1", port);
        udp.send(question(1));
        tcp.send(framed(question(2)));
        pid_t const daemon =
            spawn({"/bin/bash", "-c",
                   "exec " + moves + ">" + site.folder.file("out") + " 2>" + site.folder.file("log") +
                       "; LISTEN_FDS=" + std::to_string(test.types.size()) + " LISTEN_FDNAMES=" + test.names +
                       " LISTEN_PID=$$ exec " NP_PROGRAM_FOLDER "/nphost run --config " + site.configuration},
                  &actions);
        posix_spawn_file_actions_destroy(&actions);
        for (int const each : sockets)
            close(each);
        if (*test.reason == '\0') {
            EXPECT_TRUE(isBravos(udp.receive())) << site.log();
            EXPECT_TRUE(isBravos(tcp.message())) << site.log();
            DnsClient six(SOCK_DGRAM, "::1", port);
            six.send(question(3));
            EXPECT_TRUE(isBravos(six.receive())) << site.log();
            kill(daemon, SIGTERM);
        }
        int const status = waitFor(daemon);
        EXPECT_EQ(status, *test.reason == '\0' ? 0 : 2) << test.names << site.log();
        EXPECT_TRUE(contains(site.log(), test.reason)) << test.names << site.log();
    }
}

// However the bytes come: all at once, one by one, with messages that are none between them.
TEST(DnsFrontTest, AnswersQuestionsOfOneConnectionInTheirOrder) {
    DnsSite site;
    ASSERT_NO_FATAL_FAILURE(site.start());
    std::string questions;
    for (unsigned id = 1; id <= 1000; ++id)
        questions += framed(question(id));
    std::string const tooLong = framed(question(7) + std::string(60'000, 'x')) + framed(question(8));
    std::unique_ptr<DnsClient> const client = site.tcp();
    std::jthread const writer([&] {
        client->send(questions);
        client->send(tooLong + framed("") + framed("x") + framed(std::string(12, '\x80')) + framed(question(9)));
        int const on = 1;
        setsockopt(client->descriptor(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        for (char const c : framed(question(10)) + framed(question(11)).substr(0, 20))
            client->send(std::string(1, c));
        shutdown(client->descriptor(), SHUT_WR); // within a message
    });
    for (unsigned id = 1; id <= 1000; ++id) {
        std::string const reply = client->message();
        ASSERT_EQ(idOf(reply), id);
        ASSERT_TRUE(isBravos(reply));
    }
    std::string const malformed = client->message();
    EXPECT_EQ(idOf(malformed), 7U);
    EXPECT_EQ(rcodeOf(malformed), 1U);
    for (unsigned const id : {8U, 9U, 10U})
        EXPECT_EQ(idOf(client->message()), id);
    EXPECT_EQ(client->message(), "");
}

TEST(DnsFrontTest, LimitsHoldAndDescriptorsReturn) {
    DnsSite site("maxConnections = 30\nmaxConnectionsPerAddress = 20\nidleSeconds = 2\nthreads = 2\n",
                 "\"127.0.0.1:0\", \"[::1]:0\"");
    ASSERT_NO_FATAL_FAILURE(site.start());
    std::size_t const before = site.descriptors();
    // In all, and of one address; those that are turned away are closed at once.
    std::vector<std::unique_ptr<DnsClient>> clients;
    for (int i = 0; i < 25; ++i)
        clients.push_back(site.tcp());
    std::uint16_t const portOfSix = site.portOf("INF_HOST_ENUM \"[::1]:");
    for (int i = 0; i < 15; ++i)
        clients.push_back(std::make_unique<DnsClient>(SOCK_STREAM, "::1", portOfSix));
    EXPECT_TRUE(eventually([&] {
        return std::count_if(clients.begin(), clients.end(), [](auto const& each) {
                   pollfd state = {each->descriptor(), POLLIN, 0};
                   return poll(&state, 1, 0) == 1;
               }) >= 10;
    }));
    EXPECT_LE(site.descriptors(), before + 30);
    // Datagrams do not count.
    std::unique_ptr<DnsClient> const udp = site.udp();
    udp->send(question(1));
    EXPECT_TRUE(isBravos(udp->receive()));
    for (auto const& each : clients) // those that were taken are idle
        EXPECT_TRUE(each->ends());
    clients.clear();
    EXPECT_TRUE(eventually([&] { return site.descriptors() == before; }));
    // Who sends a message slowly, and who does not read, each has a time; others are served meanwhile.
    std::unique_ptr<DnsClient> const slow = site.tcp();
    std::unique_ptr<DnsClient> const deaf = site.tcp();
    std::string block;
    for (unsigned id = 1; id <= 1000; ++id)
        block += framed(question(id));
    std::size_t wrote = 0;
    for (Clock::time_point const end = Clock::now() + patienceCM; Clock::now() < end;) {
        ssize_t const count = ::send(deaf->descriptor(), block.data(), block.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        wrote += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
        pollfd writable = {deaf->descriptor(), POLLOUT, 0};
        if (count < 0 && poll(&writable, 1, 500) == 0)
            break; // it is not read from any more
    }
    EXPECT_LT(wrote, 32U << 20);
    bool dropped = false;
    for (std::size_t i = 0; i < 200 && !dropped; ++i) {
        slow->send(framed(question(1)).substr(i < 2 ? i : 2, 1));
        dropped = slow->receive(100ms).empty() && [&] {
            pollfd state = {slow->descriptor(), POLLIN, 0};
            return poll(&state, 1, 0) == 1;
        }();
        udp->send(question(2));
        EXPECT_TRUE(isBravos(udp->receive()));
    }
    EXPECT_TRUE(dropped);
    EXPECT_TRUE(eventually([&] { return site.descriptors() == before; }));
}

// Ten thousand connections come and go, each in its way.
TEST(DnsFrontTest, DescriptorsReturn) {
    DnsSite site("maxConnections = 2000\nmaxConnectionsPerAddress = 2000\nthreads = 2\n");
    ASSERT_NO_FATAL_FAILURE(site.start());
    std::size_t const before = site.descriptors();
    for (unsigned i = 0; i < 10'000; ++i) {
        std::unique_ptr<DnsClient> const client = site.tcp();
        linger const reset = {1, 0};
        if (i % 4 != 0) // also spares the system as many ports
            setsockopt(client->descriptor(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        if (i % 2 == 0)
            client->send(framed(question(i)).substr(0, i % 3 == 0 ? 5 : 100));
        if (i % 300 == 98) {
            EXPECT_TRUE(isBravos(client->message())) << i;
        }
    }
    EXPECT_TRUE(eventually([&] { return site.descriptors() == before; })) << site.descriptors() << " " << before;
    EXPECT_EQ(site.stop(), 0) << site.log();
}

// Reloads, garbage, connections that come and go and a stop, all while questions are asked: each is answered by the old
// data or the new.
TEST(DnsFrontTest, BearsEverythingAtOnce) {
    DnsSite site("threads = 3\n", "\"127.0.0.1:0\"", records(2000));
    ASSERT_NO_FATAL_FAILURE(site.start());
    std::atomic<bool> stops{false};
    std::atomic<std::uint64_t> answers{0};
    std::string const wanted = "tel:+447000001234;npdi";
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 2; ++i)
            threads.emplace_back([&] {
                std::unique_ptr<DnsClient> const udp = site.udp();
                for (unsigned id = 1; !stops; ++id) {
                    udp->send(question(id, "447000001234"));
                    std::string const reply = udp->receive(2s); // a datagram may be lost in the flood
                    if (!reply.empty()) {
                        EXPECT_TRUE(contains(reply, wanted) || stops);
                        ++answers;
                    }
                }
            });
        threads.emplace_back([&] {
            while (!stops) {
                std::unique_ptr<DnsClient> const tcp = site.tcp();
                for (unsigned id = 1; id < 200 && !stops; ++id) {
                    tcp->send(framed(question(id, "447000001234")) + framed(question(id + 1, "447000001234")));
                    for (unsigned const each : {id, id + 1}) {
                        std::string const reply = tcp->message();
                        EXPECT_TRUE((idOf(reply) == (each & 0xffffU) && contains(reply, wanted)) || stops);
                    }
                    ++answers;
                }
            }
        });
        threads.emplace_back([&] {
            std::unique_ptr<DnsClient> const udp = site.udp();
            std::string garbage = question(1);
            for (std::size_t i = 0; !stops; ++i) {
                garbage[i % garbage.size()] = static_cast<char>(i * 31);
                udp->send(garbage, MSG_DONTWAIT);
                if (i % 64 == 0)
                    udp->receive(1ms);
            }
        });
        for (int round = 0; round < 5; ++round) {
            EXPECT_EQ(site.tell("reload --wait").status, 0);
            std::uint64_t const seen = answers;
            EXPECT_TRUE(eventually([&] { return answers > seen + 50; }));
        }
        site.daemon->signal(SIGTERM);
        stops = true;
        EXPECT_EQ(site.daemon->wait(), 0) << site.log();
    }
    EXPECT_FALSE(site.tcp()->connected());
}

// The time that a network's share lasts, and who has one together.
TEST(DnsFrontTest, RatesAreOfNetworks) {
    auto const clientAt = [](std::string const& text) {
        nphost::DnsClient client;
        client.bytes = contains(text, ":") ? 16 : 4;
        inet_pton(client.bytes == 4 ? AF_INET : AF_INET6, text.c_str(), client.address.data());
        return client;
    };
    struct {
        char const* used; // up, at second 100
        char const* asks;
        std::chrono::milliseconds later;
        int gets; // answers of twenty
    } const cases[] = {
        {"192.0.2.1", "192.0.2.1", 0ms, 0},
        {"192.0.2.1", "192.0.2.254", 0ms, 0},
        {"192.0.2.1", "192.0.3.1", 0ms, 10},
        {"192.0.2.1", "192.0.2.1", 99ms, 0},
        {"192.0.2.1", "192.0.2.1", 300ms, 3},
        {"192.0.2.1", "192.0.2.1", 1h, 10},
        {"2001:db8:1:2::1", "2001:db8:1:2::1", 0ms, 0},
        {"2001:db8:1:2::1", "2001:db8:1:ff:ffff::1", 0ms, 0},
        {"2001:db8:1:2::1", "2001:db8:1:102::1", 0ms, 10},
    };
    for (auto const& test : cases) {
        nphost::ResponseRates rates(10);
        int got = 0;
        for (int i = 0; i < 20; ++i)
            got += rates.isOver(clientAt(test.used), 100s) ? 0 : 1;
        EXPECT_EQ(got, 10) << test.used;
        got = 0;
        for (int i = 0; i < 20; ++i)
            got += rates.isOver(clientAt(test.asks), 100s + test.later) ? 0 : 1;
        EXPECT_EQ(got, test.gets) << test.asks << " after " << test.later.count() << " ms";
    }
}
