#include "framework/BAS/RegisteredObject.h"

#include <map>

namespace BAS {

namespace {

// Not a global object: it must outlive every registered object, whatever the order of static destruction.
std::map<String, RegisteredObject*>& directory() {
    static auto* const objects = new std::map<String, RegisteredObject*>;
    return *objects;
}

} // namespace

String const RegisteredObject::rootNameCM("ROOT");

// One lock for all objects for each of these, as the framework has it. Where two are held, usable comes before valid,
// and status before name. None is held while a receiver is called.
Mutex RegisteredObject::usableLockM;
Mutex RegisteredObject::directoryLockM;
Mutex RegisteredObject::nameLockM;
Mutex RegisteredObject::validLockM;
Mutex RegisteredObject::registeredLockM;
Mutex RegisteredObject::statusLockM;
LogSinkIf* RegisteredObject::logSinkM = nullptr;
RegistryEntry const* RegisteredObject::registryRootM = nullptr;

RegisteredObject::RegisteredObject(String const& name) : nameM(name), validM(true) {
    if (name.empty())
        return;
    MutexGuard const guard(directoryLockM);
    // The first of a name keeps it: requests go on to whoever has been answering them.
    registeredM = directory().emplace(name, this).second;
}

RegisteredObject::~RegisteredObject() {
    MutexGuard const guard(directoryLockM);
    // An object that found its name taken must not take the other one out.
    auto const entry = directory().find(nameM);
    if (entry != directory().end() && entry->second == this)
        directory().erase(entry);
}

bool RegisteredObject::isUsable() {
    MutexGuard const guard(usableLockM);
    return isValid();
}

void RegisteredObject::receiveMessage(Message const&) {}

bool RegisteredObject::receiveRequest(Message&) {
    return false;
}

void RegisteredObject::update(String const&) {}

void RegisteredObject::update(Status const&) {}

void RegisteredObject::getInstrumentationProbe(InstrumentationProbeList&) const {}

bool RegisteredObject::readRegistry() {
    return true;
}

bool RegisteredObject::evalEnvironment() {
    return true;
}

bool RegisteredObject::setEDRContainerIndices() {
    return true;
}

bool RegisteredObject::registryUpdate(RegistryEntry const*, ProtectedBool&) {
    return true;
}

bool RegisteredObject::updateBoolFlag(RegistryEntry const* update, RegistryEntry* own, String const& key, bool& flag,
                                      String const& identifier, ProtectedBool& updateHandled) {
    RegistryEntry const* const entry = update->find(key);
    if (entry == nullptr)
        return true;
    // Handled also with a bad value: the key is this object's, whatever it says.
    updateHandled.set(true);
    if (!setBoolFlag(update, key, flag))
        return false;
    // Behind the flag, so that the registry never shows a value that was refused.
    if (RegistryEntry* const target = own == nullptr ? nullptr : own->find(key))
        target->value(entry->value());
    setStatus(identifier, Status::NORMAL, {name() + "." + key}, true);
    return true;
}

bool RegisteredObject::setBoolFlag(RegistryEntry const* entry, String const& key, bool& flag) {
    RegistryEntry const* const child = entry->find(key);
    if (child == nullptr)
        return true;
    String const value = child->value().upper();
    if (value != "TRUE" && value != "FALSE")
        return false;
    flag = value == "TRUE";
    return true;
}

String RegisteredObject::name() const {
    MutexGuard const guard(nameLockM);
    return nameM;
}

bool RegisteredObject::isValid() const {
    MutexGuard const guard(validLockM);
    return validM;
}

void RegisteredObject::setValid(bool valid) {
    MutexGuard const guard(validLockM);
    validM = valid;
}

bool RegisteredObject::isRegistered() const {
    MutexGuard const guard(registeredLockM);
    return registeredM;
}

Status RegisteredObject::status() const {
    MutexGuard const guard(statusLockM);
    return statusM;
}

RegistryEntry const* RegisteredObject::registry() const {
    // Before the lock: the name has one of its own.
    String const own = name();
    MutexGuard const guard(directoryLockM);
    return registryRootM == nullptr ? nullptr : registryRootM->find(own);
}

RegisteredObject* RegisteredObject::find(String const& name) {
    MutexGuard const guard(directoryLockM);
    // The object is called when the lock is free again. It must not go meanwhile, which is its owner's business: held
    // here, the lock would keep every receiver from sending.
    auto const entry = directory().find(name);
    return entry == directory().end() ? nullptr : entry->second;
}

bool RegisteredObject::sendRequest(Message& request) const {
    RegisteredObject* const receiver = find(request.receiver());
    return receiver != nullptr && receiver->receiveRequest(request);
}

bool RegisteredObject::sendMessage(Message const& message) const {
    RegisteredObject* const receiver = find(message.receiver());
    if (receiver == nullptr)
        return false;
    receiver->receiveMessage(message);
    return true;
}

void RegisteredObject::setStatus(Status const& status, bool writeToLog) {
    MutexGuard const guard(statusLockM);
    statusM = status;
    if (writeToLog)
        writeLogLocked(statusM);
}

void RegisteredObject::setStatus(String const& identifier, Status::Severity severity,
                                 Status::Arguments const& arguments, bool writeToLog) {
    MutexGuard const guard(statusLockM);
    // Under the lock with the log, so that reports stand in the log in the order in which they were set. A sink must
    // therefore not report.
    statusM.set(name(), identifier, severity, arguments);
    if (writeToLog)
        writeLogLocked(statusM);
}

void RegisteredObject::writeLog(Status const& status) {
    MutexGuard const guard(statusLockM);
    writeLogLocked(status);
}

void RegisteredObject::writeLogLocked(Status const& status) {
    if (logSinkM != nullptr)
        logSinkM->write(status);
}

void RegisteredObject::installLogSink(LogSinkIf* sink) {
    // When this returns nobody is inside the old sink any more.
    MutexGuard const guard(statusLockM);
    logSinkM = sink;
}

void RegisteredObject::installRegistry(RegistryEntry const* root) {
    MutexGuard const guard(directoryLockM);
    registryRootM = root;
}

} // namespace BAS
