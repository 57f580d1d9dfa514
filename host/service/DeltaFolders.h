// nphost::DeltaFolders: the folders below which a client of the daemon may name a delta file.
//
// Purpose: whoever may use the control socket has the daemon read a file and say what is wrong with its lines. So it
// reads only what lies below these folders, whichever links lead there: a name is taken apart at the folder, and what
// follows is opened without leaving it. The caller binds the load to the version that is returned, because the module
// opens the file by its name, which may mean another one by then.
// Ownership: values. Folders are looked up anew each time: one may be made or replaced while the daemon runs.
// Threads: no state that changes. Errors: std::bad_alloc. Complexity: a few system calls a folder, and a part of the
// name that is not there.
#pragma once

#include "framework/STR/FileVersion.h"
#include "host/config/Configuration.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace nphost {

class DeltaFolders {
  public:
    //     deltaFolders = ["deltas"]   # in [host]: below which a delta may lie; the data file's folder without it
    struct Settings {
        std::optional<std::vector<std::filesystem::path>> deltaFolders;

        static void declare(Section& host, Configuration& configuration) {
            host.files("deltaFolders", configuration.place<Settings>().deltaFolders);
        }
    };

    explicit DeltaFolders(std::vector<std::filesystem::path> folders) : foldersM(std::move(folders)) {}

    struct Found {
        std::optional<STR::FileVersion> version; // all 0 while the name means no file that can be looked at
        std::string refusal; // without a version: "FILE does not lie below ...", or what kept from looking
    };
    // Which file the absolute name means now. Refused when that does not lie below one of the folders, and when a link
    // leads to nothing.
    Found find(std::filesystem::path const& file) const;

  private:
    std::vector<std::filesystem::path> foldersM;
};

} // namespace nphost
