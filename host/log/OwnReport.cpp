#include "host/log/OwnReport.h"

#include "framework/BAS/RegisteredObject.h"

namespace nphost {

void reportOwn(char const* identifier, BAS::Status::Severity severity, BAS::Status::Arguments const& arguments) {
    BAS::Status status;
    status.set("nphost", identifier, severity, arguments);
    BAS::RegisteredObject::writeLog(status);
}

} // namespace nphost
