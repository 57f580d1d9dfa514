#include "host/cli/Sections.h"

#include "host/config/DaemonFiles.h"
#include "host/daemon/ChangeNotices.h"
#include "host/daemon/ClientModules.h"
#include "host/dns/EnumSettings.h"
#include "host/fields/DataClock.h"
#include "host/fields/NetworkTable.h"
#include "host/http/HttpSettings.h"
#include "host/module/GuardLimits.h"
#include "host/module/HostSettings.h"
#include "host/service/DeltaFolders.h"

namespace nphost {

namespace {

constexpr SectionDeclaration declarationsCM[] = {
    {"host", HostSettings::declare},
    {"host", DaemonFiles::declare},
    {"host", GuardLimits::declare},
    {"host", DeltaFolders::Settings::declare},
    {"host", ChangeNotices::Settings::declare},
    {"host", ClientModules::Settings::declare},
    {"host", DataClock::Settings::declare},
    {"host", NetworkTable::Settings::declare},
    {"http", HttpSettings::declare},
    {"enum", EnumSettings::declare},
};

} // namespace

constinit Sections const sectionsCM = declarationsCM;

} // namespace nphost
