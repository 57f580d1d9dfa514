#include "host/base/ResidentMemory.h"

#include <fstream>
#include <unistd.h>

namespace nphost {

std::uint64_t residentBytes() {
    std::ifstream file("/proc/self/statm");
    std::uint64_t all = 0;
    std::uint64_t resident = 0;
    file >> all >> resident;
    return resident * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

} // namespace nphost
