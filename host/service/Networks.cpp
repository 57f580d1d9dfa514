#include "host/service/Networks.h"

#include "host/log/OwnReport.h"

#include <exception>
#include <utility>

namespace nphost {

Networks::Networks(std::filesystem::path file) : fileM(std::move(file)) {
    if (!fileM.empty())
        tableM = std::make_shared<NetworkTable const>(NetworkTable::read(fileM));
}

std::shared_ptr<NetworkTable const> Networks::current() const {
    BAS::MutexGuard const guard(lockM);
    return tableM;
}

std::optional<Networks::Standing> Networks::standing() const {
    BAS::MutexGuard const guard(lockM);
    return tableM ? std::optional(Standing{fileM, tableM->size(), refusalM}) : std::nullopt;
}

bool Networks::reread() noexcept {
    if (fileM.empty())
        return true;
    try {
        try {
            auto fresh = std::make_shared<NetworkTable const>(NetworkTable::read(fileM));
            BAS::MutexGuard const guard(lockM);
            tableM.swap(fresh); // the old one goes after the lock
            refusalM.clear();
            ++versionM;
            return true;
        } catch (std::exception const& error) {
            reportOwn("ERR_HOST_NETWORKS", BAS::Status::MAJOR, {BAS::String(error.what())});
            BAS::MutexGuard const guard(lockM);
            refusalM = error.what();
        }
    } catch (...) { // NOLINT(bugprone-empty-catch): not even the report could be made
    }
    return false;
}

} // namespace nphost
