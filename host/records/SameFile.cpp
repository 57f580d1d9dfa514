#include "host/records/SameFile.h"

#include "framework/BAS/RegisteredObject.h"
#include "framework/STR/FilePlace.h"

#include <system_error>
#include <unistd.h>

namespace nphost {

bool isSameFile(std::filesystem::path const& one, std::filesystem::path const& other) {
    std::error_code error;
    if (std::filesystem::equivalent(one, other, error))
        return true;
    // What is not there yet has no inode: its place is compared, with the links on the way followed.
    auto const place = [&error](std::filesystem::path const& path) {
        std::filesystem::path const whole = std::filesystem::absolute(STR::followLinks(path.native()), error);
        return error ? path : std::filesystem::weakly_canonical(whole, error);
    };
    return place(one) == place(other);
}

char const* KeptFiles::nameOf(std::filesystem::path const& target) const {
    // The most precious first: what the message names is the file that would be lost.
    if (!dataFile.empty() && isSameFile(dataFile, target))
        return "the data file itself";
    if (isSameFile(configuration, target))
        return "the configuration file";
    if (!logFile.empty() && isSameFile(logFile, target))
        return "the log file";
    if (!socket.empty() && isSameFile(socket, target))
        return "the control socket";
    // A listing there would be in the midst of another client's answers, or of the lock file.
    if (isService && STR::ownDescriptor(STR::followLinks(target.native())) > STDERR_FILENO)
        return "a descriptor of the daemon's own";
    std::error_code error;
    char const* const shown = "/dev/stderr";
    bool const isLog = isService && std::filesystem::is_regular_file(shown, error) && isSameFile(shown, target);
    return isLog ? "standard error, the log" : nullptr;
}

void reportPrintRefused(std::string const& target, char const* what) {
    BAS::Status status;
    status.set("nphost", "ERR_HOST_PRINT_REFUSED", BAS::Status::MAJOR,
               BAS::Status::Arguments{BAS::String(target), BAS::String(what)});
    BAS::RegisteredObject::writeLog(status);
}

} // namespace nphost
