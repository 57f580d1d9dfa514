// nphost enrich as its users meet it: against a brute-force reading of public data and generated records, and at the
// edges of the formats.
#include "host/base/Interruption.h"
#include "host/records/BlockReader.h"
#include "host/records/ByteSource.h"
#include "host/records/Compression.h"
#include "tests/ProgramRun.h"
#include "tests/SeededRandom.h"
#include "tests/Texts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <ctime>
#include <map>
#include <optional>
#include <random>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace std::string_literals;

// A shell's command, run in the folder, with ENRICH for 'nphost enrich --config ...' and ROWS for columns by number.
Result shell(TemporaryFolder const& folder, std::string const& command) {
    return runShell(folder, replaced(replaced(command, "ENRICH", "nphost enrich --config nphost.toml"), "ROWS",
                                     "--no-header --number 1 --time 2"));
}

void writeConfiguration(TemporaryFolder const& folder, std::string const& data, std::string const& country) {
    folder.write("data.dat", data);
    folder.write("nphost.toml", "[DAT_NumberPortability]\nFileName = \"data.dat\"\nCountryCode = \"" + country +
                                    "\"\nNationalAccessCode = \"0\"\n");
}

std::string decompressed(std::string const& file) {
    nphost::ByteSource source(file);
    std::string all;
    std::array<char, 65536> buffer{};
    while (std::size_t const count = source.read(buffer))
        all.append(buffer.data(), count);
    return all;
}

std::string gzipped(std::string const& text) {
    std::string place;
    return std::string(nphost::Compressor(nphost::Compression::GZIP).compress(text, place));
}

// ---- Against a brute-force reading

// What the data say, by key and valid-from; shares no code with the product.
class BruteForce {
  public:
    struct Answer {
        std::string network;
        std::string validFrom;
        std::string prefix;
        bool operator==(Answer const&) const = default;
    };

    explicit BruteForce(std::string const& file) {
        std::ifstream in(file);
        for (std::string number, from, network; in >> number >> from >> network;) {
            std::string const key = number[0] == '+'                  ? "00" + number.substr(1)
                                    : number.compare(0, 2, "00") == 0 ? number
                                    : number[0] == '0'                ? "0033" + number.substr(1)
                                                                      : "0033" + number;
            historiesM[key].emplace(from, network);
        }
        for (auto const& [key, history] : historiesM)
            keysM.push_back(key);
    }

    std::vector<std::string> const& keys() const { return keysM; }

    Answer ask(std::string const& number, std::string const& at, std::string const& method) const {
        std::vector<std::string> const asked = prefixes(number, method);
        for (std::string const& prefix : asked) {
            auto const& history = historiesM.at(prefix);
            auto const after = history.upper_bound(at);
            if (after != history.begin())
                return {std::prev(after)->second, std::prev(after)->first, prefix};
        }
        return {};
    }

    std::string ported(std::string const& number, std::string const& at, std::string const& method) const {
        Answer const now = ask(number, at, method);
        Answer const range = ask(number.substr(0, number.size() - 1), at, "best");
        if (now.network.empty() || range.network.empty() || now.prefix.size() < range.prefix.size())
            return "";
        return now.network != range.network ? "true" : "false";
    }

    std::string nextChange(std::string const& number, std::string const& at, std::string const& method) const {
        std::map<std::string, int> instants;
        for (std::string const& prefix : prefixes(number, method))
            for (auto const& [from, network] : historiesM.at(prefix))
                instants[from] = 1;
        Answer const now = ask(number, at, method);
        for (auto instant = instants.upper_bound(at); instant != instants.end(); ++instant)
            if (ask(number, instant->first, method) != now)
                return instant->first;
        return "";
    }

  private:
    std::vector<std::string> prefixes(std::string const& number, std::string const& method) const {
        std::vector<std::string> all;
        for (std::size_t length = number.size(); length > 0; --length)
            if (historiesM.contains(number.substr(0, length)))
                all.push_back(number.substr(0, length));
        if (method == "exact" && !all.empty() && all.front() != number)
            all.clear();
        if (method == "exact" && !all.empty())
            all.resize(1);
        if (method == "shortest" && !all.empty())
            all = {all.back()};
        return all;
    }

    std::map<std::string, std::map<std::string, std::string>> historiesM;
    std::vector<std::string> keysM;
};

struct Shape {
    char const* file; // whose name says the format
    char const* timeFormat;
    char const* method;
    bool normalise;
    bool all; // everything that can be added
    int records;
};

class RecordMaker {
  public:
    RecordMaker(BruteForce const& data, Shape const& run, std::mt19937& random)
        : dataM(data), runM(run), randomM(random), nameM(run.file) {}

