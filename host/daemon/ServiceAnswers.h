// What the daemon answers from the live data at once: status, look-ups and explanations.
//
// Purpose: each function makes the answer to one request, as docs/operations.md describes it. Instants of the data are
// 14 digits, those of the clock ISO 8601 in UTC.
// Threads: the loop's thread. No load is waited for.
// Errors: RequestError for a request that cannot be answered; nlohmann::json::exception for a value of the wrong type;
// std::bad_alloc.
// Complexity: that of the look-ups.
#pragma once

#include "host/daemon/DataFileState.h"
#include "host/daemon/LoadGuard.h"
#include "host/fields/NumberForm.h"
#include "host/module/LoadedModule.h"

#include <nlohmann/json_fwd.hpp>

namespace nphost {

nlohmann::json answerStatus(LoadedPlugIn& plugIn, LoadGuard const& guard, DataFileState& file, Log const& log);
// Numbers are brought into stored form, where the request asks for it, by `form`.
nlohmann::json answerLookup(LoadedPlugIn& plugIn, NumberForm const& form, nlohmann::json const& request);
nlohmann::json answerExplain(LoadedPlugIn& plugIn, NumberForm const& form, nlohmann::json const& request);

} // namespace nphost
