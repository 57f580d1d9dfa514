// The answers of the control socket: what the service returns, as the protocol's lines (docs/operations.md).
//
// Purpose: one function for each kind of answer, and no more than that: instants of the data are 14 digits, those of
// the clock ISO 8601 in UTC.
// Threads: no state.
// Errors: AnswerTooLong, of look-ups and explanations; what the service throws; std::bad_alloc. The JSON library ends
// the process when it cannot allocate while it frees a value: all but shortLine want a MemoryReserve that is whole.
// Complexity: linear in the answer.
#pragma once

#include "host/service/Networks.h"
#include "host/service/Service.h"

#include <array>
#include <nlohmann/json_fwd.hpp>
#include <string_view>

namespace nphost {

// Tables are null where there are none.
nlohmann::json toJson(Standing const& standing, std::optional<Networks::Standing> const& table);
nlohmann::json answerLookup(Service& service, LookUpQuestion const& question, NetworkTable const* table,
                            Metrics::Cell& cell);
nlohmann::json toJson(Explained const& explained, NetworkTable const* table);
nlohmann::json toJson(LoadLane::Job const& job);

// What became of a job without what memory does not suffice for, as a line in the caller's place.
using ShortLine = std::array<char, 256>;
std::string_view shortLine(LoadLane::Job const& job, ShortLine& line);

} // namespace nphost
