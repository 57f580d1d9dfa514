// nphost::reportOwn: a report of the host's own; its text is in the message catalogue.
//
// Threads: any. Errors: std::bad_alloc. Complexity: that of the log.
#pragma once

#include "framework/BAS/Status.h"

namespace nphost {

void reportOwn(char const* identifier, BAS::Status::Severity severity, BAS::Status::Arguments const& arguments);

} // namespace nphost
