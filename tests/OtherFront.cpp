// A front that was built otherwise than the host: NP_DIFFERS says where.
#include "host/service/FrontTable.h"

extern "C" __attribute__((visibility("default"))) nphost::FrontTable const* NumberPortabilityFront() {
    static nphost::FrontTable table{.version = NP_VERSION, .make = nullptr, .destroy = nullptr};
    [[maybe_unused]] auto const version = [] { table.version = "0"; };
    [[maybe_unused]] auto const sizes = [] { ++table.sizes.back(); };
    NP_DIFFERS();
    return &table;
}
