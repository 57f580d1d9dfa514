// What the fuzz targets of the HTTP front share: its parts around the real module, with a few records.
#pragma once

#include "host/cli/Sections.h"
#include "host/fields/DataClock.h"
#include "host/http/Api.h"
#include "host/http/HttpShared.h"
#include "host/module/Host.h"
#include "host/service/Front.h"
#include "host/service/Metrics.h"
#include "host/service/Networks.h"
#include "host/service/ReportHub.h"
#include "host/service/Service.h"
#include "tests/TemporaryFolder.h"

class HttpSetting {
  public:
    nphost::FrontParts const& parts() const { return partsM; }
    nphost::HttpShared& shared() { return sharedM; }

  private:
    struct NoCommands : nphost::CommandPost {
        bool post(std::string /*request*/, Answer /*answer*/) override { return false; }
    };
    static nphost::Sha256 noDigest(std::string_view /*text*/) { return {}; }

    TemporaryFolder folderM{"np-fuzz"};
    std::string const dataM = folderM.write("data.dat", "0044770 20200101000000 ALPHA\n"
                                                        "00447700900123 20210301020000 BRAVO\n"
                                                        "004477009 20980101000000 \"D\"\n");
    std::string const configurationM =
        folderM.write("nphost.toml", "[DAT_NumberPortability]\nFileName = \"data.dat\"\nCountryCode = \"44\"\n"
                                     "NationalAccessCode = \"0\"\n[http]\nlisten = [\"127.0.0.1:0\"]\n");
    nphost::Host hostM{nphost::readConfiguration(configurationM, nphost::sectionsCM),
                       nphost::CommonOptions{configurationM}};
    bool const startedM = (hostM.start(), true);
    nphost::ReportHub hubM;
    nphost::Metrics metricsM;
    nphost::Networks networksM{{}};
    nphost::DataClock clockM{"Europe/London"};
    nphost::LoadGuard guardM{{}, hostM.plugIn(), hostM.log()};
    nphost::DataFileState dataFileM{hostM.plugIn()};
    std::vector<std::filesystem::path> const foldersM{};
    nphost::KeptFiles const keptM{std::filesystem::path(dataM), std::filesystem::path(configurationM)};
    nphost::LoadLane laneM{
        hostM.plugIn(),     keptM, nphost::DeltaFolders(foldersM), guardM, dataFileM, metricsM, hubM.wakeUp(),
        [] { return true; }};
    nphost::Service serviceM{{hostM.plugIn(), hostM.numbers(), guardM, dataFileM, hostM.log(), laneM}};
    NoCommands commandsM;
    std::vector<nphost::PassedSocket> const socketsM{};
    nphost::FrontParts const partsM{hostM.configuration(),
                                    foldersM,
                                    serviceM,
                                    hostM.plugIn(),
                                    hostM.numbers(),
                                    networksM,
                                    clockM,
                                    metricsM,
                                    commandsM,
                                    socketsM,
                                    "0"};
    nphost::HttpShared sharedM{hostM.configuration().of<nphost::HttpSettings>(), noDigest, "0"};
};
