// A client module: asks the plug-in for a number when the host has loaded the data, and logs the answer.
#include "plugin/PlugInClient.h"

bool NumberPortabilityClientStart(DAT::NumberPortability::PlugIn& plugIn) {
    BAS::String number = "07700900123"; // as in its own country; look-ups take the stored form
    plugIn.normalize(number);
    DAT::NumberPortability::NumberPortabilityData record;
    bool const found = plugIn.search(number, BAS::DateTime("20240615120000"), record);
    BAS::Status answer;
    answer.set("ExampleClient", "INF_EXAMPLE_CLIENT", BAS::Status::NORMAL,
               {number, found ? record.networkIdM.c_str() : "-"});
    BAS::RegisteredObject::writeLog(answer);
    return true;
}
