// Operators' feeds made into data files.
#include "host/base/HostError.h"
#include "host/fields/NetworkTable.h"
#include "host/import/ImportCommand.h"
#include "host/records/Compression.h"
#include "tests/ProgramRun.h"
#include "tests/SeededRandom.h"
#include "tests/Texts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <map>
#include <sstream>
#include <vector>

namespace {

using nphost::ImportOptions;

std::string const exampleCM = std::string(NP_SOURCE_FOLDER) + "/examples/nphost.toml";
std::string const rejectsHeadCM = "file,line,reason,detail,record\n";
using Change = std::function<void(ImportOptions&)>;

// A folder with a feed, and the options that import it.
struct Feed {
    explicit Feed(std::string const& text, Change const& change = {}) {
        options.map = "number=number,valid-from=since,network=operator";
        options.file = folder.write("feed.csv", text);
        options.output = folder.write("out.dat", before);
        options.rejects = folder.file("rejects");
        if (change)
            change(options);
    }

    // The exit status and the data.
    std::string imported() {
        testing::internal::CaptureStderr();
        int const status = importFeed(options);
        told = testing::internal::GetCapturedStderr();
        return std::to_string(status) + "\n" + contentOf(*options.output);
    }

    // The error, or "none"; the data must be as they were.
    std::string failure() {
        testing::internal::CaptureStderr();
        std::string reason = "none";
        try {
            importFeed(options);
        } catch (nphost::HostError const& error) {
            reason = error.what();
        }
        told = testing::internal::GetCapturedStderr();
        EXPECT_EQ(contentOf(folder.file("out.dat")), before);
        return reason;
    }