    void addHeader() {
        if (nameM.ends_with(".ndjson"))
            return;
        std::string const s = nameM.ends_with(".tsv") ? "\t" : ",";
        input = std::string("id").append(s).append("number").append(s).append("note").append(s).append("time");
        expected = input + s + "number_network";
        if (runM.all)
            for (char const* const added : {"valid_from", "prefix", "next_change", "method", "ported"})
                expected.append(s).append("number_").append(added);
        input += "\n";
        expected += "\n";
    }
    void add() {
        std::string const number = someNumber();
        std::time_t const seconds = 915148800 + static_cast<std::time_t>(random(888000000)); // 1999 to 2027
        std::string const at = written(seconds, "%Y%m%d%H%M%S");
        BruteForce::Answer const answer = dataM.ask(number, at, runM.method);
        foundM += answer.network.empty() ? 0 : 1;
        std::vector<std::string> added = {answer.network};
        if (runM.all)
            added.insert(added.end(),
                         {answer.validFrom, answer.prefix, dataM.nextChange(number, at, runM.method),
                          answer.network.empty() ? "" : runM.method, dataM.ported(number, at, runM.method)});
        append(runM.normalise ? formOf(number) : number, timeOf(seconds), added);
    }

    std::string input;
    std::string expected;
    int found() const { return foundM; }

  private:
    std::uint64_t random(std::uint64_t below) { return randomM() % below; }
    std::string digits(std::uint64_t count) {
        std::string text;
        while (text.size() < count)
            text += static_cast<char>('0' + random(10));
        return text;
    }

    std::string someNumber() {
        std::string const& key = dataM.keys()[random(dataM.keys().size())];
        return random(8) == 0 ? key.substr(0, key.size() - 1) + digits(2) : key + digits(random(2) * random(6));
    }

    // One of the ways in which people and switches write a number.
    std::string formOf(std::string const& stored) {
        bool const own = stored.compare(0, 4, "0033") == 0;
        std::string const rest = stored.substr(2);
        switch (random(own ? 6 : 4)) {
        case 0:
            return stored;
        case 1:
            return "+" + rest;
        case 2:
            return "+" + rest.substr(0, 3) + " " + rest.substr(3) + "-";
        case 3:
            return "tel:+" + rest;
        case 4:
            return "0" + stored.substr(4);
        default:
            return "(0) " + stored.substr(4);
        }
    }

    static std::string written(std::time_t seconds, char const* pattern) {
        std::tm parts{};
        gmtime_r(&seconds, &parts);
        std::array<char, 64> text{};
        return {text.data(), std::strftime(text.data(), text.size(), pattern, &parts)};
    }

    std::string timeOf(std::time_t seconds) {
        std::string const format = runM.timeFormat;
        if (format == "digits")
            return written(seconds, "%Y%m%d%H%M%S");
        if (format == "seconds")
            return std::to_string(seconds);
        if (format == "milliseconds")
            return std::to_string(seconds * 1000 + static_cast<std::time_t>(random(1000)));
        if (format != "iso")
            return written(seconds, runM.timeFormat);
        return random(2) == 0 ? written(seconds, "%Y-%m-%dT%H:%M:%SZ")
                              : written(seconds + 9000, "%Y-%m-%d %H:%M:%S.5+02:30");
    }

    void append(std::string const& number, std::string const& time, std::vector<std::string> const& added) {
        if (nameM.ends_with(".ndjson"))
            return appendJson(number, time, added);
        char const separator = nameM.ends_with(".tsv") ? '\t' : ',';
        std::string const end = random(5) == 0 ? "\r\n" : "\n";
        std::string record = std::to_string(random(100)) + separator;
        record += random(4) == 0 ? "\"" + number + "\"" : number;
        record += separator;
        record += random(9) == 0 ? "\"a \"\"b\"\"" + std::string(1, separator) + "c\nd\"" : "plain";
        record += separator;
        record += random(4) == 0 ? "\"" + time + "\"" : time;
        input += record + end;
        expected += record;
        for (std::string const& value : added)
            expected += separator + (value.find(separator) == std::string::npos ? value : "\"" + value + "\"");
        expected += end;
    }

    void appendJson(std::string const& number, std::string const& time, std::vector<std::string> const& added) {
        bool const bare = std::string(runM.timeFormat).ends_with("seconds") && random(2) == 0;
        std::string const record = "{\"number\": \"" + number + "\", \"x\": [1.5, {\"number\": null}], \"time\": " +
                                   (bare ? time : "\"" + time + "\"");
        input += record + " }\n";
        expected += record;
        std::array const names = {"network", "valid_from", "prefix", "next_change", "method", "ported"};
        constexpr std::size_t truth = 5; // the place of the one that is no text
        for (std::size_t i = 0; i < added.size(); ++i)
            expected += (i == 0 ? " ,\"number_" : ",\"number_") + std::string(names[i]) + "\":" +
                        (added[i].empty() ? "null"
                         : i == truth     ? added[i]
                                          : "\"" + added[i] + "\"");
        expected += "}\n";
    }

    BruteForce const& dataM;
    Shape const& runM;
    std::mt19937& randomM;
    std::string nameM;
    int foundM = 0;
};

constexpr char const* patternCM = "%d.%m.%Y %H:%M:%S";
constexpr Shape shapesCM[] = {{"a.csv", "digits", "best", true, false, 60000},
                              {"b.csv", "iso", "exact", false, true, 4000},
                              {"c.csv", "seconds", "shortest", false, true, 4000},
                              {"d.csv", patternCM, "best", true, true, 4000},
                              {"e.tsv", "milliseconds", "best", true, false, 8000},
                              {"f.tsv", "iso", "best", false, true, 4000},
                              {"g.ndjson", "iso", "best", true, false, 8000},
                              {"h.ndjson", "seconds", "best", false, true, 4000},
                              {"i.ndjson", "milliseconds", "shortest", true, false, 4000},
                              {"j.ndjson", patternCM, "exact", true, true, 4000}};

