// nphost::HostError: why a command cannot do its work.
//
// Purpose: ends the command with exit status 2; what() is the one line that standard error gets, without the program's
// name and without a newline.
// Ownership: a value.
// Threads: none inside.
// Errors: construction throws std::bad_alloc.
// Complexity: constant.
#pragma once

#include <stdexcept>

namespace nphost {

class HostError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

} // namespace nphost
