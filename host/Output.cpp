#include "host/Output.h"

#include "host/HostError.h"

#include <cerrno>
#include <system_error>
#include <unistd.h>

namespace nphost {

void Output::flush() {
    std::size_t const used = usedM;
    usedM = 0; // also when the write fails, so that nothing is written twice
    writeAll({bufferM.data(), used});
}

void Output::appendLarge(std::string_view text) {
    flush();
    if (text.size() > sizeCM)
        return writeAll(text);
    append(text);
}

void Output::writeAll(std::string_view text) const {
    while (!text.empty()) {
        ssize_t const written = ::write(descriptorM, text.data(), text.size());
        if (written >= 0)
            text.remove_prefix(static_cast<std::size_t>(written));
        else if (errno != EINTR)
            throw HostError("cannot write the output: " + std::system_category().message(errno));
    }
}

} // namespace nphost
