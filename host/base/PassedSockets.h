// Sockets that the service manager opened and passes on, as the program starts.
//
// Purpose: with them a daemon needs no right to open network sockets itself. The manager says in the environment how
// many there are, from descriptor 3 on, what each is called, and for which process they are meant.
// Ownership: the descriptors become the caller's.
// Threads: called once, before there are others.
// Errors: none: what is malformed means that there are none; std::bad_alloc.
// Complexity: linear in the sockets.
// Source: sd_listen_fds(3), sd_listen_fds_with_names(3).
#pragma once

#include <string>
#include <vector>

namespace nphost {

struct PassedSocket {
    int descriptor = -1;
    std::string name; // FileDescriptorName=
};

std::vector<PassedSocket> takePassedSockets();

} // namespace nphost
