#include "host/module/FrameworkObjects.h"

namespace nphost {

void EventHandler::receiveMessage(BAS::Message const& message) {
    BAS::Status::Arguments arguments;
    // An event has one argument, or several: the log shows them in one row.
    if (!message.argument().empty())
        arguments.append(message.argument());
    for (BAS::String const& argument : message.arguments())
        arguments.append(argument);
    BAS::Status status;
    status.set(message.sender(), message.command(), BAS::Status::NORMAL, arguments);
    writeLog(status);
}

bool RootObject::receiveRequest(BAS::Message& request) {
    // The only request that a plug-in has for the root object.
    if (request.command() != "REQ_EVENTHANDLER_NAME")
        return false;
    request.arguments().append(eventsM.name());
    return true;
}

} // namespace nphost
