// What may stand in the configuration file: the sections that the program's components declare.
//
// Purpose: every command reads the whole file and refuses what no component knows, be it that of another command.
// Threads: constant.
#pragma once

#include "host/config/Configuration.h"

namespace nphost {

extern Sections const sectionsCM;

} // namespace nphost
