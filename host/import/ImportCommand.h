// nphost import: makes a data file of an operator's feed.
//
// Purpose: a feed is a file of separated values, compressed or not, whose columns are mapped to number, valid-from and
// network. Each record becomes a line of the data file, in the order of the feed (FeedConversion.h), or is rejected
// with file, line and reason. The data file is written beside the old one and takes its place only when the whole feed
// has been read, no more records were rejected than allowed, and there is at least one record: an empty file would take
// all data away. The file of rejects takes its place with it, or, when there were too many, without it, to say why.
// Units: lines of the feed count from 1, its header among them.
// Threads: one thread, and that of the progress line.
// Errors: HostError, ConfigurationError, std::bad_alloc, Interrupted for a closed output or a signal; no file is
// replaced then.
// Complexity: linear in the feed; memory of some 30 bytes a record, to find repeated ones.
#pragma once

#include "host/config/CommonOptions.h"

#include <cstdint>
#include <optional>
#include <string>

namespace nphost {

struct ImportOptions {
    CommonOptions common; // the configuration is needed to normalise only
    std::string map;
    std::optional<std::string> separator; // none: by the feed's name
    bool noQuotes = false;
    bool noHeader = false;
    std::string timeFormat = "digits";
    std::optional<std::string> zone; // none: as configured, or UTC
    bool normalise = false;
    std::optional<std::string> output;       // none, and its names: standard output
    std::optional<std::string> rejects;      // none: the first ones on standard error
    std::optional<std::uint64_t> maxRejects; // none: any number
    bool json = false; // the summary, where the data do not go: standard output, else standard error
    std::string file;  // "-": standard input
};

// The exit status.
int importFeed(ImportOptions const& options);

extern Command const importCommandCM;

} // namespace nphost
