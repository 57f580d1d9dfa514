// The parts of the table, and the two other modes; docs/performance.md says what their rows mean.
//
// Each section returns an array of tables (Report.h). It runs in a process of its own and starts with one thread.
// Errors: WrongAnswer, NoRoom, std::bad_alloc, std::runtime_error; all end the section, the first ends the program.
#pragma once

#include "bench/Report.h"
#include "bench/Settings.h"
#include "tests/TemporaryFolder.h"

#include <ostream>

namespace npbench {

// What the sections share: the data, and their files, which are written when first asked for.
class Ground {
  public:
    explicit Ground(Settings const& settings) : settingsM(settings), dataM(settings.data) {}

    Settings const& settings() const { return settingsM; }
    PortabilityData const& data() const { return dataM; }
    std::string file(Order order) const;
    std::filesystem::path const& folder() const { return folderM.path(); }

  private:
    Settings const& settingsM;
    PortabilityData dataM;
    TemporaryFolder folderM{"npbench"};
};

Json measureMemory(Ground const& ground);
Json measureLookUps(Ground const& ground);
Json measureSmallSet(Ground const& ground);
Json measureLoading(Ground const& ground);
Json measureListing(Ground const& ground);
Json measureLock(Ground const& ground);
Json measureThreads(Ground const& ground);
Json measureReload(Ground const& ground);
Json measureExchange(Ground const& ground);

struct Section {
    char const* name;
    Json (*measure)(Ground const& ground);
};
std::vector<Section> sections();

// These print as they go and return the tables.
Json runScale(Settings const& settings, std::ostream& out);
Json runHundredMillion(Settings const& settings, std::ostream& out);

} // namespace npbench
