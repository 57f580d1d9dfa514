// nphost::DataFileLock: says that this daemon is the one that rewrites a data file.
//
// Purpose: two daemons that add deltas to one data file would lose each other's records, for each writes what it
// serves. So deltas need this lock; look-ups, reloads and the start do not, so that a lock that somebody else holds
// keeps no daemon from serving. It is an advisory lock (flock) on .NAME.lock beside the file, its links followed,
// because that outlives the renaming by which the file is replaced. Where no file can be made there, or the data file
// is mounted by itself, it is on the data file, which then is overwritten in place and stays the same.
// Ownership: owns lock and lock file. Destruction gives both back; after a kill the file stays and harms nobody.
// Threads: any.
// Errors: none; what keeps the lock away is the reason. std::bad_alloc.
// Complexity: a few system calls.
#pragma once

#include "framework/BAS/Mutex.h"
#include "host/base/FileDescriptor.h"

#include <filesystem>
#include <string>

namespace nphost {

class DataFileLock {
  public:
    // Tries to take it. An empty name needs none.
    explicit DataFileLock(std::filesystem::path dataFile);
    DataFileLock(DataFileLock const&) = delete;
    DataFileLock& operator=(DataFileLock const&) = delete;
    ~DataFileLock();

    // Takes it if it is not held, or not any more, because its file is gone. True when it is held then.
    bool take();
    // Why it was not to be had the last time; empty when it was.
    std::string reason() const;

  private:
    bool isHeld() const NP_REQUIRES(lockM);
    void lockBeside(std::string const& target) NP_REQUIRES(lockM);
    void lockFile(std::string const& file, int flags) NP_REQUIRES(lockM);

    std::filesystem::path const dataFileM;
    mutable BAS::Mutex lockM;
    FileDescriptor descriptorM NP_GUARDED_BY(lockM);
    std::string lockedM NP_GUARDED_BY(lockM); // the file of the lock
    bool isBesideM NP_GUARDED_BY(lockM) = false;
    std::string reasonM NP_GUARDED_BY(lockM);
};

} // namespace nphost
