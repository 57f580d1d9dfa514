// The framework's own registered objects: the root object and the event handler.
//
// Purpose: the root object answers a plug-in's request for the environment, REQ_EVENTHANDLER_NAME; the event handler
// receives the plug-in's events, and the daemon's, and writes them to the log with their arguments.
// Ownership: the host's; both must outlive every plug-in. The root borrows the handler.
// Threads: called by any thread.
// Errors: std::bad_alloc.
// Complexity: constant.
#pragma once

#include "framework/BAS/RegisteredObject.h"

namespace nphost {

class EventHandler : public BAS::RegisteredObject {
  public:
    static constexpr char const* nameCM = "EventHandler";

    EventHandler() : BAS::RegisteredObject(nameCM) {}
    void receiveMessage(BAS::Message const& message) override;
};

class RootObject : public BAS::RegisteredObject {
  public:
    explicit RootObject(EventHandler const& events)
        : BAS::RegisteredObject(BAS::RegisteredObject::rootNameCM), eventsM(events) {}
    bool receiveRequest(BAS::Message& request) override;

  private:
    EventHandler const& eventsM;
};

} // namespace nphost
