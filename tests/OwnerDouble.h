// A stand-in for the plug-in that owns a cache manager: keeps its reports and decides its file checks.
#pragma once

#include "cache/CacheManager.h"
#include "cache/OwnerServices.h"

#include <functional>
#include <string>
#include <vector>

namespace DAT::NumberPortability {

class PlugIn {
  public:
    struct Report {
        std::string identifier;
        int severity = 0;
        std::vector<std::string> arguments;
    };
    std::vector<Report> reports;
    std::function<void(Report const&)> onReport;
    bool fileOpens = true;

    // The identifiers of the reports since the last call.
    std::vector<std::string> takeIdentifiers() {
        std::vector<std::string> identifiers;
        for (Report const& report : reports)
            identifiers.push_back(report.identifier);
        reports.clear();
        return identifiers;
    }
};

// Marked as used: their callers are in the cache's library.
namespace OwnerServices {

[[gnu::used]] inline bool checkFile(PlugIn& plugIn) {
    return plugIn.fileOpens;
}

[[gnu::used]] inline bool checkFile(PlugIn& plugIn, BAS::String const&) {
    return plugIn.fileOpens;
}

[[gnu::used]] inline void report(PlugIn& plugIn, BAS::String const& identifier, BAS::Status::Severity severity,
                                 BAS::Status::Arguments const& arguments) {
    PlugIn::Report report{identifier.str(), severity, {}};
    for (BAS::String const& argument : arguments)
        report.arguments.push_back(argument.str());
    plugIn.reports.push_back(report);
    if (plugIn.onReport)
        plugIn.onReport(report);
}

[[gnu::used]] inline BAS::String name(PlugIn const&) {
    return "NP";
}

} // namespace OwnerServices
} // namespace DAT::NumberPortability
