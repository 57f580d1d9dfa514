#include "host/service/DeltaFolders.h"

#include "framework/STR/FilePlace.h"
#include "host/base/FileDescriptor.h"
#include "host/base/Text.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>

namespace nphost {

namespace {

using std::filesystem::path;

// O_PATH needs no right to read the file, waits for no pipe, and disturbs nothing that is behind a device's name.
FileDescriptor openPath(path const& name, int flags = 0) {
    return FileDescriptor(open(name.c_str(), O_PATH | O_CLOEXEC | flags));
}

// What is open, named without links.
path realName(FileDescriptor const& opened, std::error_code& error) {
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(opened.get()), error);
}

struct Place {
    path name;                // without links: of the file, or while there is none of the nearest folder that is there
    STR::FileVersion version; // all 0: there is no file, or it cannot be reached
};

// None when a link leads to nothing, or when `error` says what kept from looking.
std::optional<Place> placeOf(path file, std::error_code& error) {
    Place place;
    FileDescriptor opened = openPath(file);
    if (struct stat status = {}; opened && fstat(opened.get(), &status) == 0)
        place.version = STR::versionOf(status);
    // A file that is still to come is judged by the folder in which it would lie: the lane asks again when its turn
    // comes.
    while (!opened) {
        if (errno != ENOENT && errno != ENOTDIR && errno != EACCES) {
            error.assign(errno, std::system_category());
            return std::nullopt;
        }
        // The name is there and leads nowhere: where its link will lead later is not known now.
        if (openPath(file, O_NOFOLLOW) || !file.has_relative_path())
            return std::nullopt;
        file = file.parent_path();
        opened = openPath(file);
    }
    place.name = realName(opened, error);
    return error ? std::nullopt : std::optional(std::move(place));
}

bool liesBelow(path const& folder, Place const& place) {
    if (folder.empty())
        return false;
    auto const [end, rest] = std::mismatch(folder.begin(), folder.end(), place.name.begin(), place.name.end());
    // A file that is not there yet may be looked for in the folder itself.
    return end == folder.end() && (rest != place.name.end() || place.version == STR::FileVersion());
}

} // namespace

DeltaFolders::Found DeltaFolders::find(path const& file) const {
    std::error_code error;
    std::optional<Place> const place = placeOf(file, error);
    std::string names;
    for (path const& folder : foldersM) {
        names += (names.empty() ? "" : ", ") + visible(folder.native());
        if (!place)
            continue;
        // Both names are taken from what is open, so links on the way, and their exchange meanwhile, make no
        // difference.
        FileDescriptor const opened = openPath(folder.empty() ? path(".") : folder, O_DIRECTORY);
        if (opened && liesBelow(realName(opened, error), *place))
            return {place->version, {}};
        // A folder that is not there holds nothing. One that cannot be looked at may hold the file: that is told as it
        // is.
        if (!opened && errno != ENOENT)
            error.assign(errno, std::system_category());
    }
    if (error)
        return {std::nullopt, visible(file.native()) + " cannot be looked for: " + error.message()};
    return {std::nullopt, visible(file.native()) + " does not lie below a folder that deltaFolders names: " +
                              (names.empty() ? "there is none" : names)};
}

} // namespace nphost
