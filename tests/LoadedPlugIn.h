// The real module, loaded as the framework loads it, with a framework around it: registry, root object, event handler
// and a log that can be waited upon.
#pragma once

#include "framework/BAS/InstrumentationProbeGroup.h"
#include "framework/OMF/InstrumentationProbeBrokerIf.h"
#include "framework/PLG/DataPlugIn.h"
#include "plugin/Operations.h"
#include "tests/TemporaryFolder.h"

#include <algorithm>
#include <condition_variable>
#include <dlfcn.h>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

// Everything that the module said, in order: reports as "identifier(severity): argument, argument", events by name.
class Journal : public BAS::LogSinkIf {
  public:
    Journal() { BAS::RegisteredObject::installLogSink(this); }
    ~Journal() override { BAS::RegisteredObject::installLogSink(nullptr); }

    void write(BAS::Status const& status) noexcept override {
        std::string text = status.identifier().str() + "(" + std::to_string(status.severity()) + ")";
        char const* separator = ": ";
        for (BAS::String const& argument : status.arguments()) {
            text += separator + argument.str();
            separator = ", ";
        }
        add(text);
    }
    void add(std::string const& text) {
        std::unique_lock lock(mutexM);
        entriesM.push_back(text);
        changedM.notify_all();
        if (hookM) {
            auto const hook = hookM;
            lock.unlock();
            hook(text);
        }
    }
    // Calls `hook` with every entry from now on, on the thread that makes it.
    void hook(std::function<void(std::string const&)> hook) {
        std::lock_guard const lock(mutexM);
        hookM = std::move(hook);
    }

    // Waits until there are that many entries, and takes them.
    std::vector<std::string> take(std::size_t count) {
        std::unique_lock lock(mutexM);
        changedM.wait(lock, [&] { return entriesM.size() >= count; });
        return std::exchange(entriesM, {});
    }
    std::vector<std::string> take() { return take(0); }

  private:
    std::mutex mutexM;
    std::condition_variable changedM;
    std::vector<std::string> entriesM;
    std::function<void(std::string const&)> hookM;
};

class RootObject : public BAS::RegisteredObject {
  public:
    RootObject() : BAS::RegisteredObject(rootNameCM) {}
    bool receiveRequest(BAS::Message& request) override {
        if (throws)
            throw std::runtime_error("root");
        asked.push_back(request.command().str() + " from " + request.sender().str());
        for (std::string const& string : reply)
            request.arguments().append(BAS::String(string));
        return served;
    }
    bool served = true;
    bool throws = false;
    std::vector<std::string> reply{"EventHandler"};
    std::vector<std::string> asked;
};

class EventHandler : public BAS::RegisteredObject {
  public:
    explicit EventHandler(Journal& journal) : BAS::RegisteredObject("EventHandler"), journalM(journal) {}
    void receiveMessage(BAS::Message const& message) override { journalM.add(message.command().str()); }

  private:
    Journal& journalM;
};

class LoadedPlugIn : public testing::Test {
  protected:
    using Entries = std::vector<std::string>;

    LoadedPlugIn() {
        OMF::InstrumentationProbeBrokerIf::installFolder(NP_LIBRARY_FOLDER);
        moduleM = dlopen(NP_MODULE, RTLD_NOW | RTLD_LOCAL);
        EXPECT_NE(moduleM, nullptr) << dlerror(); // NOLINT(concurrency-mt-unsafe)
        operationsM = symbol<decltype(&NumberPortabilityOperations)>("NumberPortabilityOperations")();
        set("FileName", file);
        set("CountryCode", "44");
        set("NationalAccessCode", "0");
        folder.write("main", "0171 20200101000000 A\n01712 20210101000000 B\n");
    }
    ~LoadedPlugIn() override {
        plugIn.reset();
        dlclose(moduleM);
        BAS::RegisteredObject::installRegistry(nullptr);
    }

