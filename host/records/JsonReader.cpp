#include "host/records/JsonReader.h"

#include <algorithm>
#include <charconv>
#include <simdjson.h>

namespace nphost {

// The parser reads beyond the end, and so needs no copy of the text; blocks have room for that.
static_assert(RecordReader::paddingCM >= simdjson::SIMDJSON_PADDING);

struct JsonReader::Library {
    using Element = simdjson::dom::element;

    // Never with an exponent; nothing for a number that is too long for that.
    template <class Number, class... Format>
    static std::string_view digits(Number number, std::array<char, numberLengthCM>& place, Format... format) {
        auto const [end, error] = std::to_chars(place.data(), place.data() + place.size(), number, format...);
        return error == std::errc() ? std::string_view(place.data(), static_cast<std::size_t>(end - place.data()))
                                    : std::string_view();
    }

    // What a member says, as a text. A number that is too long without an exponent has one.
    static std::string_view textOf(Element value, std::array<char, numberLengthCM>& place, std::string& list) {
        switch (value.type()) {
        case simdjson::dom::element_type::STRING:
            return value.get_string().value_unsafe();
        case simdjson::dom::element_type::INT64:
            return digits(value.get_int64().value_unsafe(), place);
        case simdjson::dom::element_type::UINT64:
            return digits(value.get_uint64().value_unsafe(), place);
        case simdjson::dom::element_type::DOUBLE:
            if (auto const text = digits(value.get_double().value_unsafe(), place, std::chars_format::fixed);
                !text.empty())
                return text;
            [[fallthrough]];
        case simdjson::dom::element_type::ARRAY:
        case simdjson::dom::element_type::OBJECT:
            // Written anew, so it needs a place that lasts as long as the record's values.
            return list = simdjson::minify(value);
        default:
            return {};
        }
    }

    simdjson::dom::parser parser;
};

JsonReader::JsonReader(std::vector<std::string> wanted, std::vector<std::string> forbidden)
    : wantedM(std::move(wanted)), forbiddenM(std::move(forbidden)), libraryM(std::make_unique<Library>()),
      numbersM(wantedM.size()), listsM(wantedM.size()) {}

JsonReader::~JsonReader() = default;

void JsonReader::begin(std::string_view text, std::uint64_t firstLine) {
    restM = text;
    lineM = firstLine;
}

bool JsonReader::next(Record& record) {
    if (restM.empty())
        return false;
    std::size_t const length = lineLength(restM);
    std::string_view const line = length > 0 ? restM.substr(0, length) : restM;
    setText(record, line);
    restM.remove_prefix(line.size());
    record.line = lineM++;
    record.problem = Problem::NONE;
    record.values.clear();
    if (record.text.find_first_not_of(" \t\r") == std::string_view::npos)
        return true;
    record.problem = read(record);
    if (record.problem != Problem::NONE)
        record.values.clear();
    return true;
}

Problem JsonReader::read(Record& record) {
    simdjson::dom::object object;
    // The last argument: no copy, because the padding is there.
    simdjson::error_code const error =
        libraryM->parser.parse(record.text.data(), record.text.size(), false).get_object().get(object);
    // Want of memory is no fault of the record.
    if (error == simdjson::MEMALLOC)
        throw std::bad_alloc();
    if (error != simdjson::SUCCESS)
        return Problem::BROKEN_JSON;
    record.values.resize(wantedM.size());
    std::size_t found = 0;
    bool twice = false;
    for (auto const [name, value] : object) {
        // Few names: a search costs less than a hash.
        auto const wanted = std::find(wantedM.begin(), wantedM.end(), name);
        if (wanted != wantedM.end()) {
            auto const i = static_cast<std::size_t>(wanted - wantedM.begin());
            // A value that is there has a place, be it empty.
            twice = twice || record.values[i].data() != nullptr;
            std::string_view const text = Library::textOf(value, numbersM[i], listsM[i]);
            record.values[i] = text.empty() ? std::string_view("") : text; // not null: it is there
            ++found;
        } else if (std::find(forbiddenM.begin(), forbiddenM.end(), name) != forbiddenM.end()) {
            // At once, and before what else is wrong: a further member of that name must not be added, not even a null.
            return Problem::NAME_TAKEN;
        }
    }
    return found == wantedM.size() && !twice ? Problem::NONE : Problem::MISSING_MEMBER;
}

} // namespace nphost
