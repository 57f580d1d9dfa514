// nphost diff against a naive model of two files, and the sorter beneath it with hardly any memory.
#include "host/diff/RecordSorter.h"
#include "tests/ProgramRun.h"
#include "tests/SeededRandom.h"
#include "tests/Texts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>
#include <tuple>
#include <vector>

namespace {

using Json = nlohmann::json;
using History = std::map<std::string, std::string>; // network by valid-from
using Records = std::map<std::string, History>;     // by the digits of the number
using Random = std::mt19937;

constexpr char const* atCM = "20200615120000";

std::string instant(Random& random) {
    std::string const year = std::to_string(2017 + random() % 7);
    return year + "0" + std::to_string(1 + random() % 9) + "1" + std::to_string(random() % 10) + "120000";
}

std::string network(Random& random) {
    std::string const name = "NET" + std::to_string(random() % 8);
    return random() % 50 == 0 ? name + std::string(100 + random() % 3000, 'x') : name;
}

std::string digits(Random& random) {
    std::string text = "0044" + std::to_string(1 + random() % 9); // no zero: "00" would begin the national form
    bool const isLong = random() % 40 == 0;
    if (isLong) // these agree in the sixteen digits that the sorting compares first
        text += std::string(nphost::headDigitsCM - text.size(), '7');
    for (std::size_t more = isLong ? random() % 30 : 2 + random() % 8; more > 0; --more)
        text += static_cast<char>('0' + random() % 10);
    return text;
}

// One of the forms that mean the number.
std::string written(std::string const& stored, Random& random) {
    std::string number = std::array{stored, "+" + stored.substr(2), "0" + stored.substr(4)}[random() % 3];
    if (random() % 5 == 0)
        number.insert(number.size() - 1, random() % 2 == 0 ? "-" : "/");
    return number;
}

// A data file that holds the records, and the lines that no load takes.
struct Generated {
    std::string text;
    std::array<unsigned long, 3> bad{}; // number of fields, valid-from, network identifier
    unsigned long duplicates = 0;
    unsigned long lines = 0;
    unsigned long records = 0;
};

Generated fileOf(Records const& records, Random& random) {
    Generated file;
    std::vector<std::string> lines;
    std::vector<std::string> late; // after all others
    std::array<std::string, 3> const blanks = {"  ", "\t", " \v "};
    for (auto const& [number, history] : records)
        for (auto const& [validFrom, holder] : history) {
            auto const& gap = blanks[random() % blanks.size()];
            lines.push_back(written(number, random));
            for (std::string const* const field : {&gap, &validFrom, &gap, &holder})
                lines.back() += *field;
            ++file.records;
            if (random() % 30 == 0) {
                late.push_back(written(number, random) + " " + validFrom + " DUPLICATE");
                ++file.duplicates;
            }
        }
    for (std::size_t i = records.size() / 20; i > 0; --i) {
        std::array<std::string, 4> const wrong = {"", "07700900123 20200101000000", "07700 20200231000000 A",
                                                  std::string("07700 20200101000000 A\0B", 24)};
        std::size_t const which = random() % wrong.size();
        lines.push_back(wrong[which]);
        ++file.bad[which < 2 ? 0 : which - 1];
    }
    std::shuffle(lines.begin(), lines.end(), random);
    std::shuffle(late.begin(), late.end(), random);
    lines.insert(lines.end(), late.begin(), late.end());
    file.lines = lines.size();
    for (std::string const& line : lines)
        file.text += line + (random() % 10 == 0 ? "\r\n" : "\n");
    if (!lines.back().empty() && random() % 2 == 0)
        file.text.erase(file.text.find_last_not_of("\r\n") + 1);
    return file;
}

Records randomRecords(Random& random, std::size_t numbers) {
    Records records;
    for (std::size_t i = 0; i < numbers; ++i) {
        History& history = records[digits(random)];
        for (std::size_t j = random() % 10 == 0 ? 1 + random() % 20 : 1 + random() % 2; j > 0; --j)
            history.emplace(instant(random), network(random));
    }
    return records;
}

History::iterator oneOf(History& history, Random& random) {
    return std::next(history.begin(), static_cast<std::ptrdiff_t>(random() % history.size()));
}

Records changed(Records records, Random& random) {
    Records const more = randomRecords(random, records.size() / 50);
    std::erase_if(records, [&](auto const&) { return random() % 40 == 0; });
    for (auto& [number, history] : records) {
        if (random() % 25 == 0)
            history.emplace(instant(random), network(random));
        if (random() % 20 == 0)
            oneOf(history, random)->second = network(random);
        if (random() % 20 == 0 && history.size() > 1)
            history.erase(oneOf(history, random));
    }
    records.insert(more.begin(), more.end());
    return records;
}

// The model: everything held in maps, one plain question after the other.
class Model {
  public:
    Model(Records const& before, Records const& after) {
        for (auto const& [number, history] : before)
            if (!after.contains(number))
                list("lost", number, shown(history), noneM);
            else
                compare(number, history, after.at(number));
        for (auto const& [number, history] : after)
            if (!before.contains(number))
                list("gained", number, noneM, shown(history));
    }

