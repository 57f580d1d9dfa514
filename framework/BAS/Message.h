// BAS::Message: a request or an event from one registered object to another, by their names.
//
// Purpose: carries a command and one argument; whoever serves a request leaves its reply in arguments(), whoever sends
// an event may add further arguments there.
// Ownership: a value that owns its texts.
// Threads: none inside; concurrent const use is safe.
// Errors: construction throws std::bad_alloc. Complexity: linear in the texts.
#pragma once

#include "framework/BAS/String.h"

namespace BAS {

class Message {
  public:
    Message(String sender, String receiver, String command, String argument)
        : senderM(std::move(sender)), receiverM(std::move(receiver)), commandM(std::move(command)),
          argumentM(std::move(argument)) {}

    String const& sender() const { return senderM; }
    String const& receiver() const { return receiverM; }
    String const& command() const { return commandM; }
    String const& argument() const { return argumentM; }

    // A request: the reply's strings, empty until a receiver fills them. An event: what its sender adds.
    RWTValOrderedVector<String>& arguments() { return argumentsM; }
    RWTValOrderedVector<String> const& arguments() const { return argumentsM; }

  private:
    String senderM;
    String receiverM;
    String commandM;
    String argumentM;
    RWTValOrderedVector<String> argumentsM;
};

} // namespace BAS
