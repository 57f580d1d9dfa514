#include "host/module/LoadedModule.h"

#include "host/base/HostError.h"

#include <string>

namespace nphost {

namespace {

SharedObject loaded(std::filesystem::path const& file) {
    try {
        return SharedObject(file);
    } catch (HostError const& error) {
        throw HostError(std::string("the module cannot be loaded: ") + error.what());
    }
}

DAT::NumberPortability::Operations const& operationsOf(SharedObject const& module, std::filesystem::path const& file) {
    constexpr char const* name = "NumberPortabilityOperations";
    auto* const operations = module.find<decltype(NumberPortabilityOperations)>(name);
    // The table's version and sizes are asked before anything is called: what does not fit would crash, or answer
    // wrongly.
    std::string const fault =
        operations == nullptr ? std::string("it has no ") + name : DAT::NumberPortability::misfit(*operations());
    if (!fault.empty())
        throw HostError("the module " + file.string() + " does not fit this host: " + fault);
    return *operations();
}

} // namespace

// The object is mapped before its table is asked for, and unmapped last.
LoadedModule::LoadedModule(std::filesystem::path const& file)
    : fileM(file), objectM(loaded(file)), operationsM(operationsOf(objectM, file)) {}

std::filesystem::path LoadedModule::folder() const {
    return objectM.place().parent_path();
}

LoadedPlugIn::LoadedPlugIn(LoadedModule const& module, BAS::String const& name)
    : operationsM(module.operationsM), objectM(operationsM.create(name)), plugInM(objectM) {
    // No exception crosses the border here: null is all that the module says.
    if (plugInM == nullptr)
        throw HostError("the module " + module.fileM.string() + " could not make its plug-in");
}

LoadedPlugIn::~LoadedPlugIn() {
    // Before it is deleted: its worker ends here, while everything that it uses is still whole.
    plugInM->shutdown();
}

// Through the module's table: the host has no symbol of the plug-in's, only its virtual functions.
bool LoadedPlugIn::search(BAS::String const& number, BAS::DateTime const& at, LoadedModule::Record& out) {
    return operationsM.search(*objectM, number, at, out);
}

bool LoadedPlugIn::search(BAS::String const& number, BAS::DateTime const& at, LoadedModule::Record& out,
                          unsigned int method) {
    return operationsM.searchBy(*objectM, number, at, out, method);
}

bool LoadedPlugIn::search(LoadedModule::Numbers numbers, LoadedModule::Instants instants, LoadedModule::Records records,
                          LoadedModule::Found found) {
    return operationsM.searchMany(*objectM, numbers, instants, records, found);
}

bool LoadedPlugIn::search(LoadedModule::Numbers numbers, LoadedModule::Instants instants, LoadedModule::Records records,
                          LoadedModule::Found found, unsigned int method) {
    return operationsM.searchManyBy(*objectM, numbers, instants, records, found, method);
}

bool LoadedPlugIn::describe(LoadedModule::Numbers numbers, LoadedModule::Instants instants,
                            LoadedModule::Details details) {
    return operationsM.describeMany(*objectM, numbers, instants, details);
}

bool LoadedPlugIn::describe(LoadedModule::Numbers numbers, LoadedModule::Instants instants,
                            LoadedModule::Details details, unsigned int method) {
    return operationsM.describeManyBy(*objectM, numbers, instants, details, method);
}

void LoadedPlugIn::normalize(BAS::String& number) const {
    operationsM.normalize(*objectM, number);
}

void LoadedPlugIn::print(std::ostream& out, bool header) {
    operationsM.print(*objectM, out, header);
}

bool LoadedPlugIn::examine(BAS::String const& file, LoadedModule::Summary& summary,
                           LoadedModule::Observer const& onReject, LoadedModule::GoOn const& goOn) {
    return operationsM.examine(*objectM, file, summary, onReject, goOn);
}

void LoadedPlugIn::expectFile(BAS::String const& file, STR::FileVersion const& version) {
    operationsM.expectFile(*objectM, file, version);
}

void LoadedPlugIn::expectAnyFile() {
    operationsM.expectAnyFile(*objectM);
}

bool LoadedPlugIn::visitFile(BAS::String const& fileName, LoadedModule::LineVisitor const& visit) {
    return operationsM.visitFile(*objectM, fileName, visit);
}

bool LoadedPlugIn::visitUpcoming(BAS::DateTime const& after, BAS::DateTime& liveSince,
                                 LoadedModule::RecordVisitor const& visit) {
    return operationsM.visitUpcoming(*objectM, after, liveSince, visit);
}

bool LoadedPlugIn::carryOut(LoadedModule::PlugIn::ProbeMode mode, BAS::String const& value) {
    return operationsM.carryOut(*objectM, mode, value);
}

void LoadedPlugIn::stopLoads() {
    operationsM.stopLoads(*objectM);
}

LoadedModule::Progress const* LoadedPlugIn::progress() const {
    return operationsM.progress(*objectM);
}

LoadedModule::Prefixes LoadedPlugIn::explain(BAS::String const& number) {
    return operationsM.explain(*objectM, number);
}

LoadedModule::ServiceStatus LoadedPlugIn::serviceStatus() {
    return operationsM.serviceStatus(*objectM);
}

std::vector<BAS::InstrumentationProbeAttribute*> LoadedPlugIn::probes() const {
    std::vector<BAS::InstrumentationProbeAttribute*> probes;
    BAS::InstrumentationProbeList list;
    plugInM->getInstrumentationProbe(list);
    for (std::size_t i = 0; i < list.length(); ++i)
        // Probes come in groups; a host shows them singly.
        if (auto const* const group = dynamic_cast<BAS::InstrumentationProbeCollection*>(list[i]))
            for (std::size_t j = 0; j < group->length(); ++j)
                probes.push_back((*group)[j]);
    return probes;
}

} // namespace nphost
