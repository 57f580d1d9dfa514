// STR: the place of a file that is to be written anew, and how its content can be exchanged there.
//
// Purpose: a file is best replaced: a new one is written beside it and renamed over it, so that its readers, and who
// starts again after a crash, never meet half of one. Where that cannot be, because owner or mode cannot be kept, no
// file can be made beside it, or it is mounted by itself, its content can still be overwritten in place. rewritingOf
// says beforehand which it will be. The rest is what STR::FileIo does it with.
// Ownership: descriptors that are returned are the caller's to close. No state that changes.
// Threads: any.
// Errors: as each function says; where it is errno, it is set. std::bad_alloc.
// Complexity: a few system calls; overwriting is linear in the text, and removeLeftovers in the entries of the folder.
#pragma once

#include "framework/BAS/String.h"
#include "framework/STR/FileVersion.h"

#include <string>
#include <string_view>
#include <sys/stat.h>

namespace STR {

struct Rewriting {
    enum Way { REPLACED, IN_PLACE, IMPOSSIBLE };
    Way way = REPLACED;
    BAS::String reason; // why it is not replaced, as the system puts it
};

// How the named file would be rewritten by FileIo::IF_NEEDED now. Tried out beside the file, which is left alone.
Rewriting rewritingOf(BAS::String const& fileName);

// Removes what writers of the named file left beside it when they were killed: temporary files of processes that are
// gone, or had this one's number, and that nobody holds a lock on. Returns how many.
unsigned removeLeftovers(BAS::String const& fileName);

FileVersion versionOf(struct stat const& status);
// Of what the name stands for now; all 0 when that is nothing.
FileVersion versionOf(BAS::String const& fileName);

// "cannot ACTION it: REASON"
BAS::String failureText(int error, std::string const& action);

std::string folderOf(std::string const& path);
// Follows symbolic links, the last of which may name a file that is not there yet, as far as an own descriptor.
std::string followLinks(std::string path);
// The descriptor that a name such as /dev/stdout or /dev/fd/3 stands for, or -1. Opened by name such a file could be
// truncated under what the process has written to it already.
int ownDescriptor(std::string_view name);

// Makes a new file beside the target, with a lock that tells others that its writer lives; -1 with errno.
int createBeside(std::string const& target, unsigned mode, std::string& name);
// Makes a file without a name, on another disk or in memory; -1 with errno.
int createElsewhere();

// Null when the target is not mounted by itself and a new file could take its place; else what cannot be done, with
// errno. The second gives the new file the owner and mode of the old one.
char const* faultOfPlace(std::string const& target);
char const* keepIdentity(int descriptor, struct stat const& old);
// Whether an error keeps a file from being replaced for as long as nobody changes something: not a full disk.
bool isLasting(int error);

// Gives the target the content of a regular file, and sees it to the disk. Null when that is done; else what failed,
// with errno. `begun`: the old content is gone by then.
char const* overwrite(int target, int source, bool& begun);
// Sees the entries of the folder to the disk; false with errno. True where that is not possible.
bool syncFolder(std::string const& folder);

} // namespace STR