void expectSame(std::string const& got, std::string const& expected, char const* label) {
    if (got == expected)
        return;
    auto const at = static_cast<std::size_t>(
        std::mismatch(got.begin(), got.end(), expected.begin(), expected.end()).first - got.begin());
    std::size_t const from = at - std::min<std::size_t>(at, 150);
    ADD_FAILURE() << label << " at byte " << at << ":\n"
                  << got.substr(from, 250) << "\ninstead of\n"
                  << expected.substr(from, 250);
}

TEST(EnrichDataTest, AgreesWithABruteForceReading) {
    std::string const dataFolder = NP_SOURCE_FOLDER "/../shared/data/";
    for (char const* const name : {"fr-blocks.dat", "carriers.dat"})
        if (!std::filesystem::exists(dataFolder + name))
            GTEST_SKIP() << "skipped: no ../shared/data/" << name << " beside this checkout";
    TemporaryFolder const folder;
    writeConfiguration(folder, contentOf(dataFolder + "fr-blocks.dat") + contentOf(dataFolder + "carriers.dat"), "33");
    BruteForce const data(folder.file("data.dat"));
    SeededRandom random;
    for (Shape const& run : shapesCM) {
        RecordMaker maker(data, run, random);
        maker.addHeader();
        for (int i = 0; i < run.records; ++i)
            maker.add();
        folder.write(run.file, maker.input);
        Result const result =
            shell(folder, "ENRICH --number number --time time --keep --threads 3 --json --time-format '" +
                              std::string(run.timeFormat) + "' --method " + run.method +
                              (run.normalise ? " --normalise" : "") +
                              (run.all ? " --add valid-from,prefix,next-change,method,ported " : " ") + run.file);
        EXPECT_EQ(result.status, 0) << run.file << result.err;
        EXPECT_TRUE(contains(result.err, "\"records\":" + std::to_string(run.records) + ",")) << result.err;
        EXPECT_TRUE(contains(result.err, "\"found\":" + std::to_string(maker.found()) + ",")) << result.err;
        EXPECT_GT(maker.found(), std::string(run.method) == "exact" ? run.records / 10 : run.records / 4);
        expectSame(result.out, maker.expected, run.file);
    }
}

// ---- At the edges

class EnrichTest : public testing::Test {
  protected:
    EnrichTest() {
        writeConfiguration(folder,
                           "00441  20200101000000  A\n00441  20220101000000  B\n00442  20200101000000  x,\"y\n"
                           "00443  20200101000000  \xc3\xa9\xff\n",
                           "44");
    }
    // With the number in column n and the time in column t.
    Result run(std::string const& arguments) const { return shell(folder, "ENRICH --number n --time t " + arguments); }
    // No file but those of the test and these.
    void expectFiles(std::vector<std::string> names) const {
        names.insert(names.end(), {"data.dat", "nphost.toml"});
        std::vector<std::string> found;
        for (auto const& entry : std::filesystem::directory_iterator(folder.path()))
            found.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        std::sort(found.begin(), found.end());
        EXPECT_EQ(found, names);
    }
    TemporaryFolder folder;
};

std::string const headCM = "n,t\n";
std::string const newHeadCM = "n,t,n_network\n";

std::string const tCM = "20210101000000";

struct Format {
    char const* label;
    std::string name;
    std::string input;
    std::string output;
    std::string rejects; // without its header
    char const* options = "";
};

