// What the daemon and its clients agree on: one JSON object a line, both ways (docs/operations.md).
//
// Purpose: the version, the bounds, how an object becomes a line, and what a report of the log is as an object.
// Threads: no state.
// Errors: std::bad_alloc; reportOf throws nlohmann::json::exception for an object of another form.
// Complexity: linear in the object.
#pragma once

#include "host/log/LogReport.h"
#include "host/service/QuestionError.h"

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <type_traits>

namespace nphost {

constexpr int protocolVersionCM = 1;
constexpr std::size_t mostLookupNumbersCM = 1000;            // in one request
constexpr std::size_t mostAnswerBytesCM = 4UL * 1024 * 1024; // of the texts of a look-up's or an explanation's answer
constexpr std::size_t recentReportsCM = 100;                 // that a client of the log gets first

// The answer would be longer than mostAnswerBytesCM: whoever asks for less in a request may get it.
class AnswerTooLong : public QuestionError {
  public:
    using QuestionError::QuestionError;
};

// What a value of that type is called: "a text", "true or false".
template <class Value>
constexpr char const* nameOfType() {
    return std::is_same_v<Value, bool> ? "true or false" : "a text";
}

// The value of the request's key. QuestionError names the key if it is not there or of another type.
template <class Value>
Value valueOf(nlohmann::json const& request, std::string const& key) {
    auto const found = request.find(key);
    if (found == request.end())
        throw QuestionError("the key '" + key + "' is missing");
    auto const* const value = found->template get_ptr<Value const*>();
    if (value == nullptr)
        throw QuestionError("'" + key + "' must be " + nameOfType<Value>());
    return *value;
}
// The same, or `otherwise` if it is not there.
template <class Value>
Value valueOf(nlohmann::json const& request, std::string const& key, Value const& otherwise) {
    return request.contains(key) ? valueOf<Value>(request, key) : otherwise;
}

// Adds the version, writes the object on one line and ends it; bytes that are not UTF-8 are replaced.
std::string lineOf(nlohmann::json object);

// A report with its keys as in the log's JSON form.
nlohmann::json toJson(LogReport const& report);
LogReport reportOf(nlohmann::json const& object);

// {"ok": false, "error": reason}, and "tooLong": true where the answer is
std::string errorLine(std::string const& reason, bool tooLong = false);
// The same where there is no memory to make one.
constexpr std::string_view outOfMemoryLineCM = "{\"error\":\"out of memory\",\"ok\":false,\"version\":1}\n";

} // namespace nphost
