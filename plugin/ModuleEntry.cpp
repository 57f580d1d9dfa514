// The module's functions that are found by their names: the two entry functions of the framework's, and the table of
// operations.
#include "plugin/Operations.h"

namespace {

// The store is compiled to count bits by an instruction that x86-64 processors have had since 2008. On an older one the
// first look-up would end the process; no plug-in is the milder refusal. Asked before anything of the store is touched.
bool fitsProcessor() noexcept {
    return __builtin_cpu_supports("popcnt") != 0;
}

using DAT::NumberPortability::NumberPortabilityData;
using DAT::NumberPortability::Operations;
using DAT::NumberPortability::PlugIn;

// Null when it could not be made.
template <class... Arguments>
PlugIn* created(Arguments const&... arguments) noexcept {
    if (!fitsProcessor())
        return nullptr;
    try {
        return new PlugIn(arguments...);
    } catch (...) {
        return nullptr;
    }
}

// The framework takes the result for a PLG::DataPlugIn and owns it.
PLG::DataPlugIn* forFramework(PlugIn* plugIn) {
    return plugIn;
}

constexpr char const* secondNameCM = "10008";

using Numbers = std::span<BAS::String const>;
using Instants = std::span<BAS::DateTime const>;
using Records = std::span<NumberPortabilityData>;
using Found = std::span<bool>;
using Details = std::span<DAT::NumberPortability::LookUpDetail>;

constexpr Operations operationsCM = {
    .create = [](BAS::String const& name) { return created(name, secondNameCM); },
    .search = [](PlugIn& plugIn, BAS::String const& number, BAS::DateTime const& at,
                 NumberPortabilityData& out) { return plugIn.search(number, at, out); },
    .searchBy = [](PlugIn& plugIn, BAS::String const& number, BAS::DateTime const& at, NumberPortabilityData& out,
                   unsigned int method) { return plugIn.search(number, at, out, method); },
    .searchMany = [](PlugIn& plugIn, Numbers numbers, Instants instants, Records records,
                     Found found) { return plugIn.search(numbers, instants, records, found); },
    .searchManyBy = [](PlugIn& plugIn, Numbers numbers, Instants instants, Records records, Found found,
                       unsigned int method) { return plugIn.search(numbers, instants, records, found, method); },
    .describeMany = [](PlugIn& plugIn, Numbers numbers, Instants instants,
                       Details details) { return plugIn.describeMany(numbers, instants, details); },
    .describeManyBy = [](PlugIn& plugIn, Numbers numbers, Instants instants, Details details,
                         unsigned int method) { return plugIn.describeMany(numbers, instants, details, method); },
    .normalize = [](PlugIn const& plugIn, BAS::String& number) { plugIn.normalize(number); },
    .print = [](PlugIn& plugIn, std::ostream& out, bool header) { plugIn.print(out, header); },
    .examine = [](PlugIn& plugIn, BAS::String const& file, DAT::NumberPortability::DataSummary& summary,
                  DAT::NumberPortability::RejectObserver const& onReject,
                  DAT::NumberPortability::GoOn const& goOn) { return plugIn.examine(file, summary, onReject, goOn); },
    .expectFile = [](PlugIn& plugIn, BAS::String const& file,
                     STR::FileVersion const& version) { plugIn.expectFile(file, version); },
    .expectAnyFile = [](PlugIn& plugIn) { plugIn.expectAnyFile(); },
    .visitFile = [](PlugIn& plugIn, BAS::String const& file,
                    DAT::NumberPortability::LineVisitor const& visit) { return plugIn.visitFile(file, visit); },
    .visitUpcoming =
        [](PlugIn& plugIn, BAS::DateTime const& after, BAS::DateTime& liveSince,
           DAT::NumberPortability::RecordVisitor const& visit) {
            return plugIn.visitUpcoming(after, liveSince, visit);
        },
    .carryOut = [](PlugIn& plugIn, PlugIn::ProbeMode mode,
                   BAS::String const& value) { return plugIn.carryOut(mode, value); },
    .stopLoads = [](PlugIn& plugIn) { plugIn.stopLoads(); },
    .explain = [](PlugIn& plugIn, BAS::String const& number) { return plugIn.explain(number); },
    .serviceStatus = [](PlugIn& plugIn) { return plugIn.serviceStatus(); },
    .progress = [](PlugIn const& plugIn) { return plugIn.progress(); },
};

} // namespace

#define NP_ENTRY extern "C" __attribute__((visibility("default")))

NP_ENTRY void* DAT_NumberPortabilityModuleStart(BAS::String const& name) {
    return forFramework(created(name, secondNameCM));
}

NP_ENTRY void* ModuleStartNL() {
    return forFramework(created());
}

NP_ENTRY Operations const* NumberPortabilityOperations() {
    return &operationsCM;
}