std::vector<Format> const formatsCM = {
    {"nothing at all", "a.csv", "", "", ""},
    {"a header alone, without a newline", "a.csv", "n,t", newHeadCM, ""},
    {"byte order mark, CRLF, quoted names and a value that needs quoting", "a.csv",
     "\xef\xbb\xbf\"n\",t\r\n\"00442\"," + tCM + "\r\n",
     "\xef\xbb\xbf\"n\",t,n_network\r\n\"00442\"," + tCM + ",\"x,\"\"y\"\r\n", ""},
    {"no final newline", "a.csv", headCM + "00441," + tCM, newHeadCM + "00441," + tCM + ",A", ""},
    {"empty lines stay", "a.csv", headCM + "\n00441," + tCM + "\n\n", newHeadCM + "\n00441," + tCM + ",A\n\n", ""},
    {"and before the header", "a.csv", "\xef\xbb\xbf\r\n \n" + headCM + "00441," + tCM + "\nx\n",
     "\xef\xbb\xbf\r\n \n" + newHeadCM + "00441," + tCM + ",A\n", "a.csv,5,field-count,\"x\"\n"},
    {"line breaks in fields, also of the header", "a.csv", "n,\"x\ny\",t\n00441,\"\r\n\"," + tCM + "\n00441,1\n",
     "n,\"x\ny\",t,n_network\n00441,\"\r\n\"," + tCM + ",A\n", "a.csv,5,field-count,\"00441,1\"\n"},
    {"NUL and foreign bytes", "a.csv", headCM + "00441\0\xff,"s + tCM + "\n",
     newHeadCM + "00441\0\xff,"s + tCM + ",A\n", ""},
    {"every reason", "a,b.csv",
     headCM + "00441,2021\n00441\n00441," + tCM + ",\n\"00441," + tCM + "\nx\n0044\"1," + tCM + "\n", newHeadCM,
     "\"a,b.csv\",2,bad-time,\"00441,2021\"\n\"a,b.csv\",3,field-count,\"00441\"\n"
     "\"a,b.csv\",4,field-count,\"00441," +
         tCM + ",\"\n\"a,b.csv\",5,broken-quotes,\"\"\"00441," + tCM +
         "\"\n\"a,b.csv\",6,field-count,\"x\"\n\"a,b.csv\",7,broken-quotes,\"0044\"\"1," + tCM + "\"\n"},
    {"kept", "a.csv", headCM + "00441,2021\n00441\n\"00441\n00441," + tCM + "\n",
     newHeadCM + "00441,2021,\n00441,\n\"00441,\n00441," + tCM + ",A\n",
     "a.csv,2,bad-time,\"00441,2021\"\na.csv,3,field-count,\"00441\"\na.csv,4,broken-quotes,"
     "\"\"\"00441\"\n",
     "--keep"},
    {"no number is not a reject", "a.csv", headCM + "," + tCM + "\nanonymous," + tCM + "\n",
     newHeadCM + "," + tCM + ",\nanonymous," + tCM + ",\n", ""},
    {"tabs", "a.tab", "n\tt\n00442\t" + tCM + "\n", "n\tt\tn_network\n00442\t" + tCM + "\t\"x,\"\"y\"\n", ""},
    {"semicolons, no quoting", "a.txt", "n;t\n00442;" + tCM + ";\n\"00442;" + tCM + "\n",
     "n;t;n_network\n\"00442;" + tCM + ";x,\"y\n", "a.txt,2,field-count,\"00442;" + tCM + ";\"\n",
     "--separator ';' --no-quotes"},
    {"a value that no field can hold", "a.csv", headCM + "00442," + tCM + "\n", newHeadCM,
     "a.csv,2,unwritable,\"00442," + tCM + "\"\n", "--no-quotes"},
    {"a prefix of what is not digits alone, and a word that holds the separator", "a.csv",
     "nlt\n(00) 4-41x5l" + tCM + "\n", "nltln_networkln_prefixln_ported\n(00) 4-41x5l" + tCM + "lAl00441l\"false\"\n",
     "", "--separator l --add prefix,ported"},
    {"JSON", "a.jsonl",
     "{\"n\":\"00442\",\"t\":" + tCM + "}\r\n\n{\"t\":\"" + tCM + "\",\"n\":\"00443\"} \n{\"n\":null,\"t\":" + tCM +
         "}\n{\"n\":1}\n{\n{\"n\":1,\"t\":1,\"n_network\":2}\n{\"n\":\"00441\",\"t\":" + tCM + "}",
     "{\"n\":\"00442\",\"t\":" + tCM + ",\"n_network\":\"x,\\\"y\"}\r\n\n{\"t\":\"" + tCM +
         "\",\"n\":\"00443\",\"n_network\":\"\xc3\xa9\xef\xbf\xbd\"} \n{\"n\":null,\"t\":" + tCM +
         ",\"n_network\":null}\n{\"n\":\"00441\",\"t\":" + tCM + ",\"n_network\":\"A\"}",
     "a.jsonl,5,missing-member,\"{\"\"n\"\":1}\"\na.jsonl,6,broken-json,\"{\"\n"
     "a.jsonl,7,name-taken,\"{\"\"n\"\":1,\"\"t\"\":1,\"\"n_network\"\":2}\"\n"},
    {"JSON kept", "a.json", "{}\n[\n{ \"n\":\"00441\"}\n{\"n\":1,\"t\":1,\"n_network\":2}\n",
     "{\"n_network\":null}\n[\n{ \"n\":\"00441\",\"n_network\":null}\n{\"n\":1,\"t\":1,\"n_network\":2}\n",
     "a.json,1,missing-member,\"{}\"\na.json,2,broken-json,\"[\"\n"
     "a.json,3,missing-member,\"{ \"\"n\"\":\"\"00441\"\"}\"\n"
     "a.json,4,name-taken,\"{\"\"n\"\":1,\"\"t\"\":1,\"\"n_network\"\":2}\"\n",
     "--keep"},
};

TEST_F(EnrichTest, FormatsToTheByte) {
    for (Format const& test : formatsCM) {
        folder.write(test.name, test.input);
        Result const result = run(std::string(test.options) + " --rejects rejects '" + test.name + "'");
        EXPECT_EQ(result.status, test.rejects.empty() ? 0 : 1) << test.label << result.err;
        EXPECT_EQ(result.out, test.output) << test.label;
        EXPECT_EQ(contentOf(folder.file("rejects")), "file,line,reason,record\n" + test.rejects) << test.label;
    }
}

