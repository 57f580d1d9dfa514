// npbench::World: the data, their file, and a cache manager that has loaded it; each is made when first asked for.
//
// The file lies in a temporary folder that goes with the program. It has just been written, so that reading it is
// reading from memory: load rates are rates of the processor, not of a disk.
// Threads: the accessors belong to the main thread; what they return may be shared.
#pragma once

#include "bench/PortabilityData.h"
#include "cache/CacheManager.h"

#include <array>
#include <filesystem>
#include <memory>

namespace npbench {

class World {
  public:
    explicit World(Options const& options);
    World(World const&) = delete;
    World& operator=(World const&) = delete;
    ~World();

    std::string const& file(); // of the data
    std::uint64_t lines();     // in the file

    DAT::NumberPortability::CacheManager& cacheManager(); // loaded
    double loadSeconds();                                 // how long loading it took

    Queries const& queries(QueryKind kind);

    // Seconds to read the file's lines and do nothing with them.
    double turboSeconds();
    double getlineSeconds();

    // A cache manager with the dialling codes and two empty trees.
    std::unique_ptr<DAT::NumberPortability::CacheManager> makeCacheManager();

  private:
    static constexpr std::size_t queriesCM = 1 << 20;

    PortabilityData const& data();
    template <class Read>
    double readingSeconds(Read read);

    Options optionsM;
    std::filesystem::path folderM;
    std::unique_ptr<PortabilityData> dataM;
    std::string fileM;
    std::uint64_t linesM = 0;
    std::array<Queries, 3> queriesM;
    std::unique_ptr<DAT::NumberPortability::CacheManager> cacheManagerM;
    double loadSecondsM = 0;
    double turboSecondsM = 0;
    double getlineSecondsM = 0;
};

} // namespace npbench
