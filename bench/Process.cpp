#include "bench/Process.h"

#include <cerrno>
#include <csignal>
#include <fstream>
#include <malloc.h>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace npbench {

namespace {

constexpr std::uint64_t KIB = 1024;

// The number after "NAME:" in a file of the kernel's "NAME:   123 kB" lines, in bytes; 0 when it is not there.
std::uint64_t kibField(char const* fileName, std::string const& name) {
    std::ifstream in(fileName);
    for (std::string line; std::getline(in, line);)
        if (line.starts_with(name + ':'))
            return std::stoull(line.substr(name.size() + 1)) * KIB;
    return 0;
}

// The text after "NAME   : " in a file of such lines, or the first line for an empty name.
std::string textField(char const* fileName, std::string const& name) {
    std::ifstream in(fileName);
    for (std::string line; std::getline(in, line);)
        if (line.starts_with(name))
            return name.empty() ? line : line.substr(line.find(':') + 2);
    return "unknown";
}

Json failure(char const* kind, std::string const& text) {
    return {{"failure", kind}, {"text", text}};
}

Json runPart(std::uint64_t mostBytes, std::function<Json()> const& part) {
    struct rlimit const limit = {mostBytes, mostBytes};
    // Of the data alone: it makes allocations fail as they do on a small machine, and takes the child only.
    setrlimit(RLIMIT_DATA, &limit);
    try {
        return {{"result", part()}};
    } catch (WrongAnswer const& wrong) {
        return failure("wrong", wrong.what());
    } catch (NoRoom const& none) {
        return failure("room", none.what());
    } catch (std::bad_alloc const&) {
        return failure("room", "memory did not suffice");
    } catch (std::exception const& other) {
        return failure("other", other.what());
    }
}

void writeAll(int descriptor, std::string const& text) {
    for (std::size_t done = 0; done < text.size();) {
        ssize_t const written = write(descriptor, text.data() + done, text.size() - done);
        if (written <= 0)
            return; // the parent sees that the text is not whole
        done += static_cast<std::size_t>(written);
    }
}

std::string readAll(int descriptor) {
    std::string text;
    char block[4096];
    for (;;) {
        ssize_t const count = read(descriptor, block, sizeof block);
        if (count > 0)
            text.append(block, static_cast<std::size_t>(count));
        else if (count == 0 || errno != EINTR)
            return text;
    }
}

Json resultOf(std::string const& text) {
    Json const answer = Json::parse(text, nullptr, false);
    if (answer.is_discarded())
        throw std::runtime_error("a part of the benchmarks died");
    if (answer.contains("result"))
        return answer["result"];
    auto const reason = answer["text"].get<std::string>();
    if (answer["failure"] == "wrong")
        throw WrongAnswer(reason);
    if (answer["failure"] == "room")
        throw NoRoom(reason);
    throw std::runtime_error(reason);
}

} // namespace

Json inOwnProcess(std::uint64_t mostBytes, std::function<Json()> const& part) {
    int ends[2];
    if (pipe(ends) != 0)
        throw std::runtime_error("cannot make a pipe");
    // What was freed before the fork would hide what the part allocates.
    malloc_trim(0);
    pid_t const child = fork();
    if (child < 0)
        throw std::runtime_error("cannot fork");
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // a run that is broken off leaves nobody behind
        close(ends[0]);
        writeAll(ends[1], runPart(mostBytes, part).dump());
        _exit(0); // what the parent owns too is not the child's to clean up
    }
    close(ends[1]);
    // Read before the child is waited for: a long answer would fill the pipe and keep it from ending.
    std::string const text = readAll(ends[0]);
    close(ends[0]);
    waitpid(child, nullptr, 0);
    return resultOf(text);
}

std::uint64_t ownBytes() {
    malloc_trim(0);
    // Without files: mapped code and libraries are no structure's cost.
    return kibField("/proc/self/smaps_rollup", "Anonymous");
}

std::uint64_t residentBytes() {
    return kibField("/proc/self/status", "VmRSS");
}

std::uint64_t peakResidentBytes() {
    return kibField("/proc/self/status", "VmHWM");
}

double processorSeconds() {
    struct rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    auto const seconds = [](struct timeval const& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void forgetPeak() {
    // The kernel's command for it; where it is refused the old peak stays.
    std::ofstream("/proc/self/clear_refs") << "5\n";
}

Json describeMachine() {
    struct utsname system = {};
    uname(&system);
    std::ostringstream memory;
    memory.precision(3);
    memory << static_cast<double>(kibField("/proc/meminfo", "MemTotal")) / double(KIB * KIB * KIB) << " GiB";
    return {{"processor", textField("/proc/cpuinfo", "model name")},
            {"cores", std::thread::hardware_concurrency()},
            {"last-level cache", textField("/sys/devices/system/cpu/cpu0/cache/index3/size", "")},
            {"memory", memory.str()},
            {"kernel", std::string(system.sysname) + ' ' + system.release},
            {"huge pages", textField("/sys/kernel/mm/transparent_hugepage/enabled", "")},
            {"load average at the start", textField("/proc/loadavg", "")},
            {"compiler", std::string("gcc ") + __VERSION__},
            {"build", NPBENCH_BUILD_TYPE}};
}

} // namespace npbench
