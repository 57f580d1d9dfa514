// What a module of another version shows: a host that called its operations would find other ones there.
#include "plugin/Operations.h"

extern "C" __attribute__((visibility("default"))) DAT::NumberPortability::Operations const*
NumberPortabilityOperations() {
    static DAT::NumberPortability::Operations table{};
    table.version = DAT::NumberPortability::operationsVersionCM + 1;
    return &table;
}
