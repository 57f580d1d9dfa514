// BAS::RegisteredObject: base of everything that the framework knows by name.
//
// Purpose: gives an object its name, its valid and registered flags, its subtree of the registry, its status record
// and the log, and requests and messages to other objects.
// Ownership: the process-wide directory of names, the installed registry root and the log sink are borrowed; an
// object leaves the directory when it is destroyed. The receiver of a request or message must outlive the call.
// Threads: the name, the flags and the status record are each guarded by one class-wide lock for all objects. A
// report holds the status lock and, inside it, the name lock; isUsable holds the usable lock and, inside it, the
// valid lock. Requests and messages are delivered on the calling thread, outside every lock.
// Errors: operations return false; std::bad_alloc travels. Complexity: the directory is a search tree; else constant.
#pragma once

#include "framework/BAS/LogSinkIf.h"
#include "framework/BAS/Message.h"
#include "framework/BAS/Mutex.h"
#include "framework/BAS/ProtectedBool.h"
#include "framework/BAS/RegistryEntry.h"
#include "framework/BAS/Status.h"

namespace BAS {

class InstrumentationProbeList;

class RegisteredObject {
  public:
    // The name of the framework's root object, which answers requests for the environment.
    static String const rootNameCM;

    // An object without a name: not registered, not valid.
    RegisteredObject() = default;
    // Registers the object; isRegistered() is false when the name is empty or taken. The object is valid at first.
    explicit RegisteredObject(String const& name);
    RegisteredObject(RegisteredObject const&) = delete;
    RegisteredObject& operator=(RegisteredObject const&) = delete;

    // The order of the virtual operations is part of the framework's binary interface.
    virtual ~RegisteredObject();
    virtual bool isUsable();
    virtual void receiveMessage(Message const& message);                                    // default: ignored
    virtual bool receiveRequest(Message& request);                                          // default: not served
    virtual void update(String const& name);                                                // default: nothing
    virtual void update(Status const& status);                                              // default: nothing
    virtual void getInstrumentationProbe(InstrumentationProbeList& list) const;             // default: none
    virtual bool readRegistry();                                                            // default: true
    virtual bool evalEnvironment();                                                         // default: true
    virtual bool setEDRContainerIndices();                                                  // default: true
    virtual bool registryUpdate(RegistryEntry const* update, ProtectedBool& updateHandled); // default: true
    // When `update` holds `key`: marks the update as handled, sets `flag` by setBoolFlag, copies the value to the
    // key's entry in `own` (where there is one) and reports `identifier` (1, the key's path). False when the value
    // is bad. `update` must not be null.
    virtual bool updateBoolFlag(RegistryEntry const* update, RegistryEntry* own, String const& key, bool& flag,
                                String const& identifier, ProtectedBool& updateHandled);
    // Sets `flag` by the entry's key: "TRUE" or "FALSE" in any case. A missing key leaves it. False, and `flag`
    // unchanged, for any other value. `entry` must not be null.
    virtual bool setBoolFlag(RegistryEntry const* entry, String const& key, bool& flag);

    String name() const;
    bool isValid() const;
    bool isRegistered() const;
    Status status() const; // the last report

    // The object's subtree of the installed registry, or null.
    RegistryEntry const* registry() const;

    // Finds the receiver by its name. sendRequest returns whether it served the request; sendMessage waits for no
    // reply and returns whether there was a receiver.
    bool sendRequest(Message& request) const;
    bool sendMessage(Message const& message) const;

    void setStatus(Status const& status, bool writeToLog);
    void setStatus(String const& identifier, Status::Severity severity, Status::Arguments const& arguments,
                   bool writeToLog);

    static void writeLog(Status const& status);

    // Null takes the sink or the root away. Neither may change while objects use it.
    static void installLogSink(LogSinkIf* sink);
    static void installRegistry(RegistryEntry const* root);

  protected:
    void setValid(bool valid);

    static Mutex usableLockM;

  private:
    static Mutex directoryLockM;
    static Mutex nameLockM;
    static Mutex validLockM;
    static Mutex registeredLockM;
    static Mutex statusLockM;

    static RegisteredObject* find(String const& name);
    static void writeLogLocked(Status const& status) NP_REQUIRES(statusLockM);
    static LogSinkIf* logSinkM NP_GUARDED_BY(statusLockM);
    static RegistryEntry const* registryRootM NP_GUARDED_BY(directoryLockM);

    String nameM NP_GUARDED_BY(nameLockM);
    bool registeredM NP_GUARDED_BY(registeredLockM) = false;
    bool validM NP_GUARDED_BY(validLockM) = false;
    Status statusM NP_GUARDED_BY(statusLockM);
};

} // namespace BAS
