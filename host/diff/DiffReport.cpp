#include "host/diff/DiffReport.h"

#include "host/base/Instant.h"
#include "host/base/JsonWriter.h"
#include "host/base/Text.h"

#include <algorithm>
#include <array>
#include <initializer_list>
#include <map>
#include <string_view>
#include <unistd.h>
#include <utility>
#include <vector>

namespace nphost {

namespace {

using DAT::NumberPortability::DataSummary;

constexpr std::array<std::pair<Difference, char const*>, 5> labelsCM = {{
    {Difference::GAINED, "Numbers gained:"},
    {Difference::LOST, "Numbers lost:"},
    {Difference::MOVED, "Numbers moved:"},
    {Difference::LENGTHENED, "Histories lengthened:"},
    {Difference::REWRITTEN, "Histories rewritten:"},
}};

// The numbers that were asked for, and nothing else: five columns.
class ListReport : public DiffReport {
  public:
    void number(NumberChange const& change) override {
        outM.append(change.number);
        append(change.before);
        append(change.after);
        outM.append('\n');
    }
    void finish(DiffTotals const& /*totals*/) override {}

  private:
    void append(std::optional<ShownRecord> const& record) {
        if (!record)
            return outM.append(std::string_view("\t-\t-"));
        outM.append('\t');
        outM.append(InstantDigits(record->validFrom).view());
        outM.append('\t');
        // As the file has it, without escapes: programs read the list.
        outM.append(record->network);
    }
};

// The moves, and nothing else: one line for each pair of networks.
class MatrixReport : public DiffReport {
  public:
    void number(NumberChange const& /*change*/) override {}

    void finish(DiffTotals const& totals) override {
        for (Move const& move : totals.result.moves)
            row(move.from.value_or("-"), move.to.value_or("-"), move.numbers);
        if (totals.result.otherMoves > 0)
            row("*", "*", totals.result.otherMoves);
    }

  private:
    // As the files have them, without escapes, as in the list.
    void row(std::string_view from, std::string_view to, std::uint64_t numbers) {
        outM.append(from);
        outM.append('\t');
        outM.append(to);
        outM.append('\t');
        outM.append(std::to_string(numbers));
        outM.append('\n');
    }
};

class TextReport : public DiffReport {
  public:
    void number(NumberChange const& /*change*/) override {} // numbers are a list's

    void finish(DiffTotals const& totals) override {
        files(totals);
        outM.append('\n');
        for (auto const& [what, label] : labelsCM)
            row(label, {totals.result.count(what)});
        moves(totals);
    }

  private:
    static constexpr std::size_t labelWidthCM = 24;
    static constexpr std::size_t columnWidthCM = 14;
    static constexpr std::size_t mostColumnsCM = 7; // of the matrix; more networks are told pair by pair
    static constexpr std::size_t mostListedCM = 40;

    // A cell is never without the blank that parts it from the one before.
    void cell(std::string const& text) {
        outM.append(std::string(columnWidthCM - std::min(columnWidthCM - 1, characters(text)), ' ') + text);
    }
    void row(std::string label, std::initializer_list<unsigned long> numbers) {
        label.resize(std::max(labelWidthCM, label.size()), ' ');
        outM.append(label);
        for (unsigned long const number : numbers)
            cell(std::to_string(number));
        outM.append('\n');
    }

    void files(DiffTotals const& totals) {
        DataSummary const& old = totals.before.lines;
        DataSummary const& now = totals.after.lines;
        outM.append("Old file:     " + shortened(totals.before.name) +
                    "\nNew file:     " + shortened(totals.after.name) + "\nIn force at:  " + readable(totals.at) +
                    "\n\n" + std::string(labelWidthCM, ' '));
        cell("old");
        cell("new");
        outM.append('\n');
        row("Lines:", {old.lines, now.lines});
        row("Records:", {old.records, now.records});
        row("Numbers:", {old.numbers, now.numbers});
        row("Rejected lines:", {old.rejected(), now.rejected()});
        row("  number of fields:", {old.rejectedFields, now.rejectedFields});
        row("  valid-from:", {old.rejectedDateTimes, now.rejectedDateTimes});
        row("  number:", {old.rejectedNumbers, now.rejectedNumbers});
        row("  network identifier:", {old.rejectedNetworks, now.rejectedNetworks});
        row("  duplicate:", {old.duplicates, now.duplicates});
    }

    static std::string nameOf(std::optional<std::string> const& network) {
        return network ? shortened(*network) : std::string("-");
    }

    void moves(DiffTotals const& totals) {
        ComparisonResult const& result = totals.result;
        if (result.count(Difference::MOVED) == 0)
            return;
        std::vector<std::string> names;
        for (Move const& move : result.moves)
            // One name too many is enough to know that the matrix does not fit; further ones are not gathered.
            for (auto const* const network : {&move.from, &move.to})
                if (std::find(names.begin(), names.end(), nameOf(*network)) == names.end() &&
                    names.size() <= mostColumnsCM)
                    names.push_back(nameOf(*network));
        // One order for rows and columns, so that the diagonal, where nobody moved, can be seen.
        std::sort(names.begin(), names.end());
        // A name that is as wide as its column would touch its neighbour.
        bool const fits = names.size() <= mostColumnsCM && result.otherMoves == 0 &&
                          std::all_of(names.begin(), names.end(),
                                      [](std::string const& name) { return characters(name) < columnWidthCM; });
        if (fits)
            matrix(result, names);
        else
            list(result);
    }

