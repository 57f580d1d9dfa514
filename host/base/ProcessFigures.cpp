#include "host/base/ProcessFigures.h"

#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace nphost {

namespace {

// The fields of /proc/self/stat from the third on (proc(5)): the second is the program's name, which may hold anything.
class ProcessState {
  public:
    ProcessState() {
        std::ifstream file("/proc/self/stat");
        std::string const text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        if (std::size_t const end = text.rfind(')'); end != std::string::npos)
            fieldsM.str(text.substr(end + 1));
    }
    // Fields are asked in their order, by the numbers of the manual.
    std::optional<std::uint64_t> field(int number) {
        std::string skipped;
        for (; nextM < number; ++nextM)
            fieldsM >> skipped;
        ++nextM;
        std::uint64_t value = 0;
        return fieldsM >> value ? std::optional(value) : std::nullopt;
    }

  private:
    std::istringstream fieldsM;
    int nextM = 3;
};

// The second in which the system was started, since 1970.
std::optional<std::uint64_t> bootSeconds() {
    std::ifstream file("/proc/stat");
    for (std::string line; std::getline(file, line);)
        if (line.starts_with("btime "))
            return std::stoull(line.substr(6));
    return std::nullopt;
}

std::optional<double> cpuTime() {
    rusage usage = {};
    if (getrusage(RUSAGE_SELF, &usage) != 0)
        return std::nullopt;
    auto const seconds = [](timeval const& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Linux tells their number as the folder's size from 6.2 on; before, they are counted, a microsecond each.
std::optional<std::uint64_t> countDescriptors() {
    struct stat folder = {};
    if (stat("/proc/self/fd", &folder) == 0 && folder.st_size > 0)
        return static_cast<std::uint64_t>(folder.st_size);
    std::error_code error;
    std::filesystem::directory_iterator const entries("/proc/self/fd", error);
    // Less the one that looks.
    return error ? std::nullopt : std::optional<std::uint64_t>(std::distance(begin(entries), end(entries)) - 1);
}

} // namespace

ProcessFigures ProcessFigures::now() {
    ProcessFigures figures;
    figures.cpuSeconds = cpuTime();
    figures.openDescriptors = countDescriptors();
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY)
        figures.mostDescriptors = limit.rlim_cur;
    ProcessState state;
    figures.threads = state.field(20);
    std::optional<std::uint64_t> const start = state.field(22); // in ticks since the system's start
    figures.virtualBytes = state.field(23);
    if (std::optional<std::uint64_t> const pages = state.field(24))
        figures.residentBytes = *pages * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    if (std::optional<std::uint64_t> const boot = bootSeconds(); boot && start)
        figures.startSeconds =
            static_cast<double>(*boot) + static_cast<double>(*start) / static_cast<double>(sysconf(_SC_CLK_TCK));
    return figures;
}

} // namespace nphost
