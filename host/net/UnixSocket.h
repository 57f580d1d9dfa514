// The daemon's control socket: a UNIX stream socket with a name in the file system.
//
// Purpose: ListeningSocket makes it, so that there is no moment at which others than owner and group may use it (mode
// 0660 from the first), replaces one that a killed daemon left behind, and refuses to when a daemon answers there or
// when something else has the name. Meanwhile it holds the lock of a file of its own beside the socket (.NAME.lock),
// which nobody else may open: who may only read the folder cannot hold up a start. connectTo is the client's side.
// Ownership: ListeningSocket owns the socket and its name; close and destruction remove the name if it is still the
// socket's.
// Threads: one thread; construction changes the process's umask for a moment, so before other threads make files.
// Errors: HostError in one line.
// Complexity: a few system calls; nothing waits but for another daemon that starts at the same place.
#pragma once

#include "host/base/FileDescriptor.h"

#include <filesystem>
#include <sys/types.h>

namespace nphost {

class ListeningSocket {
  public:
    explicit ListeningSocket(std::filesystem::path path);
    ListeningSocket(ListeningSocket const&) = delete;
    ListeningSocket& operator=(ListeningSocket const&) = delete;
    ~ListeningSocket() { close(); }

    int descriptor() const noexcept { return descriptorM.get(); }
    std::filesystem::path const& path() const noexcept { return pathM; }

    // The next connection, not blocking; none with errno set.
    FileDescriptor accept() const noexcept;

    void close() noexcept;

  private:
    void removeStale() const;

    std::filesystem::path pathM;
    FileDescriptor descriptorM;
    dev_t deviceM = 0;
    ino_t nodeM = 0;
};

// A blocking connection.
FileDescriptor connectTo(std::filesystem::path const& path);

} // namespace nphost
