// STR::FileVersion: which file it is, and which content of it.
//
// Purpose: two equal versions, taken at different times, say that the file was neither replaced nor written to between
// them, as far as the file system's clock can tell.
// Units and ranges: as the system gives them; times in nanoseconds since 1970, but kept by file systems in steps of
// some milliseconds: of two writes within one step that leave the size the same, the second does not show. All 0: no
// file.
// Ownership: a value. Threads: none inside. Errors: none. Complexity: constant.
#pragma once

#include <cstdint>

namespace STR {

struct FileVersion {
    std::uint64_t device = 0;
    std::uint64_t file = 0;
    std::uint64_t size = 0;
    std::int64_t modified = 0;
    std::int64_t changed = 0; // unlike the one before, nobody can set it

    bool operator==(FileVersion const&) const = default;

    // Whether the content is still that of the other, for all that an honest writer leaves behind. Unlike equality it
    // passes over a change of owner, mode or links, which is no new content; and over a time that was set back on
    // purpose.
    bool hasContentOf(FileVersion const& other) const {
        return device == other.device && file == other.file && size == other.size && modified == other.modified;
    }
};

} // namespace STR
