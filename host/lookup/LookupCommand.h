// nphost lookup: to which network did a number belong at an instant?
//
// Purpose: answers each question with one line: number, instant, valid-from and network, separated by tabs; "-" for
// the last two when no record holds.
// - Numbers as arguments: all for one instant.
// - Standard input: one question a line, "number [instant [method]]" (host/fields/QuestionLine.h), for as long as it
//   lasts. The answers come in the order of the questions. Questions are answered many at once; whenever no further one
//   has arrived, all that have are answered and written, so that another program can ask and wait. A line that is no
//   question is answered with its own number and instant and two "-", and reported.
// A number that is not found and not in stored form is shown with a hint.
// Units: instants are 14 digits in the answers, whatever they were in the question.
// Threads: one thread, and that of the progress line.
// Errors: HostError, ConfigurationError, std::bad_alloc.
// Complexity: a look-up a line; no allocation a line but what the network's name needs.
#pragma once

#include "host/base/Arguments.h"

namespace nphost {

extern Command const lookupCommandCM;

} // namespace nphost
