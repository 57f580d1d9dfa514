// The module's two entry functions, found by the framework by their unmangled names.
#include "plugin/PlugIn.h"

namespace {

// The store is compiled to count bits by an instruction that x86-64 processors have had since 2008. On an older one the
// first look-up would end the process; no plug-in is the milder refusal. Asked before anything of the store is touched.
bool fitsProcessor() noexcept {
    return __builtin_cpu_supports("popcnt") != 0;
}

// The framework takes the result for a PLG::DataPlugIn and owns it. Null when it could not be made.
template <class Create>
void* created(Create&& create) noexcept {
    if (!fitsProcessor())
        return nullptr;
    try {
        PLG::DataPlugIn* const plugIn = create();
        return plugIn;
    } catch (...) {
        return nullptr;
    }
}

} // namespace

#define NP_ENTRY extern "C" __attribute__((visibility("default")))

NP_ENTRY void* DAT_NumberPortabilityModuleStart(BAS::String const& name) {
    return created([&] { return new DAT::NumberPortability::PlugIn(name, "10008"); });
}

NP_ENTRY void* ModuleStartNL() {
    return created([] { return new DAT::NumberPortability::PlugIn; });
}
