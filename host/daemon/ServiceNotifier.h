// nphost::ServiceNotifier: tells the service manager how the daemon stands.
//
// Purpose: when the variable NOTIFY_SOCKET names a datagram socket (a path, or an abstract name that begins with '@'),
// each change is sent to it as lines KEY=VALUE: READY=1, RELOADING=1 with MONOTONIC_USEC, STOPPING=1, and a status text
// for people. Without the variable nothing is sent.
// Ownership: owns its socket.
// Threads: one thread.
// Errors: none. While the manager's queue is full a change of state waits for up to a second, but not again before
// there was room; a status text waits not at all. What cannot be sent is lost. Construction throws std::bad_alloc.
// Complexity: one system call a change.
#pragma once

#include "host/base/FileDescriptor.h"

#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>

namespace nphost {

class ServiceNotifier {
  public:
    ServiceNotifier();

    // Texts are one line.
    void ready(std::string_view status);
    void reloading(std::string_view status);
    void stopping(std::string_view status);
    void status(std::string_view status);

  private:
    void send(std::string message, std::string_view status);

    FileDescriptor descriptorM;
    sockaddr_un addressM{};
    socklen_t lengthM = 0;
    bool stuckM = false; // a change of state was waited for in vain, and nothing was taken since
};

} // namespace nphost
