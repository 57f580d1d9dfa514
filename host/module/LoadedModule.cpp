#include "host/module/LoadedModule.h"

#include "host/base/HostError.h"

#include <string>

// The members are called through plain function pointers, as the header explains; clang's check that a
// pointer's type is that of the function it holds must not see that.
#if defined(__clang__)
#define NP_CALLS_MEMBERS __attribute__((no_sanitize("function")))
#else
#define NP_CALLS_MEMBERS
#endif

namespace nphost {

namespace {

SharedObject loaded(std::filesystem::path const& file) {
    try {
        return SharedObject(file);
    } catch (HostError const& error) {
        throw HostError(std::string("the module cannot be loaded: ") + error.what());
    }
}

} // namespace

LoadedModule::LoadedModule(std::filesystem::path const& file) : fileM(file), objectM(loaded(file)) {
    find(operationsM.create, "DAT_NumberPortabilityModuleStart");
    // DAT::NumberPortability::PlugIn::search of one and of many, each without and with a method, normalize, print,
    // examine, expectFile, expectAnyFile, visitFile, visitUpcoming, carryOut, stopLoads, progress, explain, serviceStatus
    find(operationsM.search, "_ZN3DAT17NumberPortability6PlugIn6searchERKN3BAS6StringERKNS2_8DateTimeERNS0_21"
                             "NumberPortabilityDataE");
    find(operationsM.searchBy, "_ZN3DAT17NumberPortability6PlugIn6searchERKN3BAS6StringERKNS2_8DateTimeERNS0_21"
                               "NumberPortabilityDataEj");
    find(operationsM.searchMany,
         "_ZN3DAT17NumberPortability6PlugIn6searchESt4spanIKN3BAS6StringELm18446744073709551615EES2_IKNS3_8DateTimeE"
         "Lm18446744073709551615EES2_INS0_21NumberPortabilityDataELm18446744073709551615EES2_IbLm18446744073709551615"
         "EE");
    find(operationsM.searchManyBy,
         "_ZN3DAT17NumberPortability6PlugIn6searchESt4spanIKN3BAS6StringELm18446744073709551615EES2_IKNS3_8DateTimeE"
         "Lm18446744073709551615EES2_INS0_21NumberPortabilityDataELm18446744073709551615EES2_IbLm18446744073709551615"
         "EEj");
    find(operationsM.normalize, "_ZNK3DAT17NumberPortability6PlugIn9normalizeERN3BAS6StringE");
    find(operationsM.print, "_ZN3DAT17NumberPortability6PlugIn5printERSob");
    find(operationsM.examine,
         "_ZN3DAT17NumberPortability6PlugIn7examineERKN3BAS6StringERNS0_11DataSummaryERKSt8functionIFvmNS0_11"
         "LineOutcomeES5_EERKS8_IFbmEE");
    find(operationsM.expectFile, "_ZN3DAT17NumberPortability6PlugIn10expectFileERKN3BAS6StringERKN3STR11FileVersionE");
    find(operationsM.expectAnyFile, "_ZN3DAT17NumberPortability6PlugIn13expectAnyFileEv");
    find(operationsM.visitFile, "_ZN3DAT17NumberPortability6PlugIn9visitFileERKN3BAS6StringERKSt8functionIFvRKNS0_8"
                                "FileLineEEE");
    find(operationsM.visitUpcoming, "_ZN3DAT17NumberPortability6PlugIn13visitUpcomingERKN3BAS8DateTimeERS3_RKSt8"
                                    "functionIFvRKNS2_6StringERKNS0_21NumberPortabilityDataEEE");
    find(operationsM.carryOut, "_ZN3DAT17NumberPortability6PlugIn8carryOutENS1_9ProbeModeERKN3BAS6StringE");
    find(operationsM.stopLoads, "_ZN3DAT17NumberPortability6PlugIn9stopLoadsEv");
    find(operationsM.progress, "_ZNK3DAT17NumberPortability6PlugIn8progressEv");
    find(operationsM.explain, "_ZN3DAT17NumberPortability6PlugIn7explainERKN3BAS6StringE");
    find(operationsM.serviceStatus, "_ZN3DAT17NumberPortability6PlugIn13serviceStatusEv");
}

template <class Function>
void LoadedModule::find(Function*& function, char const* symbol) const {
    function = objectM.find<Function>(symbol);
    if (function == nullptr)
        throw HostError("the module " + fileM.string() + " does not fit this host: it has no " + symbol);
}

std::filesystem::path LoadedModule::folder() const {
    return objectM.place().parent_path();
}

LoadedPlugIn::LoadedPlugIn(LoadedModule const& module, BAS::String const& name)
    : operationsM(module.operationsM), plugInM(static_cast<PLG::DataPlugIn*>(operationsM.create(name))),
      objectM(plugInM.get()) {
    if (plugInM == nullptr)
        throw HostError("the module " + module.fileM.string() + " could not make its plug-in");
}

LoadedPlugIn::~LoadedPlugIn() {
    plugInM->shutdown();
}

NP_CALLS_MEMBERS bool LoadedPlugIn::search(BAS::String const& number, BAS::DateTime const& at,
                                           LoadedModule::Record& out) {
    return operationsM.search(objectM, number, at, out);
}

NP_CALLS_MEMBERS bool LoadedPlugIn::search(BAS::String const& number, BAS::DateTime const& at,
                                           LoadedModule::Record& out, unsigned int method) {
    return operationsM.searchBy(objectM, number, at, out, method);
}

NP_CALLS_MEMBERS bool LoadedPlugIn::search(LoadedModule::Numbers numbers, LoadedModule::Instants instants,
                                           LoadedModule::Records records, LoadedModule::Found found) {
    return operationsM.searchMany(objectM, numbers, instants, records, found);
}

NP_CALLS_MEMBERS bool LoadedPlugIn::search(LoadedModule::Numbers numbers, LoadedModule::Instants instants,
                                           LoadedModule::Records records, LoadedModule::Found found,
                                           unsigned int method) {
    return operationsM.searchManyBy(objectM, numbers, instants, records, found, method);
}

NP_CALLS_MEMBERS void LoadedPlugIn::normalize(BAS::String& number) const {
    operationsM.normalize(objectM, number);
}

NP_CALLS_MEMBERS void LoadedPlugIn::print(std::ostream& out, bool header) {
    operationsM.print(objectM, out, header);
}

NP_CALLS_MEMBERS bool LoadedPlugIn::examine(BAS::String const& file, LoadedModule::Summary& summary,
                                            LoadedModule::Observer const& onReject, LoadedModule::GoOn const& goOn) {
    return operationsM.examine(objectM, file, summary, onReject, goOn);
}

NP_CALLS_MEMBERS void LoadedPlugIn::expectFile(BAS::String const& file, STR::FileVersion const& version) {
    operationsM.expectFile(objectM, file, version);
}

NP_CALLS_MEMBERS void LoadedPlugIn::expectAnyFile() {
    operationsM.expectAnyFile(objectM);
}

NP_CALLS_MEMBERS bool LoadedPlugIn::visitFile(BAS::String const& fileName, LoadedModule::LineVisitor const& visit) {
    return operationsM.visitFile(objectM, fileName, visit);
}

NP_CALLS_MEMBERS bool LoadedPlugIn::visitUpcoming(BAS::DateTime const& after, BAS::DateTime& liveSince,
                                                  LoadedModule::RecordVisitor const& visit) {
    return operationsM.visitUpcoming(objectM, after, liveSince, visit);
}

NP_CALLS_MEMBERS bool LoadedPlugIn::carryOut(LoadedModule::PlugIn::ProbeMode mode, BAS::String const& value) {
    return operationsM.carryOut(objectM, mode, value);
}

NP_CALLS_MEMBERS void LoadedPlugIn::stopLoads() {
    operationsM.stopLoads(objectM);
}

NP_CALLS_MEMBERS LoadedModule::Progress const* LoadedPlugIn::progress() const {
    return operationsM.progress(objectM);
}

NP_CALLS_MEMBERS LoadedModule::Prefixes LoadedPlugIn::explain(BAS::String const& number) {
    return operationsM.explain(objectM, number);
}

NP_CALLS_MEMBERS LoadedModule::ServiceStatus LoadedPlugIn::serviceStatus() {
    return operationsM.serviceStatus(objectM);
}

std::vector<BAS::InstrumentationProbeAttribute*> LoadedPlugIn::probes() const {
    std::vector<BAS::InstrumentationProbeAttribute*> probes;
    BAS::InstrumentationProbeList list;
    plugInM->getInstrumentationProbe(list);
    for (std::size_t i = 0; i < list.length(); ++i)
        if (auto const* const group = dynamic_cast<BAS::InstrumentationProbeCollection*>(list[i]))
            for (std::size_t j = 0; j < group->length(); ++j)
                probes.push_back((*group)[j]);
    return probes;
}

} // namespace nphost
