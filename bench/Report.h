// Tables of results, as text, as Markdown and as JSON.
//
// A table is JSON throughout, so that it can come from another process:
//   {"key", "title", "columns": [...], "rows": [{"label", "cells": [cell or null, ...]}], "notes": [...]}
// A cell has "value" and "unit", and where they make sense "rounds" (each round's value), "ratio" and "of".
// Ownership: values. Threads: none inside. Errors: std::bad_alloc. Complexity: linear.
#pragma once

#include "bench/Process.h"

#include <iosfwd>
#include <string>
#include <vector>

namespace npbench {

// Units that are written in a way of their own: ns, s, B (per number), bytes, /s, x (a ratio); others stand as they are.
Json cell(double value, char const* unit);
Json cellOfRounds(std::vector<double> const& rounds, char const* unit); // the median
// The same with the median of the rounds' ratios to the other's rounds.
Json cellOfRounds(std::vector<double> const& rounds, char const* unit, std::vector<double> const& other);

class Table {
  public:
    Table(char const* key, std::string const& title, std::vector<std::string> const& columns)
        : jsonM({{"key", key},
                 {"title", title},
                 {"columns", columns},
                 {"rows", Json::array()},
                 {"notes", Json::array()}}) {}

    void addRow(std::string const& label, std::vector<Json> const& cells) {
        jsonM["rows"].push_back({{"label", label}, {"cells", cells}});
    }
    void addNote(std::string const& note) { jsonM["notes"].push_back(note); }
    Json const& json() const { return jsonM; }

  private:
    Json jsonM;
};

// Facts are an object of texts and numbers.
void printFacts(std::ostream& out, Json const& facts, bool markdown);
void printTable(std::ostream& out, Json const& table, bool markdown);

} // namespace npbench
