#include "framework/OMF/InstrumentationProbeBrokerIf.h"

#include <toml++/toml.h>

namespace OMF {

namespace {

BAS::String& folder() {
    static auto* const name = new BAS::String(".");
    return *name;
}

void fill(toml::table const& file, InstrumentationProbeBrokerIf::ProbeInfoMap& infos) {
    for (auto const& [key, value] : file) {
        toml::table const* const probe = value.as_table();
        if (probe == nullptr)
            continue;
        BAS::String const name{key.str()};
        std::string const description = (*probe)["description"].value_or(std::string());
        infos[name] = {name, BAS::String(description)};
    }
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
        fill(toml::parse_file(path), infos);
        return true;
    } catch (toml::parse_error const& error) {
        reason = std::string(error.description());
        if (error.source().begin)
            reason += " (line " + std::to_string(error.source().begin.line) + ")";
    }
    infos.clear();
    BAS::Status status;
    status.set(requester->name(), "ERR_PROBE_FILE", BAS::Status::MAJOR,
               BAS::Status::Arguments{BAS::String(path), BAS::String(reason)});
    BAS::RegisteredObject::writeLog(status);
    return false;
}

} // namespace OMF
