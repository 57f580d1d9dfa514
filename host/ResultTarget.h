// nphost::ResultTarget: where results go: a file that is replaced as a whole, or standard output.
//
// Purpose: a file is written beside its name and takes it in finish, so that nobody reads half of one; standard output
// is written as it comes.
// Ownership: owns the file; borrows standard output. Destruction while an exception unwinds the stack leaves a file of
// that name as it was; otherwise finish comes before.
// Threads: one thread at a time.
// Errors: HostError in one line that names the file; OutputClosed when nobody reads standard output any more.
// Complexity: linear in the bytes.
#pragma once

#include "framework/STR/FileIo.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace nphost {

// Whoever read standard output has gone.
struct OutputClosed {};

class ResultTarget {
  public:
    // Without a name: standard output. The process ignores SIGPIPE meanwhile.
    explicit ResultTarget(std::optional<std::string> const& file);
    ResultTarget(ResultTarget const&) = delete;
    ResultTarget& operator=(ResultTarget const&) = delete;
    ~ResultTarget() = default;

    void write(std::string_view text);
    void finish();

  private:
    [[noreturn]] void fail() const;

    std::string nameM;
    std::unique_ptr<STR::FileIo> fileM; // null: standard output
};

} // namespace nphost
