// A daemon that answers over HTTP, and a client that sends bytes as they are written down.
#pragma once

#include "tests/DaemonSite.h"

#include <arpa/inet.h>
#include <deque>
#include <fstream>
#include <mutex>
#include <netinet/tcp.h>
#include <set>

// "|" stands for CRLF.
inline std::string wire(std::string const& text) {
    std::string bytes;
    for (char const c : text)
        c == '|' ? bytes.append("\r\n") : bytes.append(1, c);
    return bytes;
}

struct Reply {
    int status = 0; // none came
    std::string head;
    std::string body;
    // The first field of that name, in the head's own letters; empty when it is not there.
    std::string field(std::string const& name) const {
        std::size_t const at = head.find("\r\n" + name + ": ");
        std::size_t const begin = at + name.size() + 4;
        return at == std::string::npos ? std::string() : head.substr(begin, head.find("\r\n", begin) - begin);
    }
};

// Keeps each JSON answer of a test that is read as one, with its request line, in a file of the test's: all are held to
// the description (openapi.json) when the tests are over.
inline void keepAnswer(std::string const& requestLine, Reply const& reply) {
    static std::mutex lock;
    static std::set<std::string> begun;
    testing::TestInfo const* const test = testing::UnitTest::GetInstance()->current_test_info();
    if (requestLine.empty() || test == nullptr || !contains(reply.field("Content-Type"), "json"))
        return;
    std::istringstream words(requestLine);
    std::string method;
    std::string target;
    words >> method >> target;
    Json const entry = {{"method", method}, {"target", target}, {"head", reply.head}, {"body", reply.body}};
    std::scoped_lock const guard(lock);
    std::filesystem::create_directories(NP_HTTP_ANSWERS);
    std::string const file = std::string(NP_HTTP_ANSWERS "/") + test->name() + ".ndjson";
    std::ofstream out(file, begun.insert(file).second ? std::ios::trunc : std::ios::app);
    out << entry.dump(-1, ' ', true, Json::error_handler_t::replace) << '\n';
}