TEST_F(EnrichTest, AddsWhatTheTableOfNetworksSays) {
    folder.write("networks.toml", "[A]\nname = 'Ay, \"Ltd\"'\nmcc = '234'\nmnc = '15'\n"
                                  "[B]\nroutingNumber = '0A17'\nroutingContext = '+44'\n");
    folder.write("nphost.toml", contentOf(folder.file("nphost.toml")) + "[host]\nnetworks = \"networks.toml\"\n");
    folder.write("a.csv",
                 headCM + "00441," + tCM + "\n00441,20230101000000\n00442," + tCM + "\n,\n00449," + tCM + "\n");
    EXPECT_EQ(run("--keep --add network-name,mcc,mnc,rn,rn-context a.csv").out,
              "n,t,n_network,n_network_name,n_mcc,n_mnc,n_rn,n_rn_context\n00441," + tCM +
                  ",A,\"Ay, \"\"Ltd\"\"\",234,15,,\n00441,20230101000000,B,,,,0A17,+44\n00442," + tCM +
                  ",\"x,\"\"y\",,,,,\n,,,,,,,\n00449," + tCM + ",,,,,,\n");
    folder.write("a.ndjson", "{\"n\":\"00441\",\"t\":" + tCM + "}\n{\"n\":\"00449\",\"t\":" + tCM + "}\n");
    EXPECT_EQ(run("--add mcc,rn a.ndjson").out, "{\"n\":\"00441\",\"t\":" + tCM +
                                                    ",\"n_network\":\"A\",\"n_mcc\":\"234\",\"n_rn\":null}\n"
                                                    "{\"n\":\"00449\",\"t\":" +
                                                    tCM + ",\"n_network\":null,\"n_mcc\":null,\"n_rn\":null}\n");
    EXPECT_TRUE(contains(run("--no-quotes --keep --add network-name a.csv").err, "unwritable")) << "its comma";
    folder.write("networks.toml", "[A]\nmcc = 234\n");
    EXPECT_TRUE(contains(run("--add mcc a.csv").err, "networks.toml:2: 'mcc' must"));
    EXPECT_EQ(run("a.csv --keep --output out.csv").status, 0 + 1) << "who wants nothing of it does not read it";
}

TEST_F(EnrichTest, ColumnsByNumberAndWithoutAHeader) {
    folder.write("a.csv", "n,n,t\n00441,00442,20220101000000\n");
    EXPECT_EQ(shell(folder, "ENRICH --number 2 --number 1 --time t a.csv").out,
              "n,n,t,n_2_network,n_1_network\n00441,00442,20220101000000,\"x,\"\"y\",B\n");
    Result const again = shell(folder, "ENRICH --number 1 --time t a.csv | ENRICH --number 2 --time t");
    EXPECT_TRUE(again.status == 2 && contains(again.err, "'n_network', is there already: give it another name"))
        << again.err;
    EXPECT_EQ(shell(folder, "ENRICH --number 1 --time t --keep a.csv").out,
              "n,n,t,n_network\n00441,00442,20220101000000,B\n");
    EXPECT_EQ(shell(folder, "tail -n 1 a.csv | ENRICH --no-header --number 2 --number 1 --time 3 --keep").out,
              "00441,00442,20220101000000,\"x,\"\"y\",B\n");
}

TEST_F(EnrichTest, SeveralInputsCompressedOrNot) {
    std::string place;
    std::string const line = "00441,20210101000000";
    folder.write("a.csv", headCM + line);
    folder.write("b", gzipped(headCM + line + "\n"));
    folder.write("c",
                 std::string(nphost::Compressor(nphost::Compression::ZSTD).compress("\xef\xbb\xbf" + headCM, place)));
    folder.write("blank", "\n\n");
    folder.write("d", "\n\"n\",\"t\"\r\n" + line + "\nx\n"); // the same header, written otherwise
    std::string const expected = newHeadCM + line + ",A\n" + line + ",A\n" + line + ",A\n";
    for (std::string const output : {"out.csv", "out.gz", "out.zst"}) {
        Result const result = run("--output " + output + " blank a.csv b - c d < b");
        EXPECT_EQ(result.status, 1) << result.err;
        EXPECT_EQ(decompressed(folder.file(output)), expected + line + ",A\n");
        EXPECT_EQ(contentOf(folder.file(output + ".rejects")), "file,line,reason,record\nd,4,field-count,\"x\"\n");
        EXPECT_EQ(run("--format ndjson --output " + output + " /dev/null").status, 0);
        EXPECT_EQ(decompressed(folder.file(output)), "") << "a compressed file of nothing";
    }
}

// With inputs of which most cannot be used, and an output that must stay.
class EnrichErrorTest : public EnrichTest {
  protected:
    EnrichErrorTest() {
        std::string const good = headCM + "00441,20210101000000\n";
        for (auto const& [name, content] : std::vector<std::pair<std::string, std::string>>{
                 {"good.csv", good},
                 {"cut.gz", gzipped(good).substr(0, gzipped(good).size() - 3)},
                 {"other.csv", "t,n\n"},
                 {"utf16.csv", "\xff\xfen\0"s},
                 {"open.csv", "\"n,t\n"},
                 {"old.csv", "n,t\r00441,20210101000000\r00441,20210101000000\r"},
                 {"old.ndjson", "{\"n\":1,\r\"t\":1}\r{\"n\":1,\"t\":1}\r"},
                 {"empty.csv.gz", ""},
                 {"one.csv", "n;t\n"},
                 {"lines.csv", "{n,t}\n"},
                 {"out.csv", "old"}})
            namesM.push_back(folder.write(name, content).substr(folder.file("").size()));
    }
    ~EnrichErrorTest() override { expectFiles(namesM); }

