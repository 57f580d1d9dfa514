#include "host/ResultTarget.h"

#include "host/HostError.h"
#include "host/Text.h"

#include <cerrno>
#include <system_error>
#include <unistd.h>

namespace nphost {

ResultTarget::ResultTarget(std::optional<std::string> const& file) : nameM(file ? visible(*file) : "standard output") {
    if (!file)
        return;
    fileM = std::make_unique<STR::FileIo>(BAS::String(*file), std::ios_base::out);
    if (!fileM->isOpen())
        fail();
}

void ResultTarget::fail() const {
    throw HostError(nameM + " cannot be written: " + fileM->failure().str());
}

void ResultTarget::write(std::string_view text) {
    if (fileM != nullptr) {
        fileM->stream().write(text.data(), static_cast<std::streamsize>(text.size()));
        if (!fileM->stream().good() && !fileM->closeFile())
            fail();
        return;
    }
    while (!text.empty()) {
        ssize_t const written = ::write(STDOUT_FILENO, text.data(), text.size());
        if (written >= 0)
            text.remove_prefix(static_cast<std::size_t>(written));
        else if (errno == EPIPE)
            throw OutputClosed();
        else if (errno != EINTR)
            throw HostError(nameM + " cannot be written: " + std::system_category().message(errno));
    }
}

void ResultTarget::finish() {
    if (fileM != nullptr && !fileM->closeFile())
        fail();
}

} // namespace nphost
