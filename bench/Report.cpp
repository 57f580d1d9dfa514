#include "bench/Report.h"

#include "bench/Measure.h"

#include <algorithm>
#include <cstdio>
#include <ostream>

namespace npbench {

namespace {

struct Scale {
    char const* unit;
    double least; // of the values shown so
    double divisor;
    char const* shown;
};
// Of a unit the first whose least value is reached.
constexpr Scale SCALES[] = {{"ns", 1e9, 1e9, " s"},
                            {"ns", 1e6, 1e6, " ms"},
                            {"ns", 1e4, 1e3, " us"},
                            {"ns", 0, 1, " ns"},
                            {"s", 1, 1, " s"},
                            {"s", 1e-3, 1e-3, " ms"},
                            {"s", 0, 1e-6, " us"},
                            {"/s", 1e6, 1e6, " M/s"},
                            {"/s", 1e3, 1e3, " k/s"},
                            {"/s", 0, 1, " /s"},
                            {"B", 0, 1, " B"},
                            {"bytes", 1 << 30, 1 << 30, " GiB"},
                            {"bytes", 1 << 20, 1 << 20, " MiB"},
                            {"bytes", 0, 1 << 10, " KiB"},
                            {"x", 0, 1, "x"}};

// Three significant digits, never in powers of ten.
std::string digits(double value) {
    char text[64];
    int const places = value >= 100 ? 0 : value >= 10 ? 1 : 2;
    std::snprintf(text, sizeof text, "%.*f", places, value);
    return text;
}

std::string shown(double value, std::string const& unit) {
    for (Scale const& scale : SCALES)
        if (scale.unit == unit && value >= scale.least)
            return digits(value / scale.divisor) + scale.shown;
    return digits(value) + ' ' + unit;
}

std::string shown(Json const& cell) {
    if (cell.is_null())
        return "-";
    if (cell.is_string())
        return cell.get<std::string>();
    std::string text = shown(cell["value"].get<double>(), cell["unit"].get<std::string>());
    if (cell.contains("ratio"))
        text += " (" + digits(cell["ratio"].get<double>()) + "x)";
    return text;
}

std::vector<std::vector<std::string>> texts(Json const& table) {
    std::vector<std::vector<std::string>> lines(1, {""});
    for (Json const& column : table["columns"])
        lines[0].push_back(column.get<std::string>());
    for (Json const& row : table["rows"]) {
        std::vector<std::string>& line = lines.emplace_back();
        line.push_back(row["label"].get<std::string>());
        for (Json const& cell : row["cells"])
            line.push_back(shown(cell));
    }
    return lines;
}

void printMarkdown(std::ostream& out, std::vector<std::vector<std::string>> const& lines) {
    for (std::size_t i = 0; i < lines.size(); ++i) {
        for (std::string const& text : lines[i])
            out << "| " << text << ' ';
        out << "|\n";
        for (std::size_t column = 0; i == 0 && column < lines[0].size(); ++column)
            out << (column == 0 ? "|---" : "|--:");
        if (i == 0)
            out << "|\n";
    }
}

void printText(std::ostream& out, std::vector<std::vector<std::string>> const& lines) {
    std::vector<std::size_t> widths(lines[0].size());
    for (auto const& line : lines)
        for (std::size_t i = 0; i < line.size(); ++i)
            widths[i] = std::max(widths[i], line[i].size());
    for (auto const& line : lines) {
        out << line[0] << std::string(widths[0] - line[0].size(), ' ');
        for (std::size_t i = 1; i < line.size(); ++i)
            out << std::string(widths[i] - line[i].size() + 3, ' ') << line[i];
        out << '\n';
    }
}

} // namespace

Json cell(double value, char const* unit) {
    return {{"value", value}, {"unit", unit}};
}

Json cellOfRounds(std::vector<double> const& rounds, char const* unit) {
    if (rounds.empty())
        return nullptr;
    Json result = cell(median(rounds), unit);
    result["rounds"] = rounds;
    return result;
}

Json cellOfRounds(std::vector<double> const& rounds, char const* unit, std::vector<double> const& other) {
    Json result = cellOfRounds(rounds, unit);
    std::vector<double> ratios;
    for (std::size_t i = 0; i < std::min(rounds.size(), other.size()); ++i)
        // Round by round, since both were measured side by side then; the ratio of the medians would mix rounds.
        ratios.push_back(rounds[i] / other[i]);
    if (!ratios.empty())
        result["ratio"] = median(ratios);
    return result;
}

void printFacts(std::ostream& out, Json const& facts, bool markdown) {
    for (auto const& [name, value] : facts.items())
        out << (markdown ? "- " : "") << name << ": " << (value.is_string() ? value.get<std::string>() : value.dump())
            << '\n';
}

void printTable(std::ostream& out, Json const& table, bool markdown) {
    auto const lines = texts(table);
    out << (markdown ? "\n### " : "\n== ") << table["title"].get<std::string>() << "\n\n";
    if (markdown)
        printMarkdown(out, lines);
    else
        printText(out, lines);
    for (Json const& note : table["notes"])
        out << (markdown ? "\n" : "  ") << note.get<std::string>() << '\n';
    out.flush();
}

} // namespace npbench
