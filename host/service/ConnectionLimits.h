// nphost::ConnectionLimits: how many connections a front may have.
//
// Purpose: connections are counted over all of a front's threads: in all, and by address.
// Ownership: a value that the front keeps for as long as its threads.
// Threads: any. Errors: enter throws std::bad_alloc, and nothing is entered then.
// Complexity: logarithmic in the addresses, under a lock of its own.
#pragma once

#include "framework/BAS/Mutex.h"
#include "host/service/Metrics.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace nphost {

class ConnectionLimits {
  public:
    ConnectionLimits(std::uint64_t most, std::uint64_t mostOfAddress) : mostM(most), mostOfAddressM(mostOfAddress) {}

    // UNIX sockets' peers have no address.
    std::optional<ConnectionRefusal> enter(std::string const& address) {
        BAS::MutexGuard const guard(lockM);
        if (countM >= mostM)
            return ConnectionRefusal::TOO_MANY;
        if (!address.empty()) {
            std::uint64_t& count = addressesM[address];
            if (count >= mostOfAddressM)
                return ConnectionRefusal::TOO_MANY_OF_ADDRESS;
            ++count;
        }
        ++countM;
        return std::nullopt;
    }
    void leave(std::string const& address) {
        BAS::MutexGuard const guard(lockM);
        --countM;
        auto const found = addressesM.find(address);
        if (found != addressesM.end() && --found->second == 0)
            addressesM.erase(found);
    }

  private:
    std::uint64_t const mostM;
    std::uint64_t const mostOfAddressM;
    BAS::Mutex lockM;
    std::uint64_t countM NP_GUARDED_BY(lockM) = 0;
    std::map<std::string, std::uint64_t> addressesM NP_GUARDED_BY(lockM);
};

} // namespace nphost
