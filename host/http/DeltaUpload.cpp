#include "host/http/DeltaUpload.h"

#include "host/base/HostError.h"
#include "host/base/Text.h"
#include "host/log/OwnReport.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/file.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace nphost {

namespace {

// Six characters of chance follow.
constexpr std::string_view prefixCM = ".http-delta-";
constexpr std::string_view chanceCM = "XXXXXX";

// A file's own process has it, and no other.
bool takeLock(FileDescriptor const& file) {
    return flock(file.get(), LOCK_EX | LOCK_NB) == 0;
}

} // namespace

DeltaUpload::DeltaUpload(std::filesystem::path const& folder) {
    // Commands name files by absolute paths; a folder may be relative, as the configuration's own is.
    std::string name = std::filesystem::absolute(folder / prefixCM).native();
    name += chanceCM;
    descriptorM = FileDescriptor(mkostemp(name.data(), O_CLOEXEC));
    if (!descriptorM)
        throw HostError("no file can be made in " + visible(std::filesystem::path(name).parent_path().native()) + ": " +
                        std::system_category().message(errno));
    nameM = std::move(name);
    (void)takeLock(descriptorM); // held until all is over: who cannot see it to be in use would remove it
}

DeltaUpload::~DeltaUpload() {
    unlink(nameM.c_str());
}

void DeltaUpload::removeLeftovers(std::filesystem::path const& folder) {
    std::size_t count = 0;
    std::error_code error;
    // The folder's name is empty where the data file is named without one.
    std::filesystem::path const place = std::filesystem::absolute(folder / prefixCM).parent_path();
    for (std::filesystem::directory_iterator each(place, error), end; !error && each != end; each.increment(error)) {
        std::string const name = each->path().filename().native();
        if (!name.starts_with(prefixCM) || name.size() != prefixCM.size() + chanceCM.size())
            continue;
        FileDescriptor const file(
            open(each->path().c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
        if (file && takeLock(file) && unlink(each->path().c_str()) == 0)
            ++count;
    }
    if (count > 0)
        reportOwn("INF_HOST_LEFTOVERS", BAS::Status::NORMAL,
                  {BAS::String(std::to_string(count)), BAS::String(place.native())});
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
