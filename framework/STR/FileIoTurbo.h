// STR::FileIoTurbo: reads a regular file line by line.
//
// Purpose: the reader of data files. Lines end at a newline, which is not part of them; they may be of any length and
// hold any byte. A last line without a newline is returned like any other; the end of the file shows only at the next
// read, which returns false with feof(stream()) true.
// Ownership: owns its stream; destruction closes it. fileName() stays valid until the next openFile.
// Threads: none inside; one thread at a time.
// Errors: openFile is false for what is not there, not readable or not a regular file (a directory, a pipe, a
// device), and for a name with a NUL; it never waits. readLine is false at the end of the file (feof) and on a read error (no feof). closeFile is
// false when the system reports an error; the reader is closed all the same. std::bad_alloc travels.
// Complexity: a read is linear in the line; the file is read in blocks.
#pragma once

#include "framework/BAS/String.h"

#include <cstddef>
#include <cstdio>
#include <ios>
#include <memory>

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
    bool readLine(BAS::String& line);
    bool closeFile(); // true when nothing is open

    bool isOpen() const { return streamM != nullptr; }
    BAS::String const& fileName() const { return fileNameM; } // as given to the last openFile
    std::FILE* stream() const { return streamM; }             // null when nothing is open
    unsigned long fileSize() const { return fileSizeM; }      // bytes, when it was last opened

  private:
    static constexpr std::size_t blockSizeCM = 256UL * 1024;

    BAS::String fileNameM;
    std::FILE* streamM = nullptr;
    unsigned long fileSizeM = 0;
    std::unique_ptr<char[]> blockM; // the stream's buffer
    char* lineM = nullptr;          // getline's buffer, and its size
    std::size_t lineCapacityM = 0;
};

} // namespace STR
