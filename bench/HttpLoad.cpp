// nphttpload: what bench/http asks servers with, where no common tool does it.
//
//   nphttpload stream PORT FILE       sends the file as one POST /v1/lookup in chunks, and counts the lines of the answer
//   nphttpload mget PORT FILE         asks a Redis server for the numbers of the file, 100 a command, many under way
//   nphttpload latency PORT SECONDS   single GETs of random numbers over 8 connections, one after the other on each
//   nphttpload latency PORT SECONDS RATE  the same at that many a second, each asked on time
//   nphttpload idle PORT COUNT        opens connections, one request each, and holds them until its input ends
//   nphttpload lines FILE             counts lines as fast as it does for `stream`: what the counting itself costs
//
// The file has a line a question, {"number":"00..."}. Prints one line: what was counted, seconds, and for latency
// microseconds at the median, the 99th and the 99.9th percentile.
#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <exception>
#include <fstream>
#include <iterator>
#include <netinet/tcp.h>
#include <poll.h>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <thread>
#include <time.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

class Connection {
  public:
    explicit Connection(int port) : descriptorM(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(descriptorM, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            throw std::runtime_error("cannot connect to port " + std::to_string(port));
        int const on = 1;
        setsockopt(descriptorM, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    Connection(Connection const&) = delete;
    Connection& operator=(Connection const&) = delete;
    Connection(Connection&& other) noexcept : descriptorM(std::exchange(other.descriptorM, -1)) {}
    ~Connection() {
        if (descriptorM >= 0)
            close(descriptorM);
    }

    int descriptor() const { return descriptorM; }
    void write(std::string_view text) const {
        while (!text.empty()) {
            ssize_t const count = send(descriptorM, text.data(), text.size(), MSG_NOSIGNAL);
            if (count <= 0)
                throw std::runtime_error("the server takes no more");
            text.remove_prefix(static_cast<std::size_t>(count));
        }
    }
    std::string_view read() {
        ssize_t const count = recv(descriptorM, blockM.data(), blockM.size(), 0);
        if (count < 0)
            throw std::runtime_error("the server cannot be read");
        return {blockM.data(), static_cast<std::size_t>(count)};
    }

  private:
    int descriptorM;
    std::vector<char> blockM = std::vector<char>(64UL * 1024);
};

std::string contentOf(char const* file) {
    std::ifstream stream(file, std::ios::binary);
    if (!stream)
        throw std::runtime_error(std::string("cannot read ") + file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::size_t linesIn(std::string_view text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

// Of our answers only the objects' ends count: chunks bring line ends of their own.
std::size_t answersIn(std::string_view text, bool& afterBrace) {
    std::size_t count = 0;
    for (std::size_t at = 0; (at = text.find('\n', at)) != std::string_view::npos; ++at)
        count += (at == 0 ? afterBrace : text[at - 1] == '}') ? 1 : 0;
    if (!text.empty())
        afterBrace = text.back() == '}';
    return count;
}

void stream(int port, std::string const& body) {
    constexpr std::size_t chunk = 64UL * 1024;
    Connection connection(port);
    Clock::time_point const begin = Clock::now();
    std::thread sender([&] {
        connection.write("POST /v1/lookup HTTP/1.1\r\nHost: x\r\nContent-Type: application/x-ndjson\r\n"
                         "Transfer-Encoding: chunked\r\nConnection: close\r\n\r\n");
        for (std::string_view rest = body; !rest.empty();) {
            std::string_view const piece = rest.substr(0, chunk);
            std::array<char, 16> head{};
            int const length = std::snprintf(head.data(), head.size(), "%zx\r\n", piece.size());
            connection.write({head.data(), static_cast<std::size_t>(length)});
            connection.write(piece);
            connection.write("\r\n");
            rest.remove_prefix(piece.size());
        }
        connection.write("0\r\n\r\n");
    });
    std::size_t answers = 0;
    bool afterBrace = false;
    for (std::string_view text; !(text = connection.read()).empty();)
        answers += answersIn(text, afterBrace);
    double const seconds = secondsSince(begin);
    sender.join();
    if (answers != linesIn(body))
        throw std::runtime_error(std::to_string(answers) + " answers to " + std::to_string(linesIn(body)) +
                                 " questions");
    std::printf("%zu %.3f\n", answers, seconds);
}

void lines(std::string const& text) {
    Clock::time_point const begin = Clock::now();
    bool afterBrace = false;
    std::size_t const count = answersIn(text, afterBrace);
    std::printf("%zu %.3f\n", count, secondsSince(begin));
}

// Commands are made before the clock starts: the server is what is measured.
void mget(int port, std::string const& body) {
    constexpr std::size_t together = 100;
    std::string commands;
    std::size_t keys = 0;
    std::vector<std::string_view> batch;
    auto const flush = [&] {
        commands += "*" + std::to_string(batch.size() + 1) + "\r\n$4\r\nMGET\r\n";
        for (std::string_view const key : batch)
            commands.append("$").append(std::to_string(key.size())).append("\r\n").append(key).append("\r\n");
        batch.clear();
    };
    constexpr std::string_view before = "{\"number\":\"";
    for (std::size_t at = 0; (at = body.find(before, at)) != std::string::npos;) {
        at += before.size();
        batch.push_back(std::string_view(body).substr(at, body.find('"', at) - at));
        ++keys;
        if (batch.size() == together)
            flush();
    }
    if (!batch.empty())
        flush();
    Connection connection(port);
    Clock::time_point const begin = Clock::now();
    std::thread sender([&] { connection.write(commands); });
    // Each value is a length and a text: two ends of lines; one that is not there is one. An array's head is one more.
    std::size_t values = 0;
    char last = '\n';
    while (values < keys) {
        std::string_view const text = connection.read();
        if (text.empty())
            throw std::runtime_error("the server ended");
        for (std::size_t at = 0; (at = text.find('$', at)) != std::string_view::npos; ++at)
            values += (at == 0 ? last : text[at - 1]) == '\n' ? 1 : 0;
        last = text.back();
    }
    double const seconds = secondsSince(begin);
    sender.join();
    std::printf("%zu %.3f\n", values, seconds);
}

class Questions {
  public:
    explicit Questions(int port) {
        for (std::size_t i = 0; i < widthCM; ++i) {
            connectionsM.emplace_back(port);
            polledM.push_back({connectionsM.back().descriptor(), POLLIN, 0});
        }
    }

    static constexpr std::size_t widthCM = 8;

    void ask(std::size_t connection, Clock::time_point due) {
        std::array<char, 128> text{};
        int const length =
            std::snprintf(text.data(), text.size(), "GET /v1/numbers/004477%08u HTTP/1.1\r\nHost: x\r\n\r\n",
                          static_cast<unsigned int>(randomM() % 100'000'000U));
        connectionsM[connection].write({text.data(), static_cast<std::size_t>(length)});
        dueM.at(connection).push_back(due);
    }
    // Takes the answers that are there, once there are any or the time is over; calls `answered` with the connection of
    // each.
    template <typename Answered>
    void take(Clock::duration patience, Answered const& answered) {
        timespec const time = {0, std::chrono::nanoseconds(patience).count()};
        ppoll(polledM.data(), polledM.size(), &time, nullptr);
        for (std::size_t i = 0; i < widthCM; ++i) {
            if ((polledM[i].revents & (POLLIN | POLLHUP)) == 0)
                continue;
            // An answer's first bytes may come in two pieces.
            std::string& text = unreadM.at(i);
            text += connectionsM[i].read();
            std::size_t done = 0;
            for (std::size_t at = 0; (at = text.find(headCM, done)) < text.size(); done = at + headCM.size()) {
                timesM.push_back(secondsSince(dueM.at(i).front()) * 1e6);
                dueM.at(i).pop_front();
                answered(i);
            }
            text.erase(0, std::max(done, text.size() - std::min(text.size(), headCM.size() - 1)));
        }
    }
    void print(double seconds) {
        constexpr std::size_t mostUnderWay = 10'000; // many more were answered otherwise, or not at all
        for (auto const& due : dueM)
            if (due.size() > mostUnderWay || timesM.empty())
                throw std::runtime_error("questions have no answer that is 200");
        std::sort(timesM.begin(), timesM.end());
        auto const at = [this](double share) {
            return timesM[static_cast<std::size_t>(share * static_cast<double>(timesM.size() - 1))];
        };
        std::printf("%zu %.3f %.1f %.1f %.1f\n", timesM.size(), seconds, at(0.5), at(0.99), at(0.999));
    }

  private:
    static constexpr std::string_view headCM = "HTTP/1.1 200";

    std::vector<Connection> connectionsM;
    std::vector<pollfd> polledM;
    std::array<std::string, widthCM> unreadM;
    std::array<std::deque<Clock::time_point>, widthCM> dueM; // of what is not answered yet
    std::mt19937 randomM{1};
    std::vector<double> timesM; // microseconds
};

// As many as the server takes: each connection asks again when it has its answer.
void latency(int port, double seconds) {
    Questions questions(port);
    for (std::size_t i = 0; i < Questions::widthCM; ++i)
        questions.ask(i, Clock::now());
    Clock::time_point const begin = Clock::now();
    while (secondsSince(begin) < seconds)
        questions.take(std::chrono::milliseconds(100), [&](std::size_t i) { questions.ask(i, Clock::now()); });
    questions.print(secondsSince(begin));
}

// As customers do, who come whether or not the one before is served: the time of an answer counts from when its
// question was due, so a server that stalls is charged for all who come meanwhile. It asks without rest, for who sleeps is
// woken late, and has a processor of its own.
void onTime(int port, double seconds, double perSecond) {
    Questions questions(port);
    std::mt19937 random(2);
    std::exponential_distribution<double> pause(perSecond);
    Clock::time_point const begin = Clock::now();
    Clock::time_point next = begin;
    for (std::size_t turn = 0; secondsSince(begin) < seconds;) {
        for (; next <= Clock::now(); turn = (turn + 1) % Questions::widthCM) {
            questions.ask(turn, next);
            next += std::chrono::nanoseconds(static_cast<long>(pause(random) * 1e9));
        }
        questions.take(Clock::duration::zero(), [](std::size_t) {});
    }
    questions.print(secondsSince(begin));
}

void idle(int port, std::size_t count) {
    std::vector<Connection> connections;
    for (std::size_t i = 0; i < count; ++i) {
        connections.emplace_back(port);
        connections.back().write("GET /v1/numbers/00447700900123 HTTP/1.1\r\nHost: x\r\n\r\n");
        if (!connections.back().read().starts_with("HTTP/1.1 200"))
            throw std::runtime_error("an answer is not 200");
    }
    std::printf("%zu open\n", count);
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
}

} // namespace

int main(int argc, char** argv) {
    try {
        std::string_view const mode = argc > 2 ? argv[1] : "";
        if (mode == "lines")
            lines(contentOf(argv[2]));
        else if (argc < 4)
            throw std::runtime_error("usage: nphttpload stream|mget|latency|idle PORT WHAT, or nphttpload lines FILE");
        else if (mode == "stream")
            stream(std::atoi(argv[2]), contentOf(argv[3]));
        else if (mode == "mget")
            mget(std::atoi(argv[2]), contentOf(argv[3]));
        else if (mode == "latency" && argc == 5)
            onTime(std::atoi(argv[2]), std::atof(argv[3]), std::atof(argv[4]));
        else if (mode == "latency")
            latency(std::atoi(argv[2]), std::atof(argv[3]));
        else if (mode == "idle")
            idle(std::atoi(argv[2]), static_cast<std::size_t>(std::atol(argv[3])));
        else
            throw std::runtime_error("there is no such mode");
        return 0;
    } catch (std::exception const& error) {
        std::fprintf(stderr, "nphttpload: %s\n", error.what());
        return 1;
    }
}