    std::map<std::string, std::string> lists;
    std::map<std::string, unsigned long> counts;
    std::map<std::pair<std::string, std::string>, unsigned long> moves;

  private:
    using Shown = std::pair<std::string, std::string>;

    static Shown held(History const& history) {
        auto const next = history.upper_bound(atCM);
        return next == history.begin() ? Shown("-", "-") : Shown(*std::prev(next));
    }
    static Shown shown(History const& history) {
        Shown const found = held(history);
        return found.first == "-" ? Shown(*history.begin()) : found;
    }

    void list(std::string const& what, std::string const& number, Shown const& before, Shown const& after) {
        lists[what] += number + "\t" + before.first + "\t" + before.second + "\t" + after.first + "\t" + after.second;
        lists[what] += "\n";
        ++counts[what];
    }

    void compare(std::string const& number, History const& before, History const& after) {
        if (before == after)
            return;
        Shown const from = held(before);
        Shown const to = held(after);
        if (from.second != to.second) {
            list("moved", number, from, to);
            ++moves[{from.second, to.second}];
        }
        for (auto record = before.rbegin(); record != before.rend(); ++record) {
            auto const now = after.find(record->first);
            if (now == after.end() || now->second != record->second)
                return list("rewritten", number, *record, now == after.end() ? noneM : Shown(*now));
        }
        for (auto record = after.rbegin(); record != after.rend(); ++record)
            if (!before.contains(record->first))
                return list("lengthened", number, *before.rbegin(), *record);
    }

    Shown noneM{"-", "-"};
};

std::string const kindsCM[] = {"gained", "lost", "moved", "lengthened", "rewritten"};

class Site {
  public:
    Site() {
        configurationM = folderM.write("nphost.toml", "[DAT_NumberPortability]\nFileName = \"not there\"\n"
                                                      "CountryCode = \"44\"\nNationalAccessCode = \"0\"\n");
    }
    std::string write(std::string const& name, std::string const& text) const { return folderM.write(name, text); }
    std::string file(std::string const& name) const { return folderM.file(name); }
    Result diff(std::string const& more) const {
        return runProgram("diff --config " + configurationM + " --at " + atCM + " " + more + " " + file("old") + " " +
                          file("new"));
    }

  private:
    TemporaryFolder folderM;
    std::string configurationM;
};

void expectSide(Json const& side, Generated const& file, Records const& records) {
    EXPECT_EQ(side.at("lines"), file.lines);
    EXPECT_EQ(side.at("records"), file.records);
    EXPECT_EQ(side.at("numbers"), records.size());
    EXPECT_EQ(side.at("duplicates"), file.duplicates);
    EXPECT_EQ(side.at("rejectedFields"), file.bad[0]);
    EXPECT_EQ(side.at("rejectedDateTimes"), file.bad[1]);
    EXPECT_EQ(side.at("rejectedNetworks"), file.bad[2]);
}

void expectMoves(Json const& summary, Model const& model) {
    unsigned long moved = summary.at("otherMoves");
    for (Json const& move : summary.at("moves")) {
        auto const name = [&](char const* key) {
            return move.at(key).is_null() ? "-" : move.at(key).get<std::string>();
        };
        EXPECT_EQ(move.at("numbers"), model.moves.at({name("from"), name("to")}));
        moved += move.at("numbers").get<unsigned long>();
    }
    EXPECT_EQ(moved, model.counts.at("moved"));
}

} // namespace

// With 1 MiB each file becomes several runs, and long names find no room in the table of names.
TEST(DiffTest, AgreesWithANaiveModel) {
    SeededRandom random;
    Records const before = randomRecords(random, 12000);
    Records const after = changed(before, random);
    Model const model(before, after);
    Generated const old = fileOf(before, random);
    Generated const now = fileOf(after, random);
    Site const site;
    site.write("old", old.text);
    site.write("new", now.text);
    for (std::string const memory : {"", "--memory 1"}) {
        Result const summary = site.diff("--json " + memory);
        ASSERT_EQ(summary.status, 1) << summary.err;
        Json const json = Json::parse(summary.out);
        expectSide(json.at("old"), old, before);
        expectSide(json.at("new"), now, after);
        EXPECT_EQ(json.at("equal"), false);
        expectMoves(json, model);
        std::istringstream matrix(site.diff(memory + " --matrix").out);
        std::map<std::pair<std::string, std::string>, unsigned long> moves;
        for (std::string from, to, numbers; matrix >> from >> to >> numbers;)
            moves[{from, to}] += std::stoul(numbers);
        if (memory.empty())
            EXPECT_EQ(moves, model.moves);
        else // names without room in memory are among the rest
            EXPECT_EQ((moves[{"*", "*"}]), json.at("otherMoves"));
        for (std::string const& kind : kindsCM) {
            EXPECT_EQ(json.at(kind), model.counts.at(kind)) << kind;
            Result const list = site.diff(std::string(memory).append(" --list ").append(kind));
            EXPECT_EQ(list.status, 1);
            EXPECT_TRUE(list.out == model.lists.at(kind)) << kind;
            EXPECT_EQ(list.err, "");
        }
    }
}