    void matrix(ComparisonResult const& result, std::vector<std::string> const& names) {
        // Added up, because names that are shown alike fall together.
        std::map<std::pair<std::string, std::string>, std::uint64_t> cells;
        for (Move const& move : result.moves)
            cells[{nameOf(move.from), nameOf(move.to)}] += move.numbers;
        outM.append("\nNumbers moved from network (left) to network (top); '-' is nobody:\n" +
                    std::string(labelWidthCM, ' '));
        for (std::string const& to : names)
            cell(to);
        for (std::string const& from : names) {
            outM.append("\n" + from + std::string(labelWidthCM - characters(from), ' '));
            for (std::string const& to : names) {
                auto const found = cells.find({from, to});
                cell(found == cells.end() ? "." : std::to_string(found->second));
            }
        }
        outM.append('\n');
    }

    void list(ComparisonResult const& result) {
        outM.append(std::string_view("\nNumbers moved from network to network, most first; '-' is nobody:\n"));
        // With those that the comparison could not count one by one.
        std::uint64_t rest = result.otherMoves;
        for (std::size_t i = 0; i < result.moves.size(); ++i) {
            Move const& move = result.moves[i];
            // The moves come most first, so what is left over is the small ones.
            if (i >= mostListedCM) {
                rest += move.numbers;
                continue;
            }
            cell(std::to_string(move.numbers));
            outM.append("  " + nameOf(move.from) + " -> " + nameOf(move.to) + "\n");
        }
        if (rest == 0)
            return;
        cell(std::to_string(rest));
        outM.append(std::string_view("  between others (--matrix tells more)\n"));
    }
};

// The object is written piece by piece, so that it may list millions of numbers.
class JsonReport : public DiffReport {
  public:
    explicit JsonReport(std::optional<Difference> listed) : listedM(listed) {}

    void number(NumberChange const& change) override {
        // The list is begun by its first number: without one it is written empty, at the end.
        std::string text = startedM ? ",\n" : "{\"changes\":[\n";
        startedM = true;
        JsonWriter json(text);
        json.beginObject();
        append(json.key("new"), change.after);
        json.member("number", change.number);
        append(json.key("old"), change.before);
        json.endObject();
        outM.append(text);
    }

    void finish(DiffTotals const& totals) override {
        ComparisonResult const& result = totals.result;
        std::string text = startedM ? "],\n" : listedM ? "{\"changes\":[],\n" : "{";
        JsonWriter json(text); // the object is open already
        json.member("at", digitsOf(totals.at))
            .member("equal", result.isEqual())
            .member("gained", result.count(Difference::GAINED))
            .member("lengthened", result.count(Difference::LENGTHENED));
        if (listedM)
            json.member("listed", differenceNamesCM[static_cast<std::size_t>(*listedM)]);
        json.member("lost", result.count(Difference::LOST)).member("moved", result.count(Difference::MOVED));
        append(json.key("moves"), result.moves);
        append(json.key("new"), totals.after);
        append(json.key("old"), totals.before);
        json.member("otherMoves", result.otherMoves)
            .member("rewritten", result.count(Difference::REWRITTEN))
            .endObject();
        outM.append(text);
        outM.append('\n');
    }

  private:
    static void append(JsonWriter& json, std::optional<ShownRecord> const& record) {
        if (!record) {
            json.value(nullptr);
            return;
        }
        json.beginObject()
            .member("network", record->network)
            .member("validFrom", digitsOf(record->validFrom))
            .endObject();
    }

    static void append(JsonWriter& json, FileTotals const& file) {
        DataSummary const& lines = file.lines;
        json.beginObject()
            .member("duplicates", lines.duplicates)
            .member("file", file.name)
            .member("lines", lines.lines)
            .member("numbers", lines.numbers)
            .member("records", lines.records)
            .member("rejectedDateTimes", lines.rejectedDateTimes)
            .member("rejectedFields", lines.rejectedFields)
            .member("rejectedNetworks", lines.rejectedNetworks)
            .member("rejectedNumbers", lines.rejectedNumbers)
            .endObject();
    }

    static void append(JsonWriter& json, std::vector<Move> const& moves) {
        using Network = std::optional<std::string>;
        auto const name = [](Network const& network) { return network ? Network(asUtf8(*network)) : Network(); };
        // Names that are no UTF-8 may become the same one.
        std::map<std::pair<Network, Network>, std::uint64_t> summed;
        for (Move const& move : moves)
            summed[{name(move.from), name(move.to)}] += move.numbers;
        json.beginArray();
        for (auto const& [networks, numbers] : summed)
            json.beginObject()
                .member("from", networks.first)
                .member("numbers", numbers)
                .member("to", networks.second)
                .endObject();
        json.endArray();
    }

    std::optional<Difference> listedM;
    bool startedM = false;
};

} // namespace

DiffReport::DiffReport() : outM(STDOUT_FILENO) {}

std::unique_ptr<DiffReport> makeDiffReport(std::optional<Difference> listed, bool matrix, bool json) {
    // --matrix stands alone, as the parser sees to; --json with --list has the numbers, too.
    if (matrix)
        return std::make_unique<MatrixReport>();
    if (json)
        return std::make_unique<JsonReport>(listed);
    if (listed)
        return std::make_unique<ListReport>();
    return std::make_unique<TextReport>();
}

} // namespace nphost