    template <class Function>
    Function symbol(char const* name) {
        void* const address = dlsym(moduleM, name);
        EXPECT_NE(address, nullptr) << name;
        return reinterpret_cast<Function>(address);
    }
    void set(char const* key, std::string const& value) { keys.emplace_back(key, value); }
    void unset(std::string const& key) {
        std::erase_if(keys, [&](auto const& entry) { return entry.first == key; });
    }

    // Creates the plug-in with the registry as it is set by now.
    PLG::DataPlugIn& create(char const* name = "NP") {
        plugIn.reset(); // its name must be free, and its registry is replaced
        registryM = BAS::RegistryEntry("ROOT");
        BAS::RegistryEntry& subtree = registryM.append(BAS::RegistryEntry("NP"));
        for (auto const& [key, value] : keys)
            subtree.append(BAS::RegistryEntry(BAS::String(key), BAS::String(value)));
        BAS::RegisteredObject::installRegistry(&registryM);
        plugIn = start(name);
        return *plugIn;
    }
    std::unique_ptr<PLG::DataPlugIn> start(char const* name) {
        auto* const entry = symbol<void* (*)(BAS::String const&)>("DAT_NumberPortabilityModuleStart");
        return std::unique_ptr<PLG::DataPlugIn>(static_cast<PLG::DataPlugIn*>(entry(name)));
    }
    void createInitialised() {
        ASSERT_TRUE(create().init());
        journal.take();
    }
    std::string answer(char const* number, char const* instant = "20240101000000") {
        DAT::NumberPortability::NumberPortabilityData out;
        return operationsM->search(object(), number, BAS::DateTime(BAS::String(instant)), out) ? out.networkIdM.c_str()
                                                                                               : "-";
    }
    // Writes a probe; false when there is none of that name.
    bool probe(std::string const& name, std::string const& value) {
        BAS::InstrumentationProbeList list;
        plugIn->getInstrumentationProbe(list);
        auto const* const group = dynamic_cast<BAS::InstrumentationProbeGroup*>(list[0]);
        for (std::size_t i = 0; i < group->length(); ++i)
            if ((*group)[i]->name() == name)
                return (*group)[i]->setValue(BAS::String(value));
        return false;
    }
    // Operations of the plug-in that are not the framework's.
    bool carryOut(DAT::NumberPortability::PlugIn::ProbeMode mode, std::string const& value) {
        return operationsM->carryOut(object(), mode, BAS::String(value));
    }
    DAT::NumberPortability::ServiceStatus serviceStatus() { return operationsM->serviceStatus(object()); }
    bool visitFile(std::string const& name, DAT::NumberPortability::LineVisitor const& visit) {
        return operationsM->visitFile(object(), BAS::String(name), visit);
    }
    void stopLoads() { operationsM->stopLoads(object()); }
    // Not by a static_cast, which the sanitizer would look up in a class that only the module has.
    DAT::NumberPortability::PlugIn& object() { return reinterpret_cast<DAT::NumberPortability::PlugIn&>(*plugIn); }
    // Performs an update: its result and whether it was handled, as "true handled".
    std::string update(std::vector<std::pair<std::string, std::string>> const& commands) {
        BAS::RegistryEntry tree("NP");
        for (auto const& [key, value] : commands)
            tree.append(BAS::RegistryEntry(BAS::String(key), BAS::String(value)));
        BAS::ProtectedBool handled;
        bool const result = plugIn->registryUpdate(&tree, handled);
        return std::string(result ? "true " : "false ") + (handled.get() ? "handled" : "not handled");
    }

    TemporaryFolder folder;
    std::string const file = folder.file("main");
    std::vector<std::pair<std::string, std::string>> keys;
    Journal journal;
    RootObject root;
    EventHandler eventHandler{journal};
    std::unique_ptr<PLG::DataPlugIn> plugIn;
    DAT::NumberPortability::Operations const* operationsM = nullptr; // the module's

  private:
    BAS::RegistryEntry registryM{"ROOT"};
    void* moduleM = nullptr;
};