struct Compared {
    char const* label;
    char const* before;
    char const* after;
    char const* options;
    int status;
    char const* part; // of standard output; of standard error with status 2
};

constexpr Compared comparedCM[] = {
    {"another order, form and bad lines", "0171 20200101000000 A\n0172 20200101000000 B\n",
     "+44172 20200101000000 B\nbad\n0171 20200101000000 A\n", "", 0,
     "Rejected lines:                      0             1"},
    {"two empty files", "", "", "--json", 0, "\"equal\":true"},
    {"lists nothing", "0171 20200101000000 A\n", "0171 20200101000000 A\n", "--json --list moved", 0,
     "{\"changes\":[],"},
    {"a move", "0171 20200101000000 A\n", "0171 20200101000000 A\n0171 20200202000000 B\n", "", 1,
     "A             B\nA                                    .             1\nB "},
    {"columns by characters", "0171 20200101000000 Ärger\n", "0171 20200101000000 Ärger\n0171 20200202000000 Zöllü\n",
     "", 1,
     "         Ärger\nZöllü                                .             .\nÄrger                                "
     "1 "},
    {"either a matrix or a list", "", "", "--matrix --list moved", 2, "excludes"},
    {"a move still to come is none", "0171 20200101000000 A\n", "0171 20200101000000 A\n0171 20300202000000 B\n",
     "--list moved", 1, ""},
    {"a move into nobody's hands", "0171 20200101000000 A\n", "0171 20300101000000 A\n", "--list moved", 1,
     "0044171\t20200101000000\tA\t-\t-\n"},
    {"a listed change as JSON", "", "0171 20200101000000 A\n", "--json --list gained", 1,
     "{\"new\":{\"network\":\"A\",\"validFrom\":\"20200101000000\"},\"number\":\"0044171\",\"old\":null}"},
    {"numbers that agree in sixteen digits", "0044171234567890 20200101000000 A\n00441712345678901 20200101000000 B\n",
     "0044171234567890 20200101000000 A\n00441712345678901 20200101000000 C\n", "--list rewritten", 1,
     "00441712345678901\t20200101000000\tB\t20200101000000\tC\n"},
    {"a lost record above an older one that was rewritten", "0171 20200101000000 A\n0171 20200202000000 B\n",
     "0171 20200101000000 C\n", "--list rewritten", 1, "0044171\t20200202000000\tB\t-\t-\n"},
    {"no such kind", "", "", "--list swapped", 2, "--list"},
    {"too little memory", "", "", "--memory 0", 2, "--memory"},
    {"no folder for temporary files is needed", "", "", "--memory 1", 0, "Lines:"},
};

TEST(DiffTest, TellsEqualDifferentAndFailed) {
    Site const site;
    for (Compared const& test : comparedCM) {
        site.write("old", test.before);
        site.write("new", test.after);
        Result const result = site.diff(test.options);
        EXPECT_EQ(result.status, test.status) << test.label << result.err;
        EXPECT_TRUE(contains(test.status == 2 ? result.err : result.out, test.part)) << test.label << "\n"
                                                                                     << result.out << result.err;
    }
    std::filesystem::remove(site.file("new"));
    Result const missing = site.diff("");
    EXPECT_EQ(missing.status, 2);
    EXPECT_TRUE(contains(missing.err, site.file("new") + " cannot be opened")) << missing.err;
    EXPECT_EQ(lineCount(missing.err), 1);
}

// Blocks of 4 KiB give more runs than are merged at once; the largest records need larger blocks.
TEST(RecordSorterTest, OrdersWhatNeverFitsIntoMemory) {
    SeededRandom random;
    for (bool const ordered : {false, true}) {
        using Row = std::tuple<std::string, std::int64_t, std::uint64_t, std::uint32_t, std::string>;
        std::vector<Row> rows;
        for (std::uint64_t line = 1; line <= 20000; ++line) {
            bool const named = random() % 100 == 0;
            rows.emplace_back(digits(random), -static_cast<std::int64_t>(random() % 5), line,
                              named ? UINT32_MAX : random() % 7, named ? std::string(random() % 9000, 'n') : "");
        }
        if (ordered)
            std::sort(rows.begin(), rows.end());
        nphost::RecordSorter sorter(4096);
        for (auto const& [number, minusSeconds, line, network, text] : rows)
            sorter.add({nphost::headOf(number), static_cast<std::uint64_t>(-minusSeconds), line, network,
                        std::string_view(number).substr(std::min(nphost::headDigitsCM, number.size())), text});
        auto const source = sorter.finish();
        static_assert(20000 * 32 / 4096 > nphost::RecordSorter::mostRunsCM); // a record takes 32 bytes
        std::sort(rows.begin(), rows.end());
        nphost::SortedRecord record;
        for (Row const& row : rows) {
            ASSERT_TRUE(source->next(record));
            std::string number;
            nphost::appendHead(number, record.head);
            number += record.tail;
            ASSERT_EQ(
                row, Row(number, -static_cast<std::int64_t>(record.seconds), record.line, record.network, record.text));
        }
        EXPECT_FALSE(source->next(record));
    }
}