    static constexpr char const* before = "07700900999  20240101000000  OLD\n";
    TemporaryFolder folder;
    ImportOptions options;
    std::string told;
};

std::string gzipped(std::string const& text) {
    std::string place;
    return std::string(nphost::Compressor(nphost::Compression::GZIP).compress(text, place));
}

// What the example's keys need.
constexpr nphost::SectionDeclaration sectionsCM[] = {{"host", nphost::NetworkTable::Settings::declare}};

void normalise(ImportOptions& options) {
    options.normalise = true;
    options.common.sections = sectionsCM;
    options.common.configuration = exampleCM;
}

struct Made {
    char const* label;
    std::string feed;
    Change change;
    char const* result;
};

std::string const headerCM = "number,since,operator\n";
std::string const plainCM = headerCM + "07700900123,20240101000000,ALPHA\n";

std::vector<Made> const madeCM = {
    {"as it stands", plainCM, {}, "0\n07700900123  20240101000000  ALPHA\n"},
    {"gzip", gzipped(plainCM), {}, "0\n07700900123  20240101000000  ALPHA\n"},
    {"byte order mark, CRLF, no newline at the end",
     "\xef\xbb\xbfnumber,since,operator\r\n1,20240101000000,ALPHA\r\n2,20240101000000,BETA",
     {},
     "0\n1  20240101000000  ALPHA\n2  20240101000000  BETA\n"},
    {"other order, further columns, quoted names with commas",
     "\"operator, to\",x,number,since\n\"AL\"\"PHA\",?,1,20240101000000\n",
     [](ImportOptions& o) { o.map = "network=operator, to, valid-from=since,  number=number"; },
     "0\n1  20240101000000  AL\"PHA\n"},
    {"positions, pipes, no header, bare quotation marks", "20240101000000|\"ALPHA|1\n",
     [](ImportOptions& o) {
         o.map = "number=3,valid-from=1,network=2";
         o.separator = "|";
         o.noHeader = o.noQuotes = true;
     },
     "0\n1  20240101000000  \"ALPHA\n"},
    {"tabs", "number\tsince\toperator\n1\t20240101000000\tALPHA\n", [](ImportOptions& o) { o.separator = "tab"; },
     "0\n1  20240101000000  ALPHA\n"},
    {"visual separators go, the plus stays; the feed's order; repeated records once; empty lines",
     "number,since,operator\n+44 (7700) 900-123,20240101000000,B\n\n1,20240101000000,A\n"
     "+447700900123,20240101000000,B\n1,20230101000000,A\n",
     {},
     "0\n+447700900123  20240101000000  B\n1  20240101000000  A\n1  20230101000000  A\n"},
    {"blanks around and in networks",
     "number,since,operator\n1,20240101000000,  Big \t Blue  Phone \n2,20240101000000,Big \t Blue  Phone\n",
     {},
     "0\n1  20240101000000  Big_Blue_Phone\n2  20240101000000  Big_Blue_Phone\n"},
    {"stored form: what becomes one number is repeated",
     "number,since,operator\n07700 900123,20240101000000,A\ntel:+44-7700-900123,20240101000000,A\n", normalise,
     "0\n00447700900123  20240101000000  A\n"},
    {"clock changes",
     "number,since,operator\n1,2024-03-31T02:30:00,A\n1,2024-10-27T00:30:00Z,A\n1,2024-10-27T01:30:00Z,A\n",
     [](ImportOptions& o) {
         o.timeFormat = "iso";
         o.zone = "Europe/Berlin";
     },
     "0\n1  20240331033000  A\n1  20241027023000  A\n"},
};

TEST(ImportTest, MakesDataFilesOfFeeds) {
    for (Made const& test : madeCM) {
        Feed feed(test.feed, test.change);
        EXPECT_EQ(feed.imported(), test.result) << test.label << "\n" << feed.told;
        EXPECT_EQ(contentOf(*feed.options.rejects), rejectsHeadCM) << test.label;
    }
}

struct Rejected {
    std::string record;
    std::string reason; // as the file of rejects has it; empty for a good record
    std::string listed; // the record there
};

std::vector<Rejected> const rejectedCM = {
    {"1,20240101000000,ALPHA", "", ""},
    {"1,20240101000000,BETA", "other-network,the number has a record of another network at this instant: 'ALPHA'",
     "\"1,20240101000000,BETA\""},
    {"1,20240101000000", "field-count,the record has more or fewer fields than the first", "\"1,20240101000000\""},
    {"1,20240101000000,ALPHA,more", "field-count,the record has more or fewer fields than the first",
     "\"1,20240101000000,ALPHA,more\""},
    {",20240101000000,ALPHA", "no-number,there is no number", "\",20240101000000,ALPHA\""},
    {"+,20240101000000,ALPHA", "no-number,there is no number: '+'", "\"+,20240101000000,ALPHA\""},
    {"tel:+1,20240101000000,ALPHA",
     "not-digits,\"the number has more than digits, and --normalise is not given: 'tel:+1'\"",
     "\"tel:+1,20240101000000,ALPHA\""},
    {"447700900123.0,20240101000000,ALPHA",
     "decimal-number,\"the number has a decimal point, as spreadsheets write quantities: '447700900123.0'\"",
     "\"447700900123.0,20240101000000,ALPHA\""},
    {"+07700 900123,20240101000000,ALPHA",
     "no-country-code,\"a 0 follows the plus, and no country code begins with 0: '+07700 900123'\"",
     "\"+07700 900123,20240101000000,ALPHA\""},
    {std::string(41, '1') + ",20240101000000,ALPHA",
     "long-number,the number is too long: '" + std::string(41, '1') + "'",
     "\"" + std::string(41, '1') + ",20240101000000,ALPHA\""},
    {"2,20240230000000,ALPHA", "bad-time,the time cannot be read: '20240230000000'", "\"2,20240230000000,ALPHA\""},
    {"2,20240101000000, ", "no-network,there is no network", "\"2,20240101000000, \""},
    {"2,20240101000000,AL\vPHA", "control-character,the network's name has a control character: 'AL\\x0bPHA'",
     "\"2,20240101000000,AL\vPHA\""},
    {"2,20240101000000," + std::string(201, 'N'),
     "long-network,the network's name is too long: '" + std::string(200, 'N') + "... (201 bytes)'",
     "\"2,20240101000000," + std::string(201, 'N') + "\""},
    {"2,20240101000000,AL\"PHA", "broken-quotes,the quotation marks do not match", "\"2,20240101000000,AL\"\"PHA\""},
    {"2," + std::string(3'000'000, '0') + ",ALPHA", "long-record,the record is longer than a megabyte",
     "\"2," + std::string(3'000'000, '0') + ",ALPHA\""},
    {"2,20240101000000,\"AL\nPHA\"", "control-character,the network's name has a control character: 'AL\\nPHA'",
     "\"2,20240101000000,\"\"AL\nPHA\"\"\""},
    {"2,20240101000000,\"ALPHA", "broken-quotes,the quotation marks do not match", "\"2,20240101000000,\"\"ALPHA\""},
    {"2,20240101000000,ALPHA", "", ""},
};

TEST(ImportTest, RejectsWithLineAndReason) {
    std::string text = headerCM;
    std::string expected = rejectsHeadCM;
    for (Rejected const& test : rejectedCM) {
        if (!test.reason.empty())
            expected += "FEED," + std::to_string(lineCount(text) + 1) + "," + test.reason + "," + test.listed + "\n";
        text += test.record + "\n";
    }
    Feed feed(text);
    EXPECT_EQ(feed.imported(), "1\n1  20240101000000  ALPHA\n2  20240101000000  ALPHA\n");
    EXPECT_EQ(replaced(contentOf(*feed.options.rejects), feed.options.file, "FEED"), expected);
}

TEST(ImportTest, RejectsNumbersThatCannotBeNormalised) {
    Feed written(headerCM + "0770*,20240101000000,A\n447700900123.0,20240101000000,A\nwithheld,1,A\n"
                            "07700/900123 x5,20240101000000,A\n+07700900123,20240101000000,A\n",
                 normalise);
    EXPECT_EQ(written.imported(), "1\n00447700900123  20240101000000  A\n");
    std::string const rejects = contentOf(*written.options.rejects);
    for (char const* const part : {",2,unreadable-number,the number cannot be read: '0770*',", ",3,decimal-number,",
                                   ",4,no-number,there is no number: 'withheld',", ",6,no-country-code,"})
        EXPECT_TRUE(contains(rejects, part)) << part << "\n" << rejects;
}

TEST(ImportTest, ShowsTheFirstRejectsWhereNoFileTakesThem) {
    std::string feed = headerCM + "1,20240101000000,A\n";
    for (int i = 0; i < 30; ++i)
        feed += "x,20240101000000,A\n";
    Feed shown(feed, [](ImportOptions& o) { o.rejects.reset(); });
    shown.imported();
    EXPECT_EQ(lineCount(shown.told), 22) << shown.told;
    EXPECT_TRUE(contains(shown.told, "feed.csv:3: there is no number: 'x'")) << shown.told;
    EXPECT_TRUE(contains(shown.told, "10 more")) << shown.told;
}

Change mapped(char const* map) {
    return [map](ImportOptions& o) { o.map = map; };
}

struct Failed {
    char const* label;
    std::string feed;
    Change change;
    char const* reason;
};

std::string const goodCM = headerCM + "1,20240101000000,A\n";

std::vector<Failed> const failedCM = {
    {"networks that fall together",
     goodCM + "2,20240101000000,A B\n3,20240101000000,A_B\n",
     {},
     "feed.csv:4: the networks 'A B' and 'A_B' would become one, A_B"},
    {"that differ in blanks",
     goodCM + "2,20240101000000,A B\n3,20240101000000,A  B\n",
     {},
     "the networks 'A B' and 'A  B' would become one, A_B"},
    {"nothing to take", headerCM + "x,20240101000000,A\n,1,A\n1,1,A\n", {}, "rejected: 3, most often no-number"},
    {"an empty feed", "", {}, "the feed is empty"},
    {"a damaged feed", gzipped(goodCM).substr(0, 20), {}, "feed.csv"},
    {"no such column", goodCM, mapped("number=msisdn,valid-from=since,network=operator"),
     "feed.csv:1: there is no column 'msisdn'; there are 'number', 'since', 'operator'"},
    {"a position beyond", goodCM, mapped("number=1,valid-from=2,network=4"), "there is no column '4'"},
    {"position 0", goodCM, mapped("number=0,valid-from=2,network=3"), "there is no column '0'"},
    {"a name twice", "number,number,since,operator\n", {}, "feed.csv:1: two columns are called 'number'"},
    {"one column twice", goodCM, mapped("number=1,valid-from=2,network=number"),
     "number and network are mapped to one column"},
    {"half a map", goodCM, mapped("number=1,network=2"), "lacks valid-from=COLUMN"},
    {"a field twice", goodCM, mapped("number=1,number=2,network=3"), "maps no columns"},
    {"no map", goodCM, mapped("1,2,3"), "maps no columns"},
    {"a long separator", goodCM, [](ImportOptions& o) { o.separator = "||"; }, "does not separate"},
    {"the feed as output", goodCM, [](ImportOptions& o) { o.output = o.file; }, "is one of the inputs"},
    {"the output as rejects", goodCM, [](ImportOptions& o) { o.rejects = o.output; },
     "the output and the file of rejects"},
    {"no codes", goodCM, [](ImportOptions& o) { o.normalise = true; }, "--normalise needs --config"},
};

TEST(ImportTest, LeavesTheOldDataWhenItFails) {
    for (Failed const& test : failedCM) {
        Feed feed(test.feed, test.change);
        std::string const reason = feed.failure();
        EXPECT_TRUE(contains(reason, test.reason)) << test.label << ": " << reason;
    }
}

TEST(ImportTest, TellsWhatItDidAsJson) {
    Feed feed(
        "number,since,operator\n1,2021-10-31T01:30:00,A\n1,2021-10-31T01:30:00,A\nx,,A\n\n2,2021-03-28T01:30:00,B\n",
        [](ImportOptions& o) {
            o.json = true;
            o.timeFormat = "iso";
            o.zone = "Europe/London";
        });
    testing::internal::CaptureStdout();
    feed.imported();
    std::string const json = testing::internal::GetCapturedStdout();
    for (char const* const part : {"\"records\":4,", "\"written\":2}", "\"networks\":2,", "\"repeated\":1,",
                                   "\"rejected\":1,", "\"rejectedByReason\":{\"no-number\":1}", "\"emptyLines\":1,",
                                   "\"ambiguousTimes\":1,", "\"impossibleTimes\":1,"})
        EXPECT_TRUE(contains(json, part)) << part << "\n" << json;
    EXPECT_EQ(lineCount(json), 1);
    EXPECT_EQ(feed.told, "");
}

struct Command {
    char const* label;
    std::string commands; // IMPORT stands for the program and the map of columns
    int status;
    std::string out;
    std::string err;     // a part of it
    std::string written; // data.dat afterwards
    std::string rejects = {};
};

std::string const dataCM = "1  20240101000000  A\n";
std::string const rowCM = rejectsHeadCM + "bad.csv,2,no-number,there is no number,\",,\"\n";

std::vector<Command> const commandsCM = {
    {"to standard output", "IMPORT good.csv", 0, dataCM, "records 1, written 1, networks 1; rejected 0", "old"},
    {"by its names", "IMPORT good.csv -o - && IMPORT -o /dev/stdout good.csv", 0, dataCM + dataCM, "", "old"},
    {"the object where the data do not go", "IMPORT --json good.csv 2>&1 >/dev/null | cut -c 1-18", 0,
     "{\"ambiguousTimes\":\n", "", "old"},
    {"on standard output", "IMPORT --json -o data.dat good.csv | cut -c 1-18", 0, "{\"ambiguousTimes\":\n", "", dataCM},
    {"rejects", "IMPORT -o data.dat --rejects rejects bad.csv", 1, "", "rejected 1", dataCM, rowCM},
    {"tabs by the name, both compressed", "IMPORT -o o.gz --rejects r.gz tabs.tsv; s=$?; zcat o.gz r.gz; exit $s", 1,
     dataCM + rejectsHeadCM + "tabs.tsv,3,field-count,the record has more or fewer fields than the first,\"x\"\n", "",
     "old"},
    {"too many rejects", "IMPORT -o data.dat --max-rejects 0 --rejects rejects bad.csv", 1, "",
     "stopped: more than 0 rejected records, most often no-number: there is no number; data.dat is not written", "old",
     rowCM},
    {"told as JSON", "IMPORT -o data.dat --max-rejects 0 --json bad.csv | grep -o '\"records.*'", 0,
     "\"records\":1,\"rejected\":1,\"rejectedByReason\":{\"no-number\":1},\"repeated\":0,\"stopped\":\"more than "
     "0 rejected records, most often no-number: there is no number\",\"written\":0}\n",
     "", "old"},
    {"nothing but rejects", "grep -v A bad.csv | IMPORT -o data.dat --rejects rejects -", 2, "",
     "no record could be taken", "old"},
    {"a full disk for the data", "IMPORT -o /dev/full --rejects rejects bad.csv", 2, "", "No space left", "old"},
    {"a full disk for the rejects", "IMPORT -o data.dat --rejects /dev/full bad.csv", 2, "", "No space left", "old"},
    {"a reader that goes",
     "(trap '' PIPE; (cat good.csv; seq -f %.0f,20240101000000,A 2 9000000 2>/dev/null) | IMPORT - 2>&1; "
     "echo $? >&2) | head -n 1",
     0, dataCM, "141\n", "old"},
    {"a signal",
     "mkfifo in; IMPORT -o data.dat --rejects rejects - <in 2>err & exec 3>in; cat good.csv >&3; until ls "
     ".data.dat.*; do :; done >err 2>&1; kill $!; wait $!",
     128 + SIGTERM, "", "", "old"},
    {"no configuration", "IMPORT -c none.toml good.csv", 2, "", "none.toml", "old"},
    {"onto the configuration", "IMPORT -c nphost.toml -o nphost.toml good.csv", 2, "", "is the configuration file",
     "old"},
    {"rejects onto the data", "IMPORT -c nphost.toml --rejects data.dat good.csv", 2, "", "is the data file", "old"},
    {"the data may be written", "IMPORT -c nphost.toml -o data.dat good.csv", 0, "", "", dataCM},
    {"rejects to standard output", "IMPORT --rejects - good.csv", 2, "", "name a file", "old"},
    {"a count", "IMPORT --max-rejects -1 good.csv", 2, "", "'-1' is not a number", "old"},
    {"blank lines before the header", "(echo; echo ' '; cat good.csv) | IMPORT -", 0, dataCM, "records 1,", "old"},
    {"a mebibyte without a record",
     "(yes 'a\"' | head -n 400000; tail -n 1 good.csv) | nphost import --no-header --map "
     "number=1,valid-from=2,network=3 -o data.dat -",
     1, "", "records 400001, written 1", dataCM},
    {"and then without the column",
     "(yes 'a\"' | head -n 400000; tail -n 1 good.csv) | nphost import --no-header --map "
     "number=1,valid-from=2,network=4 -o data.dat -",
     2, "", "there is no column '4'; there are columns 1 to 3", "old"},
    {"JSON lines", "echo '{\"n\":1}' | nphost import --no-header --map number=1,valid-from=2,network=3 -", 2, "",
     "no record could be taken; nothing is written; rejected: 1, most often broken-quotes: the quotation "
     "marks do not match (JSON lines?",
     "old"},
    {"carriage returns alone", "tr '\\n' '\\r' <good.csv | IMPORT -", 2, "",
     "standard input: its lines end in carriage returns alone", "old"},
    {"a transfer that failed", ": >empty.csv.gz; IMPORT empty.csv.gz", 2, "",
     "empty.csv.gz: the compressed data end early", "old"},
    {"another separator", "tr , ';' <good.csv | IMPORT -", 2, "", "is the separator right?", "old"},
    {"no separator", "IMPORT --separator '' good.csv", 2, "", "one byte (ASCII)", "old"},
};

// As its users meet it: where data, rejects and summary go, and how it ends.
TEST(ImportTest, CommandLine) {
    for (Command const& test : commandsCM) {
        TemporaryFolder const folder;
        folder.write("good.csv", goodCM);
        folder.write("bad.csv", headerCM + ",,\n1,20240101000000,A\n");
        folder.write("tabs.tsv", "number\tsince\toperator\n1\t20240101000000\tA\nx\n");
        folder.write("data.dat", "old");
        folder.write("nphost.toml", "[DAT_NumberPortability]\nFileName = \"data.dat\"\n");
        Result const result =
            runShell(folder, replaced(test.commands, "IMPORT",
                                      "nphost import --map number=number,valid-from=since,network=operator"));
        EXPECT_EQ(result.status, test.status) << test.label << "\n" << result.err;
        EXPECT_EQ(result.out, test.out) << test.label;
        EXPECT_TRUE(contains(result.err, test.err)) << test.label << "\n" << result.err;
        EXPECT_EQ(contentOf(folder.file("data.dat")), test.written) << test.label;
        EXPECT_EQ(contentOf(folder.file("rejects")), test.rejects) << test.label;
        for (auto const& entry : std::filesystem::directory_iterator(folder.path()))
            EXPECT_FALSE(entry.path().filename().string().starts_with('.')) << test.label << entry.path();
    }
}

// Random records of few numbers, instants and networks, so that many fall together, against a naive model.
TEST(ImportTest, KeepsEveryRecordOnce) {
    SeededRandom random;
    // Some differ in a leading zero or a plus, some are too long for one machine word.
    std::istringstream words(
        "0 00 1 +1 10 +10 01 99999999999999999 +9999999999999999 999999999999999990 "
        "000000000000000000 00000000000000000 1234567890123456789012345 1234567890123456789012346");
    std::vector<std::string> const numbers{std::istream_iterator<std::string>(words), {}};
    std::string feed = headerCM;
    std::map<std::pair<std::string, std::string>, std::string> kept;
    std::string expected;
    long conflicts = 0;
    for (int i = 0; i < 3000; ++i) {
        std::string const& number = numbers[random() % numbers.size()];
        std::string const since = std::to_string(20240101000000 + random() % 60);
        std::string const network = "N" + std::to_string(random() % 3);
        feed.append(number).append(",").append(since).append(",").append(network).append("\n");
        auto const [found, isNew] = kept.emplace(std::pair(number, since), network);
        if (isNew)
            expected.append(number).append("  ").append(since).append("  ").append(network).append("\n");
        conflicts += !isNew && found->second != network ? 1 : 0;
    }
    Feed import(feed);
    EXPECT_EQ(import.imported(), "1\n" + expected);
    std::string const rejects = contentOf(*import.options.rejects);
    EXPECT_EQ(lineCount(rejects), conflicts + 1);
}

} // namespace