    void expectError(Result const& result, char const* reason, std::string const& label) const {
        EXPECT_EQ(result.status, 2) << label;
        EXPECT_TRUE(contains(result.err, reason)) << label << "\n" << result.err;
        EXPECT_EQ(contentOf(folder.file("out.csv")), "old") << label;
    }

  private:
    std::vector<std::string> namesM;
};

struct Refused {
    char const* arguments;
    char const* reason;
};

constexpr Refused refusedCM[] = {
    {"cut.gz", "cut.gz: the compressed data end early"},
    {"good.csv other.csv", "other.csv:1: the header is not the same as that of good.csv"},
    {"utf16.csv", "UTF-16"},
    {"open.csv", "open.csv:1: the header cannot be read"},
    {"good.csv none.csv", "none.csv: cannot be opened: No such file"},
    {"good.csv .", ".: cannot be read"},
    {"out.csv", "out.csv is to be written, but is one of the inputs"},
    {"- < out.csv", "is one of the inputs"},
    {"good.csv --rejects out.csv", "cannot be the output and the file of rejects"},
    {"good.csv --rejects data.dat", "the data file itself"},
    {"good.csv --number m", "there is no column 'm'; there are 'n', 't'"},
    {"good.csv --number 3", "no column '3'"},
    {"good.csv --number 2", "named twice"},
    {"good.csv --add networks", "'networks' is not one of"},
    {"good.csv --add prefix,mcc", "nphost.toml: there is no key 'networks' in [host]"},
    {"good.csv --rejects -", "name a file"},
    {"good.csv --rejects none/r", "none/r cannot be written: its folder: No such file"},
    {"old.csv", "old.csv: its lines end in carriage returns alone"},
    {"--format ndjson old.ndjson", "its lines end in carriage returns alone"},
    {"empty.csv.gz", "empty.csv.gz: the compressed data end early"},
    {"one.csv --separator ,", "is the separator right?"},
    {"lines.csv", "(JSON lines? --format ndjson)"},
    {"good.csv --max-rejects -1", "'-1' is not a number"},
    {"good.csv --separator '\"'", "--separator"},
    {"good.csv --separator ''", "one byte (ASCII)"},
    {"good.csv --separator '\xc2\xa7'", "one byte (ASCII)"},
    {"good.csv --time-format never", "never"},
    {"good.csv --zone Nowhere", "Nowhere"},
    {"good.csv --format ndjson --no-header", "no meaning"},
    {"good.csv --add prefix,prefix", "--add names 'prefix' twice"},
};

TEST_F(EnrichErrorTest, LeaveTheOutputAsItWas) {
    for (Refused const& test : refusedCM) {
        Result const result = run(std::string("--output out.csv ") + test.arguments);
        expectError(result, test.reason, test.arguments);
        EXPECT_EQ(lineCount(result.err), 1) << test.arguments << "\n" << result.err;
    }
}

TEST_F(EnrichErrorTest, OfOutputs) {
    for (Refused const& test : {
             Refused{"good.csv --output /dev/full", "/dev/full is no regular file"},
             {"--keep good.csv >> good.csv", "standard output is one of the inputs"},
             {"--rejects out.csv good.csv >> out.csv", "standard output is the file of rejects"},
             {"--keep good.csv > /dev/full", "No space left"},
             {"--keep --rejects out.csv good.csv > /dev/full", "No space left"},
             {"--rejects out.csv --output /dev/full good.csv", "No space left"},
             {"--rejects /dev/full --output out.csv good.csv", "No space left"},
         })
        expectError(run(test.arguments), test.reason, test.arguments);
    expectError(shell(folder, "yes 00441,20210101000000 | head -n 100 | (ulimit -f 1; ENRICH ROWS --output out.csv)"),
                "File too large", "a limit of the size");
}

TEST_F(EnrichTest, TooManyRejectsStopAndARecordOfAnySizeIsRejectedWhole) {
    std::string const good = "00441,20210101000000";
    std::string const huge = "00441,\"" + std::string(3500000, 'x') + "\"";
    folder.write("a.csv", headCM + good + "\n" + huge + "\n" + good + "\n");
    Result const result = run("--output out --rejects rejects.gz a.csv");
    EXPECT_EQ(result.status, 1) << result.err;
    EXPECT_EQ(contentOf(folder.file("out")), newHeadCM + good + ",A\n" + good + ",A\n");
    EXPECT_TRUE(decompressed(folder.file("rejects.gz")) ==
                "file,line,reason,record\na.csv,3,long-record,\"00441,\"\"" + std::string(3500000, 'x') + "\"\"\"\n");
    // Without a place for rejects they stay. A carriage return at the end of a block may belong to the line's end.
    std::string const split = std::string(nphost::BlockReader::blockSizeCM - 1, 'x') + "\r\n";
    folder.write("b.csv", headCM + split + huge + "\n" + good + "\n");
    EXPECT_TRUE(run("b.csv").out ==
                newHeadCM + split.substr(0, split.size() - 2) + ",\r\n" + huge + ",\n" + good + ",A\n");

    folder.write("out", "old");
    EXPECT_EQ(run("--output out --max-rejects 1 a.csv").status, 1);
    EXPECT_NE(contentOf(folder.file("out")), "old");
    folder.write("out", "old");
    Result const stopped = run("--output out --max-rejects 0 a.csv");
    EXPECT_TRUE(stopped.status == 1 && contains(stopped.err, "out is not written")) << stopped.err;
    EXPECT_EQ(contentOf(folder.file("out")), "old");
    EXPECT_TRUE(contentOf(folder.file("out.rejects")).ends_with("xxx\"\"\"\n")) << "a whole row";
    folder.write("c.csv", headCM + good + "\nx\n" + good + "\n");
    Result const shown = run("--rejects r --max-rejects 0 --json c.csv");
    EXPECT_TRUE(shown.status == 1 && shown.out == newHeadCM + good + ",A\n" + good + ",A\n") << shown.out;
    EXPECT_TRUE(contains(shown.err, "\"stopped\":\"more than 0 rejected records\"")) << shown.err;
    EXPECT_TRUE(contains(run("--output out --max-rejects 0 --json c.csv").out, "\"complete\":false,"));
}

