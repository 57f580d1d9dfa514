// nphost::EnrichPlan: what an enrichment does with each record, worked out before the first one.
//
// Purpose: which columns or members are the time and the numbers, and what is added for each number under which name.
// Units: columns count from 0; the first wanted value is the time, the others are the numbers, in the order of the
// options. Names of what is added: for each number all of `added`, COLUMN_network, COLUMN_valid_from and so on; where
// two numbers' columns have one name, COLUMN_1_network and so on, by position.
// Ownership: a value. Threads: none inside.
// Errors: HostError in one line: a column is not there, or its name is there twice, or a name to be added is taken.
// Complexity: linear in the header.
#pragma once

#include "host/records/RecordInput.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace nphost {

enum class Added {
    NETWORK,
    VALID_FROM,
    PREFIX,
    NEXT_CHANGE,
    METHOD,
    PORTED,
    // of the table of networks
    NETWORK_NAME,
    MCC,
    MNC,
    ROUTING_NUMBER,
    ROUTING_CONTEXT,
};
constexpr bool isOfTable(Added added) {
    return added >= Added::NETWORK_NAME;
}

// Of "network", "valid-from" and so on; none for any other text.
std::optional<Added> addedOf(std::string_view name);
// All of them, with commas between.
std::string addedNames();

// Names of columns or members, or numbers of columns from 1.
struct WantedColumns {
    std::string time;
    std::vector<std::string> numbers; // one or more
    std::vector<Added> added;
};

class EnrichPlan {
  public:
    // The input was started.
    EnrichPlan(WantedColumns const& wanted, RecordFormat const& format, RecordInput& input);

    RecordFormat const& format() const { return formatM; }
    std::vector<Added> const& added() const { return addedM; }
    std::size_t numberCount() const { return numberCountM; }

    // Whether something is wanted that a search does not tell.
    bool describes() const;

    // What is added to each record, one after the other.
    std::vector<std::string> const& names() const { return namesM; }

    std::unique_ptr<RecordReader> makeReader() const;

  private:
    void resolveColumns(RecordInput& input);
    std::string nameOf(std::size_t i, RecordInput const& input) const;
    void nameAdded(std::vector<std::string> const& numbers);
    void checkNames(RecordInput const& input) const;

    RecordFormat formatM;
    std::vector<Added> addedM;
    std::size_t numberCountM;
    std::vector<std::string> membersM; // of JSON: time, numbers
    std::vector<std::size_t> columnsM; // of CSV: time, numbers
    std::size_t fieldCountM = 0;
    std::vector<std::string> namesM;
};

} // namespace nphost
