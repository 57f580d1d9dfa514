// Fuzz target: the bodies of POST /v1/lookup.
//
// Input: a byte whose bits choose the form and what the request says, a byte that says how long the pieces are, then the
// body. In pieces it must be answered as in one; lines of JSON as where the library reads each of them, for which an
// escape is put into their keys. Each answer must be a line of JSON, or of CSV, and each line that is not blank have one.
#include "fuzz/Fuzz.h"
#include "fuzz/HttpSetting.h"
#include "host/http/LookUpStream.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace {

using npfuzz::checkEqual;
using nphost::LookUpStream;

std::string answersOf(std::string_view body, LookUpStream::Format format, unsigned int chosen, std::size_t size) {
    static HttpSetting setting;
    static nphost::AnswerWriter writer(setting.parts());
    LookUpStream::Defaults defaults;
    defaults.at = BAS::DateTime("20260131000000"); // now would differ
    defaults.normalise = (chosen & 2) != 0;
    if ((chosen & 4) != 0)
        defaults.method = chosen >> 3 & 1;
    LookUpStream stream(setting.parts(), writer, format, defaults);
    std::string out;
    bool goesOn = true;
    for (; goesOn && !body.empty(); body.remove_prefix(std::min(size, body.size())))
        goesOn = stream.take(body.substr(0, size), out);
    stream.end(out);
    return out;
}

// The same for people and libraries, but not at the first glance.
std::string escaped(std::string_view body) {
    std::string text(body);
    for (std::size_t at = 0; (at = text.find("\"number\"", at)) != std::string::npos; at += 8)
        text.replace(at, 2, "\"\\u006e");
    return text;
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const input = npfuzz::textOf(data, size);
    if (input.size() < 2 || input.size() > 8192)
        return 0;
    auto const chosen = static_cast<unsigned char>(input[0]);
    auto const length = std::max<std::size_t>(static_cast<unsigned char>(input[1]), 1);
    auto const format = (chosen & 1) != 0 ? LookUpStream::Format::CSV : LookUpStream::Format::NDJSON;
    std::string_view const body = input.substr(2);
    std::string const whole = answersOf(body, format, chosen, std::string::npos);
    checkEqual("the answers to pieces", body, answersOf(body, format, chosen, length), whole);
    checkEqual("the last answer's end", whole, whole.empty() || whole.ends_with('\n'), true);
    if (format == LookUpStream::Format::CSV)
        return 0;
    checkEqual("the library's answers", body, answersOf(escaped(body), format, chosen, std::string::npos), whole);
    std::vector<std::string> const lines = npfuzz::linesOf(body);
    std::vector<std::string> const answers = npfuzz::linesOf(whole);
    auto const asked = std::count_if(lines.begin(), lines.end(), [](std::string const& line) {
        return line.find_first_not_of(" \t\r") != std::string::npos;
    });
    checkEqual("the number of answers", body, answers.size(), static_cast<std::size_t>(asked));
    for (std::string const& answer : answers)
        checkEqual("the answer's being JSON", answer, nlohmann::json::accept(answer), true);
    return 0;
}
