// STR::FileIoTurbo: reads a regular file line by line.
//
// Purpose: the reader of data files. Lines end at a newline, which is not part of them; they may be of any length and
// hold any byte. A last line without a newline is returned like any other; the end of the file shows only at the next
// read, which returns false with feof(stream()) true. What is appended to the file before that read is still read, as
// a line of its own; after it nothing more is.
// Ownership: owns its stream and the memory it reads into; closing, also by destruction, gives both back. fileName()
// stays valid until the next openFile. A line read as a view stays valid until the next readLine, openFile or
// closeFile.
// Threads: none inside; one thread at a time, also for what is done to stream(), which locks nothing.
// Errors: openFile is false for what is not there, not readable or not a regular file (a directory, a pipe, a
// device), and for a name with a NUL; it never waits. readLine is false at the end of the file (feof) and on a read
// error (no feof), also when the error is inside a line, of which nothing is returned then. closeFile is false when the
// system reports an error; the reader is closed all the same. std::bad_alloc travels from a line that memory cannot
// hold; the reader stays usable.
// Complexity: a read is linear in the line; the file is read in blocks. A reader that has read holds a block, or up to
// about twice its longest line, until it is closed.
#pragma once

#include "framework/BAS/String.h"
#include "framework/STR/FileVersion.h"

#include <cstddef>
#include <cstdio>
#include <ios>
#include <string_view>

namespace STR {

class FileIoTurbo {
  public:
    // The only mode there is, std::ios_base::in as a number.
    static constexpr long readModeCM = 8;

    FileIoTurbo() = default;
    FileIoTurbo(FileIoTurbo const&) = delete;
    FileIoTurbo& operator=(FileIoTurbo const&) = delete;
    ~FileIoTurbo();

    // Replaces a file that is still open. The name is kept also when the file does not open. False for another mode.
    bool openFile(BAS::String const& fileName, long mode);
    bool readLine(BAS::String& line);      // a copy
    bool readLine(std::string_view& line); // no copy; both leave `line` alone when they return false
    bool closeFile();                      // true when nothing is open

    bool isOpen() const { return streamM != nullptr; }
    BAS::String const& fileName() const { return fileNameM; } // as given to the last openFile
    std::FILE* stream() const { return streamM; }             // null when nothing is open; only to be asked, not read
    unsigned long fileSize() const { return fileSizeM; }      // bytes, when it was last opened
    FileVersion version() const;                              // of the open file, at this moment
    // Whether what was read last was a line with its newline, or nothing yet.
    bool lastLineComplete() const { return lastLineCompleteM; }

  private:
    bool takeRest(std::string_view& line);
    bool fill();
    bool showEnd();
    void makeRoom();

    BAS::String fileNameM;
    std::FILE* streamM = nullptr; // its descriptor is what is read; itself only to show the end of the file
    char streamByteM = 0;         // the stream's buffer
    unsigned long fileSizeM = 0;
    char* bytesM = nullptr; // what was read; from malloc, so that a large one grows in place
    std::size_t capacityM = 0;
    std::size_t beginM = 0, endM = 0; // of what was read and not yet returned
    bool endReachedM = false;         // the latest read found nothing more
    bool lastLineCompleteM = true;
};

} // namespace STR
