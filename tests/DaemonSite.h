// A daemon as its operator meets it: in a folder of its own, with its configuration, its data and a control socket.
#pragma once

#include "tests/Spawn.h"
#include "tests/TemporaryFolder.h"
#include "tests/Texts.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

using Json = nlohmann::json;
using Arguments = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds patienceCM{60}; // an upper bound, not a time that is waited for

inline bool eventually(std::function<bool()> const& condition) {
    for (Clock::time_point const end = Clock::now() + patienceCM; Clock::now() < end;) {
        if (condition())
            return true;
        poll(nullptr, 0, 5);
    }
    return false;
}

// A running nphost, killed with the object.
class Process {
  public:
    Process(Arguments const& arguments, std::string const& out, std::string const& err,
            std::string const& notify = {}) {
        std::string const variable = "NOTIFY_SOCKET=" + notify;
        std::vector<char*> environment;
        for (char** entry = environ; *entry != nullptr; ++entry)
            environment.push_back(*entry);
        if (!notify.empty())
            environment.push_back(const_cast<char*>(variable.c_str()));
        environment.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        constexpr int flags = O_WRONLY | O_CREAT | O_TRUNC;
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(), flags, 0600);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(), flags, 0600);
        idM = spawn(commandOf(arguments), &actions, environment.data());
        posix_spawn_file_actions_destroy(&actions);
    }
    Process(Process const&) = delete;
    Process& operator=(Process const&) = delete;
    ~Process() {
        if (idM > 0 && !status()) {
            kill(idM, SIGKILL);
            waitpid(idM, nullptr, 0);
        }
    }

    // Its exit status, or minus the signal that ended it; none while it runs.
    std::optional<int> status() {
        int raw = 0;
        if (!statusM && waitpid(idM, &raw, WNOHANG) == idM)
            statusM = statusOf(raw);
        return statusM;
    }
    int wait() {
        eventually([this] { return status().has_value(); });
        return statusM.value_or(-1000);
    }
    void signal(int number) const { kill(idM, number); }
    pid_t id() const { return idM; }

  private:
    pid_t idM = -1;
    std::optional<int> statusM;
};

// Runs the program to its end; what it writes goes to files of the folder that are named after the label.
inline Result runProgram(TemporaryFolder const& folder, Arguments const& arguments, std::string const& label) {
    Process process(arguments, folder.file(label + ".out"), folder.file(label + ".err"));
    Result result;
    result.status = process.wait();
    result.out = contentOf(folder.file(label + ".out"));
    result.err = contentOf(folder.file(label + ".err"));
    return result;
}