// Two numbers a record, more than are looked up together, each record at an instant of its own.
TEST_F(EnrichTest, ManyRecordsOfMixedInstants) {
    std::string input = "n,t,m\n";
    std::string expected = "n,t,m,n_network,m_network\n";
    for (int i = 0; i < 700; ++i) {
        bool const later = i % 3 == 0;
        std::string record = i % 2 == 0 ? "00441," : "0049,";
        record.append(later ? "20230101000000" : "20210101000000").append(",00441");
        std::string const network = later ? "B" : "A";
        input.append(record).append("\n");
        expected.append(record).append(i % 2 == 0 ? "," + network : ",").append("," + network + "\n");
    }
    folder.write("a.csv", input);
    EXPECT_EQ(run("--number m a.csv").out, expected);
}

// The first record that can be read is the one that says how many fields there are.
TEST_F(EnrichTest, WithoutAHeaderBadRecordsEndNothing) {
    std::string bad;
    while (bad.size() < nphost::BlockReader::blockSizeCM)
        bad += "00441,20210101000000,a\"b\n";
    folder.write("a.csv", bad + "\n00441,20210101000000\n00441\n");
    std::string const command = "ENRICH ROWS --output out a.csv";
    Result const result = shell(folder, command + " && exit 9; tail -n 1 out.rejects");
    EXPECT_EQ(contentOf(folder.file("out")), "\n00441,20210101000000,A\n") << result.err;
    EXPECT_EQ(result.out, "a.csv," + std::to_string(lineCount(bad) + 3) + ",field-count,\"00441\"\n");
    Result const beyond = shell(folder, command + " --number 3");
    EXPECT_TRUE(beyond.status == 2 && contains(beyond.err, "no column '3'; there are columns 1 to 2")) << beyond.err;
    EXPECT_EQ(shell(folder, "(echo; echo 00441,20210101000000) | ENRICH ROWS").out, "\n00441,20210101000000,A\n");
}

TEST_F(EnrichTest, AReaderThatGoesEndsItAsASignalDoes) {
    Result const head =
        shell(folder, "for output in - /dev/stdout; do for trap in - ''; do (trap \"$trap\" PIPE; yes "
                      "00441,20210101000000 2>/dev/null | ENRICH ROWS --rejects rejects --output $output; echo $? "
                      ">>status) | head -n 1; done; done");
    EXPECT_EQ(head.out,
              "00441,20210101000000,A\n00441,20210101000000,A\n00441,20210101000000,A\n00441,20210101000000,A\n");
    EXPECT_EQ(head.err, "");
    EXPECT_EQ(contentOf(folder.file("status")), "141\n141\n141\n141\n") << "also when the signal is ignored";
    expectFiles({"status"});
}

// With two named pipes, and nothing else left in the end.
class EnrichPipeTest : public EnrichTest {
  protected:
    EnrichPipeTest() {
        for (char const* const name : {"in", "out"})
            EXPECT_EQ(mkfifo(folder.file(name).c_str(), 0600), 0);
        folder.write("a.csv", "00441,20210101000000\n");
        folder.write("err", "");
    }
    ~EnrichPipeTest() override { expectFiles({"in", "out", "err", "a.csv"}); }

    static constexpr char const* untilOpenedCM =
        "timeout 20 sh -c 'until ls -l /proc/$0/fd | grep -q /in$; do :; done 2>/dev/null' $run; ";
};

// The second record is asked for only when the first answer has come.
TEST_F(EnrichPipeTest, AnswersBeforeItAsksAgain) {
    Result const dialogue =
        shell(folder, "ENRICH ROWS --keep <in >out 2>err & exec 3>in 4<out; echo 00441,20210101000000 >&3; read first "
                      "<&4; echo 00441,20230101000000 >&3; read second <&4; exec 3>&-; wait; echo $first $second");
    EXPECT_EQ(dialogue.out, "00441,20210101000000,A 00441,20230101000000,B\n") << dialogue.err;
}

TEST_F(EnrichPipeTest, TooManyRejectsStopAFeedThatIsStillOpen) {
    Result const endless = shell(
        folder, "ENRICH ROWS --rejects rejects --max-rejects 0 <in 2>err & run=$!; exec 3>in; "
                "printf '00441,20210101000000\\nx\\n' >&3; timeout 60 tail --pid=$run -f /dev/null || kill -9 $run; "
                "wait $run");
    EXPECT_EQ(endless.status, 1) << contentOf(folder.file("err"));
    EXPECT_TRUE(std::filesystem::remove(folder.file("rejects")));
}

