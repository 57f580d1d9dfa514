#include "framework/PLG/DataPlugIn.h"

namespace PLG {

bool StdPlugIn::init() {
    return true;
}

bool StdPlugIn::finalInit() {
    return true;
}

bool StdPlugIn::shutdown() {
    return true;
}

bool StdPlugIn::startup() {
    return true;
}

bool StdPlugIn::install() {
    return true;
}

bool StdPlugIn::uninstall() {
    return true;
}

void DataPlugIn::loadDependencies(RWTValOrderedVector<BAS::String>&) {}

} // namespace PLG
