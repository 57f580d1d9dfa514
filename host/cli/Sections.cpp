#include "host/cli/Sections.h"

#include "host/config/DaemonFiles.h"
#include "host/daemon/ChangeNotices.h"
#include "host/daemon/ClientModules.h"
#include "host/module/GuardLimits.h"
#include "host/module/HostSettings.h"
#include "host/service/DeltaFolders.h"

namespace nphost {

namespace {

constexpr DeclareSection declarationsCM[] = {
    HostSettings::declare,
    DaemonFiles::declare,
    GuardLimits::declare,
    DeltaFolders::Settings::declare,
    ChangeNotices::Settings::declare,
    ClientModules::Settings::declare,
};

} // namespace

constinit Sections const sectionsCM = declarationsCM;

} // namespace nphost
