#include "host/EnrichPlan.h"

#include "host/HostError.h"
#include "host/JsonReader.h"
#include "host/Text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <set>

namespace nphost {

namespace {

struct AddedName {
    char const* option;
    char const* suffix;
};
constexpr std::array<AddedName, 5> addedNamesCM = {{{"network", "_network"},
                                                    {"valid-from", "_valid_from"},
                                                    {"prefix", "_prefix"},
                                                    {"next-change", "_next_change"},
                                                    {"method", "_method"}}};

std::string listOf(std::vector<std::string> const& names) {
    std::string text;
    for (std::string const& name : names)
        text += (text.empty() ? "'" : ", '") + name + "'";
    return shortened(text);
}

// A column by its number, from 1; none for any other text.
std::optional<std::size_t> columnNumber(std::string const& text, std::size_t count) {
    std::size_t number = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    bool const whole = error == std::errc() && end == text.data() + text.size();
    return whole && number >= 1 && number <= count ? std::optional(number - 1) : std::nullopt;
}

// The header's names come first: a column may be called "3".
std::size_t columnOf(std::string const& wanted, RecordInput const& input) {
    std::vector<std::string> const& names = input.columns();
    auto const named = std::count(names.begin(), names.end(), wanted);
    if (named > 1)
        throw HostError(input.firstFile() + ":1: the column '" + shortened(wanted) +
                        "' is there twice; give its number, from 1");
    if (named == 1)
        return static_cast<std::size_t>(std::find(names.begin(), names.end(), wanted) - names.begin());
    if (std::optional<std::size_t> const number = columnNumber(wanted, input.fieldCount()))
        return *number;
    throw HostError(input.firstFile() + ":1: there is no column '" + shortened(wanted) + "'; there are " +
                    (names.empty() ? "columns 1 to " + std::to_string(input.fieldCount()) : listOf(names)));
}

} // namespace

std::optional<Added> addedOf(std::string_view name) {
    auto const* const found = std::find_if(addedNamesCM.begin(), addedNamesCM.end(),
                                           [name](AddedName const& added) { return name == added.option; });
    return found == addedNamesCM.end() ? std::nullopt : std::optional(static_cast<Added>(found - addedNamesCM.begin()));
}

EnrichPlan::EnrichPlan(WantedColumns const& wanted, RecordFormat const& format, RecordInput const& input)
    : formatM(format), addedM(wanted.added), numberCountM(wanted.numbers.size()), membersM({wanted.time}) {
    membersM.insert(membersM.end(), wanted.numbers.begin(), wanted.numbers.end());
    if (format.kind == RecordFormat::Kind::JSON)
        nameAdded(wanted.numbers);
    else if (input.fieldCount() > 0) // else there is no record
        resolveColumns(wanted, input);
    if (std::set<std::string>(membersM.begin(), membersM.end()).size() != membersM.size() ||
        std::set<std::size_t>(columnsM.begin(), columnsM.end()).size() != columnsM.size())
        throw HostError("a column is named twice by --time and --number");
    checkNames(input);
}

void EnrichPlan::resolveColumns(WantedColumns const& wanted, RecordInput const& input) {
    fieldCountM = input.fieldCount();
    for (std::string const& column : membersM)
        columnsM.push_back(columnOf(column, input));
    if (!formatM.header)
        return;
    std::vector<std::string> names;
    for (std::size_t i = 0; i < wanted.numbers.size(); ++i)
        names.push_back(input.columns()[columnsM[i + 1]]);
    nameAdded(names);
}

void EnrichPlan::nameAdded(std::vector<std::string> const& numbers) {
    for (std::string const& number : numbers)
        for (Added const added : addedM)
            namesM.push_back(number + addedNamesCM[static_cast<std::size_t>(added)].suffix);
}

void EnrichPlan::checkNames(RecordInput const& input) const {
    std::set<std::string> taken(input.columns().begin(), input.columns().end());
    taken.insert(membersM.begin(), membersM.end());
    for (std::string const& name : namesM)
        if (!taken.insert(name).second)
            throw HostError("the column to be added, '" + shortened(name) + "', is there already");
}

bool EnrichPlan::explains() const {
    return std::any_of(addedM.begin(), addedM.end(),
                       [](Added added) { return added == Added::PREFIX || added == Added::NEXT_CHANGE; });
}

std::unique_ptr<RecordReader> EnrichPlan::makeReader() const {
    if (formatM.kind == RecordFormat::Kind::JSON)
        return std::make_unique<JsonReader>(membersM, namesM);
    return std::make_unique<CsvReader>(formatM.csv, columnsM, fieldCountM);
}

} // namespace nphost
