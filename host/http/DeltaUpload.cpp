#include "host/http/DeltaUpload.h"

#include "host/base/HostError.h"
#include "host/base/Text.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace nphost {

DeltaUpload::DeltaUpload(std::filesystem::path const& folder) {
    // Commands name files by absolute paths; a folder may be relative, as the configuration's own is.
    std::string name = std::filesystem::absolute(folder / ".http-delta-XXXXXX").native();
    descriptorM = FileDescriptor(mkostemp(name.data(), O_CLOEXEC));
    if (!descriptorM)
        throw HostError("no file can be made in " + visible(folder.native()) + ": " +
                        std::system_category().message(errno));
    nameM = std::move(name);
}

DeltaUpload::~DeltaUpload() {
    unlink(nameM.c_str());
}

int DeltaUpload::write(std::string_view text) {
    while (!text.empty()) {
        ssize_t const count = ::write(descriptorM.get(), text.data(), text.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return errno;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
    return 0;
}

bool DeltaSink::take(std::string_view piece, std::string& /*out*/) {
    bytesM += piece.size();
    errorM = fileM->write(piece);
    return errorM == 0;
}

Step DeltaSink::end(std::string& /*out*/) {
    Step step;
    if (errorM != 0) {
        step.response =
            problem(503, "the records cannot be written to a file: " + std::system_category().message(errorM));
    } else if (bytesM == 0) {
        step.response = problem(400, "the body has no records");
    } else {
        step.kind = Step::COMMAND;
        step.command = std::move(commandM);
        step.held = std::move(fileM);
    }
    return step;
}

} // namespace nphost
