// nphost::ResultTarget: where results go: a file that is replaced as a whole, or standard output, a pipe or a device.
//
// Purpose: a file is written beside its name and takes it in finish, so that nobody reads half of one; all else is
// written as it comes. Where several files belong together, all are synced before the first is put in place.
// PieceTarget gathers small texts, and compresses where the name asks for it.
// Ownership: owns the file; borrows standard output. Destruction before finish leaves a file of that name as it was.
// Threads: one thread at a time.
// Errors: HostError in one line that names the file; Interrupted when nobody reads standard output or the pipe any
// more, or a signal came while it waited for a reader.
// Complexity: linear in the bytes.
#pragma once

#include "framework/STR/FileIo.h"
#include "host/records/Compression.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unistd.h>

namespace nphost {

// "-", "/dev/stdout" and the other names of it.
bool isStandardOutput(std::string_view name);

// None for a name of standard output.
std::optional<std::string> fileOf(std::optional<std::string> const& name);

class ResultTarget {
  public:
    // Without a name: standard output. The process ignores SIGPIPE meanwhile.
    explicit ResultTarget(std::optional<std::string> const& file);
    ResultTarget(ResultTarget const&) = delete;
    ResultTarget& operator=(ResultTarget const&) = delete;
    ~ResultTarget();

    void write(std::string_view text);
    // Sees all to the disk; nothing is written afterwards.
    void sync();
    // Puts a file in place. After sync it has little to fail of.
    void finish();

  private:
    [[noreturn]] void fail() const;

    std::string nameM;
    std::unique_ptr<STR::FileIo> fileM; // null: standard output
    int descriptorM = STDOUT_FILENO;    // written as it comes; -1: by the file's stream
};

// Texts in large pieces, each compressed by the suffix of the file's name.
class PieceTarget {
  public:
    explicit PieceTarget(std::optional<std::string> const& file)
        : targetM(file), compressorM(file ? compressionOfName(*file) : Compression::NONE) {}

    // Where texts are appended; write now and then what has come together.
    std::string& buffer() { return bufferM; }
    void writeLarge() {
        if (bufferM.size() > sizeCM)
            write();
    }
    void write();

    // As ResultTarget's, the first with all that is left; compressed, a file of nothing is not without a byte.
    void sync();
    void finish() { targetM.finish(); }

  private:
    static constexpr std::size_t sizeCM = 256UL * 1024;

    ResultTarget targetM;
    Compressor compressorM;
    bool writtenM = false;
    std::string bufferM;
    std::string placeM;
};

// Writes the JSON object of a summary: to standard output, or, if that has the records, to standard error.
void writeSummary(std::string const& object, bool outputHasRecords);

} // namespace nphost
