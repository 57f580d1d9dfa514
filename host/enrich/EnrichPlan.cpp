#include "host/enrich/EnrichPlan.h"

#include "host/base/HostError.h"
#include "host/base/Text.h"
#include "host/records/JsonReader.h"

#include <algorithm>
#include <array>
#include <set>

namespace nphost {

namespace {

struct AddedName {
    char const* option;
    char const* suffix;
};
// In the order of Added.
constexpr std::array<AddedName, 11> addedNamesCM = {{{"network", "_network"},
                                                     {"valid-from", "_valid_from"},
                                                     {"prefix", "_prefix"},
                                                     {"next-change", "_next_change"},
                                                     {"method", "_method"},
                                                     {"ported", "_ported"},
                                                     {"network-name", "_network_name"},
                                                     {"mcc", "_mcc"},
                                                     {"mnc", "_mnc"},
                                                     {"rn", "_rn"},
                                                     {"rn-context", "_rn_context"}}};

} // namespace

std::optional<Added> addedOf(std::string_view name) {
    auto const* const found = std::find_if(addedNamesCM.begin(), addedNamesCM.end(),
                                           [name](AddedName const& added) { return name == added.option; });
    return found == addedNamesCM.end() ? std::nullopt : std::optional(static_cast<Added>(found - addedNamesCM.begin()));
}

std::string addedNames() {
    std::string names;
    for (AddedName const& added : addedNamesCM)
        names.append(names.empty() ? "" : ", ").append(added.option);
    return names;
}

EnrichPlan::EnrichPlan(WantedColumns const& wanted, RecordFormat const& format, RecordInput& input)
    : formatM(format), addedM(wanted.added), numberCountM(wanted.numbers.size()), membersM({wanted.time}) {
    // The time comes first, as it does among each record's values.
    membersM.insert(membersM.end(), wanted.numbers.begin(), wanted.numbers.end());
    if (format.kind == RecordFormat::Kind::JSON)
        nameAdded(wanted.numbers);
    // Without a record nobody knows the columns, and none is missed.
    else if (!input.isEmpty())
        resolveColumns(input);
    // By place as well as by name: a column may be called by its name, and again by its position.
    if (std::set<std::string>(membersM.begin(), membersM.end()).size() != membersM.size() ||
        std::set<std::size_t>(columnsM.begin(), columnsM.end()).size() != columnsM.size())
        throw HostError("a column is named twice by --time and --number");
    checkNames(input);
}

void EnrichPlan::resolveColumns(RecordInput& input) {
    fieldCountM = input.fieldCount();
    for (std::string const& column : membersM)
        columnsM.push_back(input.positionOf(column));
    if (!formatM.header)
        return;
    std::vector<std::string> names;
    for (std::size_t i = 1; i < columnsM.size(); ++i)
        names.push_back(nameOf(i, input));
    nameAdded(names);
}

// Of a number's column, with its position where another number's column has the same name.
std::string EnrichPlan::nameOf(std::size_t i, RecordInput const& input) const {
    std::string const& name = input.columns()[columnsM[i]];
    bool const isAlone = std::count_if(columnsM.begin() + 1, columnsM.end(),
                                       [&](std::size_t column) { return input.columns()[column] == name; }) == 1;
    return isAlone ? name : name + "_" + std::to_string(columnsM[i] + 1);
}

void EnrichPlan::nameAdded(std::vector<std::string> const& numbers) {
    for (std::string const& number : numbers)
        for (Added const added : addedM)
            namesM.push_back(number + addedNamesCM[static_cast<std::size_t>(added)].suffix);
}

// Readers would differ in which of two equal names they take; so what is added must not be there yet.
void EnrichPlan::checkNames(RecordInput const& input) const {
    std::set<std::string> taken(input.columns().begin(), input.columns().end());
    taken.insert(membersM.begin(), membersM.end());
    for (std::string const& name : namesM)
        if (!taken.insert(name).second)
            throw HostError("the column to be added, '" + shortened(name) +
                            "', is there already: give it another name in the header, or enrich the file without it");
}

bool EnrichPlan::describes() const {
    return std::any_of(addedM.begin(), addedM.end(), [](Added added) {
        return added == Added::PREFIX || added == Added::NEXT_CHANGE || added == Added::PORTED;
    });
}

std::unique_ptr<RecordReader> EnrichPlan::makeReader() const {
    if (formatM.kind == RecordFormat::Kind::JSON)
        // An object that has a name to be added already is refused by the reader, record by record: there is no header
        // to ask.
        return std::make_unique<JsonReader>(membersM, namesM);
    return std::make_unique<CsvReader>(formatM.csv, columnsM, fieldCountM);
}

} // namespace nphost
