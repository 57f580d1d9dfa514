// nphost enrich: call records with the network that each number belonged to.
//
// Purpose: reads records of CSV or of newline-delimited JSON, looks up one or more numbers of each at the record's
// time, and writes the records as they came, in their order, with the answers added. A record that cannot be used goes
// to a file of rejects, or stays without answers.
// Threads: one that reads, one that writes, as many as wanted between, and that of the progress line.
// Errors: HostError, ConfigurationError, std::bad_alloc. A file that is written is replaced as a whole, or not at all.
// Interrupted for a closed output, or a signal.
// Complexity: linear in the records; memory does not grow with them.
#pragma once

#include "host/module/Host.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace nphost {

struct EnrichOptions {
    CommonOptions common;
    std::vector<std::string> inputs; // none: standard input, as "-"
    std::vector<std::string> numbers;
    std::string time;
    std::string timeFormat = "digits";
    std::string zone = "UTC";
    std::string format; // csv, tsv, ndjson; empty: by the first input's name
    std::optional<std::string> separator;
    std::vector<std::string> added; // empty: the network
    std::optional<unsigned int> method;
    std::optional<std::string> output;  // none, and its names: standard output
    std::optional<std::string> rejects; // none: OUTPUT.rejects, or none if they stay in the output
    std::optional<std::uint64_t> maxRejects;
    unsigned int threads = 0; // 0: one a processor
    bool noHeader = false;
    bool noQuotes = false;
    bool normalise = false;
    bool keep = false;
    bool json = false;        // the summary, where the records do not go: standard output, else standard error
    bool passThrough = false; // everything but the look-up, to measure what it costs
};

// The exit status.
int enrich(EnrichOptions const& options);

} // namespace nphost
