#include "host/base/GiveWay.h"

#include <algorithm>
#include <sys/resource.h>

namespace nphost {

void giveWay() noexcept {
    constexpr int step = 10;
    constexpr int lowest = 19;
    // From what the service manager gave the daemon; 0 is the calling thread.
    setpriority(PRIO_PROCESS, 0, std::min(lowest, getpriority(PRIO_PROCESS, 0) + step));
}

} // namespace nphost