// While it waits for input, and while it waits for a reader.
TEST_F(EnrichPipeTest, SignalsEndIt) {
    for (std::string const feed : {"exec 3>in; echo 00441,20210101000000 >&3", "yes 00441,20210101000000 2>err >in &"})
        for (auto const& [signal, number] : {std::pair("TERM", SIGTERM), std::pair("HUP", SIGHUP)}) {
            Result const ended =
                shell(folder, "ENRICH ROWS --rejects rejects <in >out 2>err & run=$!; { " + feed +
                                  "\n }; exec 4<out; read first <&4; kill -" + signal + " $run; wait $run");
            EXPECT_EQ(ended.status, 128 + number) << feed << ended.err;
        }
}

// Its reader goes, or stays and reads no more while a signal comes.
TEST_F(EnrichPipeTest, AsOutput) {
    for (auto const& [end, status] :
         {std::pair("exec 4<&-", 128 + SIGPIPE), std::pair("kill -TERM $run", 128 + SIGTERM)}) {
        Result const ended =
            shell(folder, "exec 4<>out; yes 00441,20210101000000 2>/dev/null 4<&- | ENRICH ROWS --rejects rejects "
                          "--output out 4<&- & run=$!; read first <&4; "s +
                              end + "; wait $run");
        EXPECT_EQ(ended.status, status) << end;
        EXPECT_FALSE(contains(ended.err, "nphost:")) << ended.err;
    }
}

// Its writer never comes, or comes late.
TEST_F(EnrichPipeTest, AsFurtherInput) {
    Result const waiting =
        shell(folder, "ENRICH ROWS --output result a.csv in & run=$!; "s + untilOpenedCM + "kill $run; wait $run");
    EXPECT_EQ(waiting.status, 128 + SIGTERM) << waiting.err;
    Result const late = shell(folder, "ENRICH ROWS --keep in & run=$!; "s + untilOpenedCM + "cat a.csv >in; wait $run");
    EXPECT_EQ(late.out, "00441,20210101000000,A\n") << late.err;
}

TEST(InterruptionDeathTest, ASecondSignalOfAnyKindEndsAtOnce) {
    for (int const second : {SIGTERM, SIGHUP}) {
        auto const signalTwice = [second] {
            std::atomic<bool> stop{false};
            nphost::Interruption const interruption(stop);
            std::raise(SIGTERM);
            if (!stop)
                _exit(1);
            std::raise(second);
            _exit(2);
        };
        EXPECT_EXIT(signalTwice(), testing::KilledBySignal(second), "");
    }
}

TEST_F(EnrichTest, SummaryCounts) {
    folder.write("a.csv",
                 headCM + "00441,20211231235959\n00441,20220101000000\n00441,20200101000000\n0049,20210101000000\n-,"
                          "20210101000000\n00441,20211031023000\n00442,20210328023000\nx\n00441,x\n");
    folder.write("b.ndjson", "{\"n\":[\"+44 1\"],\"t\":\"20210101000000\"}\n{\"n\":\"\",\"t\":\"20210101000000\"}\n"
                             "{\"n\":\"+44/1\",\"t\":\"20210101000000\"}\n{\"n\":\"1x\",\"t\":\"20210101000000\"}\n");
    Result const json = run("--zone Europe/Paris --rejects r --json a.csv");
    for (char const* const part :
         {"\"records\":9,", "\"found\":5,", "\"notFound\":1,", "\"withoutNumber\":1", "\"rejected\":2,",
          "\"rejectedByReason\":{\"bad-time\":1,\"field-count\":1}", "\"ambiguousTimes\":1,", "\"impossibleTimes\":1,",
          "\"networks\":3,", "\"topNetworks\":[{\"network\":\"A\",\"numbers\":3},{\"network\":\"B\",\"numbers\":1},"})
        EXPECT_TRUE(contains(json.err, part)) << part << "\n" << json.err;
    EXPECT_EQ(json.status, 1);
    for (char const* const normalise : {"", "--normalise "}) {
        bool const reads = *normalise != '\0'; // else "1x" is looked up as it stands
        Result const unreadable = run(normalise + "b.ndjson"s);
        EXPECT_TRUE(contains(unreadable.err, reads
                                                 ? "Unreadable numbers:                2\n  b.ndjson:1: '[\"+44 1\"]'\n"
                                                   "  b.ndjson:4: '1x'\n"
                                                 : "Unreadable numbers:                1\n  b.ndjson:1: "))
            << unreadable.err;
        EXPECT_TRUE(contains(unreadable.err, "Fields without a number:           1\n")) << unreadable.err;
        EXPECT_EQ(unreadable.status, 0);
    }
    EXPECT_TRUE(contains(run("--normalise --json b.ndjson").err,
                         "\"firstUnreadable\":[{\"file\":\"b.ndjson\",\"line\":1,\"text\":\"[\\\"+44 1\\\"]\"},"));
    Result const through = run("--pass-through --keep a.csv");
    EXPECT_TRUE(contains(through.out, "\n00441,20211231235959,\n00441,20220101000000,\n")) << through.out;
}

} // namespace
