#include "bench/World.h"

#include "bench/Measure.h"
#include "cache/OwnerServices.h"

#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace DAT::NumberPortability {

// Stands in for the plug-in. The data have no bad lines, so whatever is reported with a warning is a fault
// here.
class PlugIn {};

namespace OwnerServices {

bool checkFile(PlugIn&) {
    return true;
}

bool checkFile(PlugIn&, BAS::String const&) {
    return true;
}

void report(PlugIn&, BAS::String const& identifier, BAS::Status::Severity severity, BAS::Status::Arguments const&) {
    if (severity >= BAS::Status::WARNING)
        throw std::runtime_error("unexpected report " + identifier.str());
}

BAS::String name(PlugIn const&) {
    return "npbench";
}

} // namespace OwnerServices
} // namespace DAT::NumberPortability

namespace npbench {

using DAT::NumberPortability::CacheManager;

namespace {

DAT::NumberPortability::PlugIn plugIn;
BAS::String const nationalAccessCode("0");
BAS::String const internationalAccessCode("00");
BAS::String const countryCode("49");
BAS::String const internationalSign("+");

} // namespace

World::World(Options const& options) : optionsM(options) {
    std::string name = (std::filesystem::temp_directory_path() / "npbench-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
        throw std::runtime_error("cannot make a temporary folder");
    folderM = name;
}

World::~World() {
    std::error_code ignored;
    std::filesystem::remove_all(folderM, ignored);
}

PortabilityData const& World::data() {
    if (dataM == nullptr)
        dataM = std::make_unique<PortabilityData>(optionsM);
    return *dataM;
}

std::string const& World::file() {
    if (fileM.empty()) {
        std::string const name = (folderM / "portability.dat").string();
        linesM = data().writeFile(name);
        fileM = name;
    }
    return fileM;
}

std::uint64_t World::lines() {
    file();
    return linesM;
}

std::unique_ptr<CacheManager> World::makeCacheManager() {
    return std::make_unique<CacheManager>(&plugIn, nationalAccessCode, internationalAccessCode, countryCode,
                                          internationalSign, 3, file());
}

CacheManager& World::cacheManager() {
    if (cacheManagerM == nullptr) {
        std::unique_ptr<CacheManager> made = makeCacheManager();
        auto const begin = std::chrono::steady_clock::now();
        if (!made->load() || made->numOfEntries() != linesM)
            throw std::runtime_error("the data did not load");
        loadSecondsM = secondsSince(begin);
        cacheManagerM = std::move(made);
    }
    return *cacheManagerM;
}

double World::loadSeconds() {
    cacheManager();
    return loadSecondsM;
}

Queries const& World::queries(QueryKind kind) {
    Queries& made = queriesM.at(static_cast<std::size_t>(kind));
    if (made.empty())
        made = data().queries(kind, queriesCM);
    return made;
}

// Times reading until `read` returns false.
template <class Read>
double World::readingSeconds(Read read) {
    std::uint64_t count = 0;
    auto const begin = std::chrono::steady_clock::now();
    while (read())
        ++count;
    double const seconds = secondsSince(begin);
    if (count != linesM)
        throw std::runtime_error("lines went missing");
    return seconds;
}

double World::turboSeconds() {
    if (turboSecondsM == 0) {
        STR::FileIoTurbo reader;
        reader.openFile(file(), STR::FileIoTurbo::readModeCM);
        BAS::String line;
        turboSecondsM = readingSeconds([&] { return reader.readLine(line); });
    }
    return turboSecondsM;
}

double World::getlineSeconds() {
    if (getlineSecondsM == 0) {
        std::ifstream in(file(), std::ios::binary);
        std::string line;
        getlineSecondsM = readingSeconds([&] { return bool(std::getline(in, line)); });
    }
    return getlineSecondsM;
}

} // namespace npbench
