// The module as a shared object: what it shows, how its virtual tables lie, and that it comes and goes without trace.
#include "tests/LoadedPlugIn.h"

#include <array>
#include <cstring>
#include <set>

namespace {

// The slot of a virtual operation in its class's table (Itanium C++ ABI: one more than the offset in bytes).
template <class Operation>
std::size_t slotOf(Operation operation) {
    std::size_t offset = 0;
    std::memcpy(&offset, &operation, sizeof offset);
    return (offset - 1) / sizeof(void*);
}

std::string commandOutput(std::string const& command) {
    std::string output;
    FILE* const pipe = popen(command.c_str(), "r"); // NOLINT(cert-env33-c)
    std::array<char, 4096> bytes{};
    while (std::size_t const length = fread(bytes.data(), 1, bytes.size(), pipe))
        output.append(bytes.data(), length);
    pclose(pipe);
    return output;
}

class Module : public LoadedPlugIn {};

} // namespace

TEST_F(Module, VirtualTablesComeInTheFrameworksOrder) {
    using Object = BAS::RegisteredObject;
    using PlugIn = PLG::DataPlugIn;
    using Control = PLG::PlugInControlIf;
    std::vector<std::size_t> const slots{
        slotOf(&Object::isUsable),
        slotOf(&Object::receiveMessage),
        slotOf(&Object::receiveRequest),
        slotOf(static_cast<void (Object::*)(BAS::String const&)>(&Object::update)),
        slotOf(static_cast<void (Object::*)(BAS::Status const&)>(&Object::update)),
        slotOf(&Object::getInstrumentationProbe),
        slotOf(&Object::readRegistry),
        slotOf(&Object::evalEnvironment),
        slotOf(&Object::setEDRContainerIndices),
        slotOf(&Object::registryUpdate),
        slotOf(&Object::updateBoolFlag),
        slotOf(&Object::setBoolFlag),
        slotOf(&PlugIn::init),
        slotOf(&PlugIn::finalInit),
        slotOf(static_cast<bool (PLG::StdPlugIn::*)()>(&PLG::StdPlugIn::shutdown)),
        slotOf(static_cast<bool (PLG::StdPlugIn::*)()>(&PLG::StdPlugIn::startup)),
        slotOf(static_cast<bool (PLG::StdPlugIn::*)()>(&PLG::StdPlugIn::install)),
        slotOf(static_cast<bool (PLG::StdPlugIn::*)()>(&PLG::StdPlugIn::uninstall)),
        slotOf(&PlugIn::loadDependencies),
    };
    for (std::size_t i = 0; i < slots.size(); ++i)
        EXPECT_EQ(slots[i], i + 2) << "after the two entries of the destructor";
    EXPECT_EQ((std::vector{slotOf(&Control::install), slotOf(&Control::uninstall), slotOf(&Control::startup),
                           slotOf(&Control::shutdown)}),
              (std::vector<std::size_t>{2, 3, 4, 5}));

    // The inherited steps that the plug-in leaves to the framework's defaults.
    create();
    RWTValOrderedVector<BAS::String> names;
    plugIn->loadDependencies(names);
    EXPECT_EQ(names.length(), 0U);
    EXPECT_TRUE(plugIn->finalInit() && plugIn->startup() && plugIn->install() && plugIn->uninstall());
}

TEST_F(Module, ShowsItsEntryFunctionsAndThePlugInOnly) {
    std::string const symbols = commandOutput("nm -D --defined-only -C '" NP_MODULE "' | cut -c20-");
    std::set<std::string> unexpected;
    std::size_t entries = 0;
    std::istringstream lines(symbols);
    for (std::string symbol; std::getline(lines, symbol);) {
        if (symbol == "DAT_NumberPortabilityModuleStart" || symbol == "ModuleStartNL" ||
            symbol == "NumberPortabilityOperations")
            ++entries;
        else if (symbol.find("DAT::NumberPortability::PlugIn") == std::string::npos)
            unexpected.insert(symbol);
    }
    EXPECT_EQ(entries, 3U);
    EXPECT_EQ(unexpected, std::set<std::string>());
}

TEST_F(Module, ComesAndGoesAHundredTimes) {
    set("SearchMethod", "0");
    for (int i = 0; i < 100; ++i) {
        void* const again = dlopen(NP_MODULE, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(again, nullptr);
        createInitialised();
        EXPECT_EQ(answer("0044171"), "A");
        if (i % 2 == 0)
            plugIn->shutdown();
        plugIn.reset();
        dlclose(again);
    }
}

// In a process of its own, because here the fixture keeps the module loaded.
TEST(ModuleAlone, IsUnloadedByDlclose) {
    EXPECT_EXIT(
        {
            for (int i = 0; i < 100; ++i) {
                void* const module = dlopen(NP_MODULE, RTLD_NOW | RTLD_LOCAL);
                auto* const entry = reinterpret_cast<void* (*)()>(dlsym(module, "ModuleStartNL"));
                delete static_cast<PLG::DataPlugIn*>(entry());
                dlclose(module);
                if (dlopen(NP_MODULE, RTLD_NOW | RTLD_NOLOAD) != nullptr)
                    std::exit(1); // NOLINT(concurrency-mt-unsafe)
            }
            std::exit(0); // NOLINT(concurrency-mt-unsafe)
        },
        testing::ExitedWithCode(0), "");
}
