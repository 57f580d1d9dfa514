// nphost, the stand-alone host of the number-portability plug-in.
#include "host/base/ExitStatus.h"
#include "host/cli/CommandLine.h"

#include <csignal>
#include <fcntl.h>
#include <initializer_list>
#include <unistd.h>

namespace {

// A standard descriptor that is closed would be given to the next file that is opened, and messages or results would go
// into it. What holds its place can be neither read nor, for results, written: they are an error as before.
bool holdStandardDescriptors() {
    for (int const descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        int const mode = descriptor == STDOUT_FILENO ? O_RDONLY : O_WRONLY;
        if (fcntl(descriptor, F_GETFD) < 0 && open("/dev/null", mode) != descriptor) // NOLINT(*-cloexec): as inherited
            return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    std::signal(SIGXFSZ, SIG_IGN); // a write beyond the limit of a file's size is an error, as on a full disk
    return holdStandardDescriptors() ? nphost::run(argc, argv) : nphost::FAILED;
}
