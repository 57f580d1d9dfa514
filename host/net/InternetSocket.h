// Sockets of the network: where they listen, and whom they talk to.
//
// Purpose: what the fronts share of addresses: as the configuration and the log write them, and by what a peer's
// connections are counted.
// Ownership: borrows descriptors, but for what openAt gives.
// Threads: all functions are safe from any thread.
// Errors: HostError in one line, without the name of the section; std::bad_alloc.
// Complexity: a few system calls.
#pragma once

#include "host/base/FileDescriptor.h"

#include <string>
#include <sys/socket.h>

namespace nphost {

struct SocketAddress {
    sockaddr_storage bytes = {};
    socklen_t length = sizeof(sockaddr_storage);

    sockaddr* pointer() { return reinterpret_cast<sockaddr*>(&bytes); }
    sockaddr const* pointer() const { return reinterpret_cast<sockaddr const*>(&bytes); }
};

// "127.0.0.1:8080" or "[::1]:8080"; none when it is neither.
bool readSocketAddress(std::string const& text, SocketAddress& address);

// Bound to the address, and not blocking. An address of IPv6 is that alone. What is sent by TCP may listen again at once
// when the program starts anew.
FileDescriptor openAt(SocketAddress const& address, int type);

// For people and tests: where a socket listens, also where the port was chosen by the system.
std::string placeOf(int descriptor);
std::string placeOf(SocketAddress const& address);
// HostError when it is no socket.
SocketAddress addressOfSocket(int descriptor);

bool isLoopback(sockaddr_storage const& address);

// What a peer's connections are counted by: its address, of IPv6 the network that one customer has (/64). Empty of a
// UNIX socket's.
std::string addressOf(sockaddr_storage const& peer);

// As many descriptors as the process may have: thousands of connections need as many.
void raiseDescriptorLimit();

// Signals are the daemon's loop's: a front's threads take none.
void blockSignals();

} // namespace nphost
