#include "host/base/ResidentMemory.h"

#include <fstream>
#include <unistd.h>

namespace nphost {

std::uint64_t residentBytes() {
    // The second number is of resident pages. Without /proc the answer is 0.
    std::ifstream file("/proc/self/statm");
    std::uint64_t all = 0;
    std::uint64_t resident = 0;
    file >> all >> resident;
    return resident * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

} // namespace nphost
