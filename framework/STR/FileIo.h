// STR::FileIo: writes a file through an output stream.
//
// Purpose: writes listings and data files so that a reader of the file never sees half of one.
// - A regular file, or a name that does not exist yet, is replaced safely: the text goes to a new file beside it, and
//   closeFile flushes it, syncs it to disk and renames it over the old one. Owner, group and mode of the old file are
//   kept, a symbolic link stays and its target is replaced. When anything fails before the renaming the old content
//   stands whole. The folder must let the account make files in it.
// - A device or a pipe is written in place, and so are the process's own descriptors by their names (/dev/stdout,
//   /dev/stderr, /dev/fd/N, /proc/self/fd/N). Opening never waits: a pipe that nobody reads does not open.
// Ownership: owns the stream and the open file. Destruction closes like closeFile, but while an exception unwinds the
// stack it gives up instead, so that half a listing never replaces a file.
// Threads: one thread at a time. A regular file's blocks are written by a thread of its own while the next is filled,
// and do not stay in the system's cache; a file of less than 1 MiB starts no thread. A thread of the framework that is
// cancelled gives up writing to a pipe or device that takes no more, if it was opened by its name and not inherited. A
// pipe whose reader has gone is an error like any other: no signal is raised.
// Errors: the framework's log is told once per object, at the latest by closeFile ("ERR_WRITE_FILE", severity 4, file
// and the system's reason); closeFile returns false and the stream's badbit is set. std::bad_alloc travels.
// Complexity: linear in the text. A flush of the stream does not reach the system but on a terminal, so that a
// listing may flush every line.
#pragma once

#include "framework/BAS/String.h"

#include <ios>
#include <memory>
#include <ostream>

namespace STR {

class FileIo {
  public:
    // Opens the named file; `mode` must be std::ios_base::out, which replaces the content.
    FileIo(BAS::String const& fileName, std::ios_base::openmode mode);
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

  private:
    class Buffer;

    void openTarget();
    void openReplacing(std::string const& target);
    int createBeside(std::string const& target, unsigned mode);
    void openInPlace(int descriptor);
    void fail(int error, char const* action);
    bool commit();
    void giveUp() noexcept;

    BAS::String fileNameM;
    std::string targetM;    // what the rename replaces; empty when written in place
    std::string temporaryM; // the file beside it; empty when there is none
    BAS::String failureM;
    bool reportedM = false;
    int exceptionsM;
    std::unique_ptr<Buffer> bufferM;
    std::ostream streamM;
};

} // namespace STR
