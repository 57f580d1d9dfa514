// BAS::Status: one report.
//
// Purpose: what an object tells the log: its registered name, a message identifier ("INF_" for information, "ERR_"
// for errors), a severity and ordered arguments. The text behind an identifier is the host's message catalogue.
// Ownership: a value that owns its texts.
// Threads: none inside; concurrent const use is safe.
// Errors: set throws std::bad_alloc. Complexity: linear in the texts.
#pragma once

#include "framework/BAS/String.h"

namespace BAS {

class Status {
  public:
    using Arguments = RWTValOrderedVector<String>;

    enum Severity : int {
        NORMAL = 1,   // every "INF_" report
        WARNING = 2,  // a rejected data line
        MINOR = 3,    // not used by the module
        MAJOR = 4,    // a failed file check or a failed action of the worker
        CRITICAL = 5, // configuration, refused commands, file read and close errors
    };

    Status() = default;
    void set(String const& name, String const& identifier, Severity severity, Arguments const& arguments) {
        nameM = name;
        identifierM = identifier;
        severityM = severity;
        argumentsM = arguments;
    }
    void set(String const& name, String const& identifier, Severity severity, String const& argument) {
        set(name, identifier, severity, Arguments{argument});
    }

    String const& name() const { return nameM; }
    String const& identifier() const { return identifierM; }
    Severity severity() const { return severityM; }
    Arguments const& arguments() const { return argumentsM; }

  private:
    String nameM;
    String identifierM;
    Severity severityM = NORMAL;
    Arguments argumentsM;
};

} // namespace BAS
