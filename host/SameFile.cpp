#include "host/SameFile.h"

#include "framework/BAS/RegisteredObject.h"

#include <system_error>

namespace nphost {

namespace {

// As who writes a file follows them: the last link may name a file that is not there yet.
std::filesystem::path followLinks(std::filesystem::path path) {
    constexpr int mostLinks = 40; // as the kernel's own limit
    std::error_code error;
    for (int i = 0; i < mostLinks; ++i) {
        std::filesystem::path const target = std::filesystem::read_symlink(path, error);
        if (error)
            break;
        path = path.parent_path() / target; // an absolute one stands for itself
    }
    return path;
}

} // namespace

bool isSameFile(std::filesystem::path const& one, std::filesystem::path const& other) {
    std::error_code error;
    if (std::filesystem::equivalent(one, other, error))
        return true;
    auto const place = [&error](std::filesystem::path const& path) {
        std::filesystem::path const whole = std::filesystem::absolute(followLinks(path), error);
        return error ? path : std::filesystem::weakly_canonical(whole, error);
    };
    return place(one) == place(other);
}

char const* KeptFiles::nameOf(std::filesystem::path const& target) const {
    if (!dataFile.empty() && isSameFile(dataFile, target))
        return "the data file itself";
    return isSameFile(configuration, target) ? "the configuration file" : nullptr;
}

void reportPrintRefused(std::string const& target, char const* what) {
    BAS::Status status;
    status.set("nphost", "ERR_HOST_PRINT_REFUSED", BAS::Status::MAJOR,
               BAS::Status::Arguments{BAS::String(target), BAS::String(what)});
    BAS::RegisteredObject::writeLog(status);
}

} // namespace nphost