// A connection to a control socket, for what nphost ctl would never send.
class RawClient {
  public:
    explicit RawClient(std::string const& path) : descriptorM(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        connectedM = connect(descriptorM, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    RawClient(RawClient const&) = delete;
    RawClient& operator=(RawClient const&) = delete;
    ~RawClient() { close(descriptorM); }

    bool connected() const { return connectedM; }
    // False when the daemon takes no more.
    bool send(std::string const& text, int flags = 0) const {
        return ::send(descriptorM, text.data(), text.size(), flags | MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
    }
    void endSending() const { shutdown(descriptorM, SHUT_WR); }

    // The next line without its newline; "<closed>" at the end.
    std::string line() {
        for (;;) {
            std::size_t const end = inputM.find('\n');
            if (end != std::string::npos) {
                std::string line = inputM.substr(0, end);
                inputM.erase(0, end + 1);
                return line;
            }
            std::array<char, 4096> block;
            pollfd ready = {descriptorM, POLLIN, 0};
            if (poll(&ready, 1, static_cast<int>(std::chrono::milliseconds(patienceCM).count())) != 1)
                return "<nothing>";
            ssize_t const count = recv(descriptorM, block.data(), block.size(), 0);
            if (count <= 0)
                return "<closed>";
            inputM.append(block.data(), static_cast<std::size_t>(count));
        }
    }
    // Reads nothing; true once the other end has gone.
    bool isDropped() const {
        pollfd state = {descriptorM, 0, 0};
        return poll(&state, 1, 0) == 1 && (state.revents & (POLLHUP | POLLERR)) != 0;
    }

  private:
    int descriptorM;
    bool connectedM = false;
    std::string inputM;
};

// What the daemon tells a service manager, by a socket in the file system or, where the name begins with '@', without.
class ServiceManager {
  public:
    explicit ServiceManager(std::string name)
        : nameM(std::move(name)), descriptorM(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, nameM.data(), nameM.size());
        if (nameM.front() == '@')
            address.sun_path[0] = '\0';
        auto const length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + nameM.size());
        if (bind(descriptorM, reinterpret_cast<sockaddr*>(&address), length) != 0)
            throw std::runtime_error("cannot listen at " + nameM);
    }
    ServiceManager(ServiceManager const&) = delete;
    ServiceManager& operator=(ServiceManager const&) = delete;
    ~ServiceManager() { close(descriptorM); }

    std::string const& name() const { return nameM; }

    // Leaves no room in the queue.
    void fill() const {
        sockaddr_un address = {};
        socklen_t length = sizeof address;
        getsockname(descriptorM, reinterpret_cast<sockaddr*>(&address), &length);
        int const sender = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        while (sendto(sender, "STATUS=", 7, 0, reinterpret_cast<sockaddr*>(&address), length) == 7) {
        }
        close(sender);
    }

    // The next message that is more than a status.
    std::string next() const {
        for (;;) {
            std::array<char, 4096> block;
            pollfd ready = {descriptorM, POLLIN, 0};
            if (poll(&ready, 1, static_cast<int>(std::chrono::milliseconds(patienceCM).count())) != 1)
                return "<nothing>";
            std::string message(block.data(),
                                static_cast<std::size_t>(recv(descriptorM, block.data(), block.size(), 0)));
            if (!message.starts_with("STATUS="))
                return message;
        }
    }

  private:
    std::string nameM;
    int descriptorM;
};

inline std::string const dataCM = "0044770 20200101000000 ALPHA\n"
                                  "00447700900123 20210301020000 BRAVO\n"
                                  "00447700900123 20990915020000 CHARLIE\n"
                                  "004477009 20980101000000 DELTA\n";

// A data file of that many numbers with a record each.
inline std::string records(int count) {
    return numberedLines(count, "0044", 7'000'000'000, "  20200101000000  A");
}

inline void expectResult(Result const& result, int status, std::string const& part, std::string const& label) {
    EXPECT_EQ(result.status, status) << label << "\n" << result.out << result.err;
    EXPECT_TRUE(contains(status == 2 ? result.err : result.out, part)) << label << "\n" << result.out << result.err;
    EXPECT_EQ(lineCount(result.err), status == 2 ? 1 : 0) << label << "\n" << result.err;
}

// A configuration with its data in a folder, and the daemon that serves them.
class Site : public ConfiguredFolder {
  public:
    explicit Site(std::string const& content = dataCM, std::string const& more = {})
        : ConfiguredFolder(content, "[host]\nsocket = \"s\"\n" + more) {}

    // Begins to run; what it says on standard error goes to a file of that name.
    void launch(Arguments const& more = {}, std::string const& notify = {}, char const* log = "log") {
        Arguments arguments = {"run", "--config", configuration};
        arguments.insert(arguments.end(), more.begin(), more.end());
        daemon = std::make_unique<Process>(arguments, folder.file("out"), folder.file(log), notify);
    }
    // Returns when it serves.
    void start(Arguments const& more = {}, std::string const& notify = {}) {
        launch(more, notify);
        ASSERT_TRUE(eventually([&] { return contains(log(), "INF_HOST_READY") || daemon->status(); }));
        ASSERT_FALSE(daemon->status()) << log();
    }
    int stop(int signal = SIGTERM) {
        daemon->signal(signal);
        return daemon->wait();
    }

    std::string log() const { return contentOf(folder.file(logName)); }
    std::string socket() const { return folder.file("s"); }

    Result ctl(Arguments const& command, std::string const& label = "ctl") const {
        Arguments arguments = {"ctl", "--socket", socket()};
        arguments.insert(arguments.end(), command.begin(), command.end());
        return runProgram(folder, arguments, label);
    }
    // Between blanks; '@' is the folder, with the slash behind it.
    Arguments wordsOf(std::string const& text) const {
        std::istringstream in(text);
        Arguments words{std::istream_iterator<std::string>(in), {}};
        for (std::string& word : words)
            word = replaced(word, "@", folder.file(""));
        return words;
    }
    Result tell(std::string const& words, std::string const& label = "ctl") const { return ctl(wordsOf(words), label); }
    void expect(std::string const& words, int status, std::string const& part) const {
        expectResult(tell(words), status, part, words);
    }
    // Each has the outcome that is named, four times, while the others are commanded as well.
    void expectAtOnce(std::vector<std::pair<std::string, int>> const& commands) const {
        std::vector<std::jthread> threads; // which end before it returns
        for (auto const& command : commands)
            threads.emplace_back([this, &command, label = "c" + std::to_string(threads.size())] {
                for (int round = 0; round < 4; ++round) {
                    Result const result = tell(command.first, label);
                    EXPECT_EQ(result.status, command.second) << command.first << result.out << result.err;
                }
            });
    }
    Json status() const { return Json::parse(ctl({"--json", "status"}).out); }

    std::string logName = "log";
    std::unique_ptr<Process> daemon;
};
