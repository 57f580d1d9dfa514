// nphost::Networks: the table of networks that is served, which may be exchanged for a new one while it is used.
//
// Purpose: [host] networks = "networks.toml" names its file (fields/NetworkTable.h). It is read again with every reload;
// what is wrong with it is reported, and the old table serves on.
// Ownership: owns the table; who asks shares it, and keeps it for as long as it likes.
// Threads: any. Errors: construction throws ConfigurationError; std::bad_alloc.
// Complexity: asking is a copy of a pointer under a lock.
#pragma once

#include "framework/BAS/Mutex.h"
#include "host/fields/NetworkTable.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace nphost {

class Networks {
  public:
    // How the table stands.
    struct Standing {
        std::filesystem::path file;
        std::size_t networks = 0;
        std::string refusal; // why the file could not be taken when it was last read; empty: it could
    };

    explicit Networks(std::filesystem::path file); // empty: there is no table

    // Null when none is configured.
    std::shared_ptr<NetworkTable const> current() const;
    // How often it has been another since the start. Asked before current, it is never ahead of it.
    std::uint64_t version() const noexcept { return versionM.load(); }
    // None when none is configured.
    std::optional<Standing> standing() const;
    // False when the file cannot be taken, which is reported.
    bool reread() noexcept;

  private:
    std::filesystem::path const fileM;
    std::atomic<std::uint64_t> versionM{0};
    mutable BAS::Mutex lockM;
    std::shared_ptr<NetworkTable const> tableM NP_GUARDED_BY(lockM);
    std::string refusalM NP_GUARDED_BY(lockM);
};

} // namespace nphost
