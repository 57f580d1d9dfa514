#include "host/records/FileRoles.h"

#include "host/base/HostError.h"
#include "host/base/StandardError.h"
#include "host/base/Text.h"
#include "host/records/ResultTarget.h"
#include "host/records/SameFile.h"

#include <cerrno>
#include <filesystem>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace nphost {

namespace {

[[noreturn]] void failWith(std::string const& file, char const* what, int error) {
    throw HostError(visible(file) + what + std::system_category().message(error));
}

// Devices and pipes may have several roles: /dev/null takes everything.
bool isSameRegularFile(std::string const& one, std::string const& other) {
    std::error_code error;
    return !other.empty() && isSameFile(one, other) && !std::filesystem::is_other(one, error);
}

// Only regular files: on a terminal, or in a pipe, input and output may well be the same.
bool isStandardOutputFile(std::string const& file) {
    struct stat named = {};
    struct stat out = {};
    bool const known = (file == "-" ? fstat(STDIN_FILENO, &named) : stat(file.c_str(), &named)) == 0;
    return known && fstat(STDOUT_FILENO, &out) == 0 && S_ISREG(named.st_mode) && named.st_dev == out.st_dev &&
           named.st_ino == out.st_ino;
}

// A file is replaced by one beside it, so its folder counts, too.
void checkWritable(std::string const& file) {
    std::error_code error;
    auto const status = std::filesystem::status(file, error);
    if (std::filesystem::is_directory(status))
        failWith(file, " cannot be written: ", EISDIR);
    if (std::filesystem::is_socket(status))
        throw HostError(visible(file) + " cannot be written: it is a socket");
    if (std::filesystem::exists(status) && access(file.c_str(), W_OK) != 0)
        failWith(file, " cannot be written: ", errno);
    // A device or pipe is written itself, and its folder does not matter.
    if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status))
        return;
    auto const whole = std::filesystem::weakly_canonical(std::filesystem::absolute(file, error), error);
    if (!error && access(whole.parent_path().c_str(), W_OK | X_OK) != 0)
        failWith(file, " cannot be written: its folder: ", errno);
}

} // namespace

void FileRoles::checkResult(std::string const& written, bool isOutput) const {
    for (std::string const& input : inputs)
        if (isSameRegularFile(written, input == "-" ? "/dev/stdin" : input))
            throw HostError(visible(written) + " is to be written, but is one of the inputs");
    for (Kept const& other : kept)
        if (!(isOutput && other.mayBeOutput) && isSameRegularFile(written, other.file))
            throw HostError(visible(written) + " is to be written, but is " + other.what);
    checkWritable(written);
}

// Standard error is looked at before the files are: what is wrong with one would be written into an input.
void FileRoles::check() const {
    // Rows of rejects among the records, or in the midst of the summary's JSON, would spoil both.
    if (rejects && isStandardOutput(*rejects))
        throw HostError("--rejects: standard output has the records or the summary; name a file");
    for (std::string const& input : inputs)
        StandardError::keepOff(input == "-" ? "/dev/stdin" : input, "one of the inputs");
    for (std::string const& input : inputs)
        if (input != "-" && access(input.c_str(), R_OK) != 0)
            failWith(input, ": cannot be opened: ", errno);
    if (output)
        checkResult(*output, true);
    if (rejects)
        checkResult(*rejects, false);
    if (output && rejects && isSameRegularFile(*rejects, *output))
        throw HostError(visible(*rejects) + " cannot be the output and the file of rejects");
    if (output)
        return;
    if (rejects && isStandardOutputFile(*rejects))
        throw HostError("standard output is the file of rejects, " + visible(*rejects));
    for (std::string const& input : inputs)
        if (isStandardOutputFile(input))
            throw HostError("standard output is one of the inputs");
    for (Kept const& other : kept)
        if (!other.mayBeOutput && isStandardOutputFile(other.file))
            throw HostError(std::string("standard output is ") + other.what);
}

// The files are in place and cannot be taken back: who reads the status alone must not think that nothing happened.
void writeSummaryOf(std::optional<std::string> const& output, bool whole, std::string const& object) {
    try {
        writeSummary(object, !output);
    } catch (HostError const& error) {
        throw HostError(std::string(error.what()) + (whole ? "; the files are written, only the summary is not"
                                                           : "; the work was stopped: the output is not written"));
    }
}

} // namespace nphost
