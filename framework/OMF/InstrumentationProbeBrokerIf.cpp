#include "framework/OMF/InstrumentationProbeBrokerIf.h"

#include "framework/OMF/TomlLimits.h"

#include <fstream>
#include <toml++/toml.h>

namespace OMF {

namespace {

BAS::String& folder() {
    // Never freed: plug-ins that are destroyed late, with static objects, may still ask.
    static auto* const name = new BAS::String(".");
    return *name;
}

std::string atLine(std::size_t line) {
    return " (line " + std::to_string(line) + ")";
}

void fill(toml::table const& file, InstrumentationProbeBrokerIf::ProbeInfoMap& infos) {
    for (auto const& [key, value] : file) {
        toml::table const* const probe = value.as_table();
        // What is no table is passed over: a file of a later version may say more.
        if (probe == nullptr)
            continue;
        BAS::String const name{key.str()};
        std::string const description = (*probe)["description"].value_or(std::string());
        infos[name] = {name, BAS::String(description)};
    }
}

// Not beyond the size that a file may have, but for one byte, which shows that it is larger.
std::string contentOf(std::string const& path) {
    std::ifstream file(path, std::ios_base::binary);
    // Read by count and not to the end: a file may be a device, or grow while it is read.
    std::string text(TomlLimits::mostBytesCM + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (!file.eof() && file.gcount() == 0) // nothing is there, or nothing that can be read, as a folder
        throw std::runtime_error("cannot be read");
    text.resize(static_cast<std::size_t>(file.gcount()));
    return text;
}

toml::table parsed(std::string const& path) {
    std::string const text = contentOf(path);
    // Measured first: the parser recurses, and a file that nests deep enough would end the process.
    if (auto const excess = TomlLimits::excessOf(text))
        throw std::runtime_error(excess->reason + atLine(excess->line));
    return toml::parse(text);
}

} // namespace

void InstrumentationProbeBrokerIf::installFolder(BAS::String const& name) {
    folder() = name;
}

bool InstrumentationProbeBrokerIf::ReadProbeInfoFile(BAS::RegisteredObject* requester, BAS::String const& fileName,
                                                     ProbeInfoMap& infos) {
    std::string const path = folder().str() + "/" + fileName.str();
    std::string reason;
    try {
        fill(parsed(path), infos);
        return true;
    } catch (toml::parse_error const& error) {
        reason = std::string(error.description());
        if (error.source().begin)
            reason += atLine(error.source().begin.line);
    } catch (std::runtime_error const& error) {
        reason = error.what();
    }
    // Nothing of a file that is wrong somewhere: half of the probes would look like all of them.
    infos.clear();
    BAS::Status status;
    status.set(requester->name(), "ERR_PROBE_FILE", BAS::Status::MAJOR,
               BAS::Status::Arguments{BAS::String(path), BAS::String(reason)});
    BAS::RegisteredObject::writeLog(status);
    return false;
}

} // namespace OMF
