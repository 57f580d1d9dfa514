// STR::FileIo: writes a file through an output stream.
//
// Purpose: writes listings and data files so that a reader of the file never sees half of one.
// - A regular file, or a name that does not exist yet, is replaced safely: the text goes to a new file beside it, and
//   closeFile flushes it, syncs it to disk and renames it over the old one. Owner, group and mode of the old file are
//   kept, a symbolic link stays and its target is replaced. When anything fails before the renaming the old content
//   stands whole. The folder must let the account make files in it.
// - A file that cannot be replaced (FilePlace.h) is left as it is; or, with IF_NEEDED, overwritten in place by
//   closeFile, when the whole text is in another file and the disk has room for it. The process or the machine ending
//   within that moment can cost the file.
// - A device or a pipe is written in place, and so are the process's own descriptors by their names (/dev/stdout,
//   /dev/stderr, /dev/fd/N, /proc/self/fd/N). Opening never waits: a pipe that nobody reads does not open.
// Ownership: owns the stream and the open file. Destruction closes like closeFile, but while an exception unwinds the
// stack it gives up instead, so that half a listing never replaces a file. The file beside is locked (flock) while it
// is there.
// Threads: one thread at a time. A regular file's blocks are written by a thread of its own while the next is filled,
// and do not stay in the system's cache; a file of less than 1 MiB starts no thread. A thread of the framework that is
// cancelled gives up writing to a pipe or device that takes no more, if it was opened by its name, or else when a
// signal ends the write that waits. A pipe whose reader has gone is an error like any other: no signal is raised.
// Errors: the framework's log is told once per object, at the latest by closeFile ("ERR_WRITE_FILE", severity 4, file
// and the reason); closeFile returns false and the stream's badbit is set. std::bad_alloc travels.
// Complexity: linear in the text. A flush of the stream does not reach the system but on a terminal, so that a
// listing may flush every line.
#pragma once

#include "framework/BAS/String.h"
#include "framework/STR/FileVersion.h"

#include <ios>
#include <memory>
#include <ostream>
#include <string>

struct stat;

namespace STR {

class FileIo {
  public:
    // Whether a regular file that cannot be replaced is overwritten in place.
    enum InPlace { NEVER, IF_NEEDED };

    // Opens the named file; `mode` must be std::ios_base::out, which replaces the content.
    FileIo(BAS::String const& fileName, std::ios_base::openmode mode, InPlace inPlace = NEVER);
    FileIo(FileIo const&) = delete;
    FileIo& operator=(FileIo const&) = delete;
    ~FileIo();

    bool isOpen() const;
    std::ostream& stream() { return streamM; }

    // What a device, a pipe or an own descriptor is written through, for those who wait for it in their own way and
    // leave the stream alone; -1 when a file is replaced, or nothing is open.
    int descriptorInPlace() const;

    // Writes what is left and sees a regular file to the disk, so that closeFile has only to put it in place; false,
    // with failure(), when that is impossible. Nothing is written afterwards.
    bool syncFile();

    // Writes what is left and closes; true when the whole text stands where it should. True when closed before, with
    // success.
    bool closeFile();

    // Closes and leaves an old file as it was; what a device or a pipe has got stays. Not after closeFile.
    void discardFile() noexcept { giveUp(); }

    // Why it failed, as the system puts it; empty while nothing has. Complete after closeFile.
    BAS::String const& failure() const { return failureM; }

    // After closeFile. Why a file was not replaced but overwritten; empty when it was not.
    BAS::String const& inPlaceReason() const { return inPlaceReasonM; }
    // The regular file that was written, at the end of it; all 0 when none was touched.
    FileVersion const& version() const { return versionM; }

  private:
    class Buffer;

    void openTarget();
    void openReplacing(std::string const& target);
    void createTemporary(struct stat const* old);
    void openInPlace(int descriptor);
    bool replaces() const { return !targetM.empty() && inPlaceReasonM.empty(); }
    bool cannotReplace(int error, char const* action);
    void fail(int error, char const* action);
    bool commit();
    bool overwriteTarget();
    void noteVersion(int descriptor);
    void giveUp() noexcept;

    BAS::String fileNameM;
    InPlace inPlaceM;
    std::string targetM;    // the regular file whose content is to change; empty for a device or pipe
    std::string temporaryM; // the file beside it; empty when there is none
    bool mayOverwriteM = false;
    BAS::String inPlaceReasonM;
    FileVersion versionM;
    BAS::String failureM;
    bool reportedM = false;
    int exceptionsM;
    std::unique_ptr<Buffer> bufferM;
    std::ostream streamM;
};

} // namespace STR
