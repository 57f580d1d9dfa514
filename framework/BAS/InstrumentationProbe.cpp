#include "framework/BAS/InstrumentationProbeGroup.h"

namespace BAS {

bool InstrumentationProbeValueIf::getValue(String&, bool) const {
    return false;
}

} // namespace BAS
