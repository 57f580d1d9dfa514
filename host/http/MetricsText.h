// nphost::metricsText: what the daemon counts, in the text format that Prometheus scrapes.
//
// Purpose: the answer to a scrape. Names, units and types follow the conventions of Prometheus: base units, counters end
// in _total, and every sample that can ever be is there from the start, so that a rate over it has a first value. Labels
// have few and fixed values: never a number, a network, a file or an address.
// docs/operations.md has the list.
// Ownership: none. Threads: by any. Errors: std::bad_alloc; what the system does not tell of the process is left out.
// Complexity: that of Metrics::counts; a few system calls (base/ProcessFigures.h).
#pragma once

#include "host/service/Metrics.h"
#include "host/service/Service.h"

#include <string>
#include <string_view>

namespace nphost {

constexpr std::string_view metricsTypeCM = "text/plain; version=0.0.4; charset=utf-8"; // as Content-Type

std::string metricsText(Metrics const& metrics, Standing const& standing);

} // namespace nphost
