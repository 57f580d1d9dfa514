// Fuzz target: records of newline-delimited JSON.
//
// Input: a line that is the value to be added, then the text that is read. Each object that is taken must be one to
// another library too, with the same member; with the value added it must be the same object and that value.
#include "fuzz/Fuzz.h"
#include "host/base/Text.h"
#include "host/records/JsonReader.h"
#include "host/records/RecordWriter.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;
using npfuzz::checkEqual;
using nphost::Problem;
using nphost::Record;

json parsed(std::string_view text) {
    json value = json::parse(text, nullptr, false);
    checkEqual("being an object", text, value.is_object(), true);
    return value;
}

void checkAdded(Record const& record, json expected, std::string_view value) {
    std::string out;
    std::string encoded;
    nphost::NdjsonWriter const writer({"n \"1\"", "x"});
    writer.encode(encoded, value);
    std::vector<std::string_view> const values = {encoded, {}};
    writer.write(out, record, values);
    expected["n \"1\""] = nphost::asUtf8(value);
    expected["x"] = nullptr;
    checkEqual("the object with a value added", out, parsed(out).dump(), expected.dump());
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const input = npfuzz::textOf(data, size);
    std::string_view const value = input.substr(0, input.find('\n'));
    std::string const text(input.substr(std::min(value.size() + 1, input.size())));
    std::string const padded = text + std::string(nphost::RecordReader::paddingCM, '}');

    nphost::JsonReader reader({"n"}, {"n \"1\"", "x"});
    reader.begin(std::string_view(padded).substr(0, text.size()), 1);
    std::string bytes;
    for (Record record; reader.next(record);) {
        bytes.append(record.text).append(record.lineEnd);
        if (record.problem != Problem::NONE || record.values.empty())
            continue;
        json const object = parsed(record.text);
        json const& member = object.at("n");
        if (member.is_string())
            checkEqual("the member", record.text, record.values[0], member.get<std::string>());
        else if (member.is_number_integer())
            checkEqual("the member", record.text, record.values[0], member.dump());
        checkAdded(record, object, value);
    }
    checkEqual("the bytes of all records", text, bytes, text);
    return 0;
}