class HttpClient {
  public:
    // A port of 127.0.0.1, which may be asked from another address of this machine, or a UNIX socket's path.
    explicit HttpClient(std::string const& place, in_addr_t from = INADDR_LOOPBACK) {
        sockaddr_un local = {};
        sockaddr_in address = {};
        bool const isLocal = place.starts_with('/');
        local.sun_family = AF_UNIX;
        std::strncpy(local.sun_path, place.c_str(), sizeof local.sun_path - 1);
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(isLocal ? 0 : static_cast<std::uint16_t>(std::stoi(place)));
        descriptorM = socket(isLocal ? AF_UNIX : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        int const on = 1;
        if (!isLocal)
            setsockopt(descriptorM, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        if (!isLocal) {
            sockaddr_in own = {};
            own.sin_family = AF_INET;
            own.sin_addr.s_addr = htonl(from);
            setsockopt(descriptorM, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
            bind(descriptorM, reinterpret_cast<sockaddr const*>(&own), sizeof own);
        }
        auto const* const to =
            isLocal ? reinterpret_cast<sockaddr const*>(&local) : reinterpret_cast<sockaddr const*>(&address);
        connectedM = connect(descriptorM, to, isLocal ? sizeof local : sizeof address) == 0;
    }
    HttpClient(HttpClient const&) = delete;
    HttpClient& operator=(HttpClient const&) = delete;
    ~HttpClient() { close(descriptorM); }

    bool connected() const { return connectedM; }
    int descriptor() const { return descriptorM; }
    void endSending() const { shutdown(descriptorM, SHUT_WR); }
    // False when the other end takes no more.
    bool send(std::string_view bytes) {
        noteRequests(bytes);
        while (!bytes.empty()) {
            ssize_t const count = ::send(descriptorM, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (count <= 0)
                return false;
            bytes.remove_prefix(static_cast<std::size_t>(count));
        }
        return true;
    }
    // More of what comes; false at the end, or when nothing does.
    bool more() {
        std::array<char, 65536> block;
        pollfd ready = {descriptorM, POLLIN, 0};
        if (poll(&ready, 1, static_cast<int>(std::chrono::milliseconds(patienceCM).count())) != 1) {
            ADD_FAILURE() << "nothing comes, and the connection stays";
            return false;
        }
        ssize_t const count = recv(descriptorM, block.data(), block.size(), 0);
        if (count > 0)
            inputM.append(block.data(), static_cast<std::size_t>(count));
        return count > 0;
    }
    // All until the connection closes.
    std::string rest() {
        while (more()) {
        }
        return std::exchange(inputM, {});
    }
    // Up to and with the text.
    std::string until(std::string const& text) {
        for (;;) {
            std::size_t const at = inputM.find(text);
            if (at != std::string::npos)
                return take(at + text.size());
            if (!more())
                return "<ended> " + std::exchange(inputM, {});
        }
    }
    Reply read(bool isHead = false) {
        Reply reply = readOne(isHead);
        std::scoped_lock const guard(linesLockM);
        if (reply.status >= 200 && !linesM.empty()) {
            if (!isHead)
                keepAnswer(linesM.front(), reply);
            linesM.pop_front();
        }
        return reply;
    }
    // The size of the next chunk, whose data are appended. 0 is the last, or a stream without one.
    std::size_t chunk(std::string& data) {
        std::string const head = until("\r\n");
        std::size_t const size = head.starts_with('<') ? 0 : std::stoul(head, nullptr, 16);
        while (inputM.size() < size + 2 && more()) {
        }
        data += take(size + 2);
        data.resize(data.size() - std::min<std::size_t>(data.size(), 2));
        return size;
    }
    Reply ask(std::string const& request, bool isHead = false) {
        send(wire(request));
        return read(isHead);
    }

  private:
    // The request lines that begin in what is sent whole; requests in pieces have none.
    void noteRequests(std::string_view bytes) {
        std::scoped_lock const guard(linesLockM);
        for (std::size_t end = 0; (end = bytes.find('\n')) != std::string_view::npos; bytes.remove_prefix(end + 1)) {
            std::string_view const line = bytes.substr(0, end);
            if (line.ends_with(" HTTP/1.1\r") || line.ends_with(" HTTP/1.0\r"))
                linesM.emplace_back(line.substr(0, end - 1));
        }
    }
    Reply readOne(bool isHead) {
        Reply reply;
        reply.head = until("\r\n\r\n");
        if (!reply.head.starts_with("HTTP/1.1 "))
            return reply;
        reply.status = std::stoi(reply.head.substr(9, 3));
        if (isHead || reply.status < 200 || reply.status == 204 || reply.status == 304)
            return reply;
        if (std::string const length = reply.field("Content-Length"); !length.empty()) {
            std::size_t const wanted = std::stoul(length);
            while (inputM.size() < wanted && more()) {
            }
            reply.body = take(wanted);
        } else if (reply.field("Transfer-Encoding") == "chunked") {
            while (std::size_t const size = chunk(reply.body))
                (void)size;
        } else {
            reply.body = rest();
        }
        return reply;
    }

    std::string take(std::size_t count) {
        std::string taken = inputM.substr(0, count);
        inputM.erase(0, count);
        return taken;
    }

    int descriptorM;
    bool connectedM = false;
    std::string inputM;
    std::mutex linesLockM;          // one thread may send while another one reads
    std::deque<std::string> linesM; // of requests that were not answered yet
};

// "200 404" of what came on a connection until it closed.
inline std::string statusesOf(std::string const& answers) {
    std::string statuses;
    for (std::size_t at = 0; (at = answers.find("HTTP/1.1 ", at)) != std::string::npos; at += 9)
        statuses += (statuses.empty() ? "" : " ") + answers.substr(at + 9, 3);
    return statuses;
}

class HttpSite : public Site {
  public:
    // `http` are lines of [http], `host` of [host].
    explicit HttpSite(std::string const& http = {}, std::string const& host = {}, std::string const& records = dataCM,
                      std::string const& listen = "\"127.0.0.1:0\"")
        : Site(records, host + "[http]\nlisten = [" + listen + "]\n" + http) {}

    void start() {
        Site::start();
        place = placeAfter("at http://127.0.0.1:");
    }
    // What follows the text in the log, up to the line's end.
    std::string placeAfter(std::string const& text) const {
        std::string const lines = log();
        std::size_t const at = lines.find(text);
        return at == std::string::npos ? "0" : lines.substr(at + text.size(), lines.find('\n', at) - at - text.size());
    }
    Reply ask(std::string const& request, bool isHead = false) const { return HttpClient(place).ask(request, isHead); }
    Reply get(std::string const& target, std::string const& fields = {}) const {
        return ask("GET " + target + " HTTP/1.1|Host: a|" + fields + "|");
    }

    std::string place;
};
