// nphost::QuestionError: why a question cannot be answered, or a command not be taken.
//
// Purpose: who asked is told what(), a sentence without its full stop; nothing else is wrong.
// Threads: a value. Errors: std::bad_alloc.
#pragma once

#include <stdexcept>

namespace nphost {

class QuestionError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

} // namespace nphost
