#include "host/SameFile.h"

#include "framework/BAS/RegisteredObject.h"

#include <system_error>

namespace nphost {

bool isSameFile(std::filesystem::path const& one, std::filesystem::path const& other) {
    std::error_code error;
    if (std::filesystem::equivalent(one, other, error))
        return true;
    auto const place = [&error](std::filesystem::path const& path) {
        std::filesystem::path const whole = std::filesystem::absolute(path, error);
        return error ? path : std::filesystem::weakly_canonical(whole, error);
    };
    return place(one) == place(other);
}

void reportPrintRefused(std::string const& target) {
    BAS::Status status;
    status.set("nphost", "ERR_HOST_PRINT_REFUSED", BAS::Status::MAJOR, BAS::String(target));
    BAS::RegisteredObject::writeLog(status);
}

} // namespace nphost
