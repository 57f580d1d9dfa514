// The readers of foreign records: every byte comes back, records end where RFC 4180 and JSON lines say, and what is
// broken costs no more than its line. Compressed and uncompressed, whole and in blocks.
#include "host/base/HostError.h"
#include "host/records/BlockReader.h"
#include "host/records/Compression.h"
#include "host/records/CsvReader.h"
#include "host/records/JsonReader.h"
#include "tests/SeededRandom.h"
#include "tests/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace std::string_literals;
using nphost::ByteSource;
using nphost::Compression;
using nphost::CsvReader;
using nphost::JsonReader;
using nphost::Problem;
using nphost::Record;
using nphost::RecordReader;

// A record as one text: its values between bars, or its problem.
std::string shown(Record const& record) {
    std::string text = std::to_string(record.line) + ":";
    if (record.problem != Problem::NONE)
        return text + nphost::nameOf(record.problem);
    for (std::string_view const value : record.values)
        text.append("|").append(value);
    return text;
}

// All records of a text, which must come back byte by byte.
std::string readAll(RecordReader& reader, std::string const& text) {
    std::string const padded = text + std::string(RecordReader::paddingCM, '"');
    reader.begin(std::string_view(padded).substr(0, text.size()), 1);
    std::string all;
    std::string bytes;
    for (Record record; reader.next(record);) {
        all += shown(record) + " ";
        bytes.append(record.text).append(record.lineEnd);
    }
    EXPECT_EQ(bytes, text);
    return all;
}

TEST(CsvReaderTest, FindsRecordsAndFields) {
    struct Case {
        char const* label;
        std::string text;
        std::string records;
        char separator = ',';
        bool quotes = true;
    };
    for (Case const& test : {
             Case{"nothing", "", ""},
             Case{"plain", "a,b\nc,\n,\n", "1:|a|b 2:|c| 3:|| "},
             Case{"the last line without its newline", "a,b\nc,d", "1:|a|b 2:|c|d "},
             Case{"CRLF, quoted and not", "a,b\r\n\"c\",\"d\"\r\n", "1:|a|b 2:|c|d "},
             Case{"a carriage return elsewhere is a byte", "a\rb,c\r", "1:|a\rb|c\r "},
             Case{"empty lines", "a\n\n\r\nb\n\n", "1:|a 2: 3: 4:|b 5: "},
             Case{"blanks count", " a , \"b\" \n\" a \",b\n", "1:broken-quotes 2:| a |b "},
             Case{"quotes, separators and line breaks in quotes", "\"a,\"\"b\"\"\",\"c\nd\r\ne\"\nf,g\n",
                  "1:|a,\"b\"|c\nd\r\ne 4:|f|g "},
             Case{"quoted and empty", "\"\",a\n\"\"\n", "1:||a 2:| "},
             Case{"quoted to the end of the file", "a,\"b\"", "1:|a|b "},
             Case{"a quotation mark inside a field", "a,b\"c\nd\n", "1:broken-quotes 2:|d "},
             Case{"a byte after the closing one", "\"a\"b,c\nd\n", "1:broken-quotes 2:|d "},
             Case{"never closed: one line is lost, not the file", "\"a,b\nc,d\ne\n", "1:broken-quotes 2:|c|d 3:|e "},
             Case{"never closed at the end", "a\n\"b", "1:|a 2:broken-quotes "},
             Case{"closed by a later record's", "\"a\n\"b\",c\nd\n", "1:broken-quotes 2:|b|c 3:|d "},
             Case{"NUL and foreign bytes", "\0,\xff\n\"\0\",\xfe\n"s, "1:|\0|\xff 2:|\0|\xfe "s},
             Case{"tabs", "a,b\tc\n\"d\te\"\tf\n", "1:|a,b|c 2:|d\te|f ", '\t'},
             Case{"any separator", "a b c\n", "1:|a|b|c ", ' '},
             Case{"quoting switched off", "\"a;b\"c\nd;\"\n", "1:|\"a|b\"c 2:|d|\" ", ';', false},
         }) {
        CsvReader reader({test.separator, test.quotes});
        EXPECT_EQ(readAll(reader, test.text), test.records) << test.label;
    }
}

// Wherever a text is cut off, as many records are whole as end there, and never a part of one.
TEST(CsvReaderTest, WholeRecordsAtEverySplitPoint) {
    std::string const text = "a,b\n\"c\nd\",\"\r\n\"\"\n\"\r\n\n\"e\"\n\"f\n\ng\"\nh,\"i\"\r\n";
    std::vector<std::size_t> const ends = {4, 19, 20, 24, 31, 38};
    CsvReader reader({});
    std::size_t end = 0;
    for (std::size_t length = 0; length <= text.size(); ++length) {
        end = std::find(ends.begin(), ends.end(), length) != ends.end() ? length : end;
        std::string const padded = text.substr(0, length) + std::string(RecordReader::paddingCM, '"');
        EXPECT_EQ(reader.wholeRecords(std::string_view(padded).substr(0, length)), end) << text.substr(0, length);
    }
    EXPECT_EQ(end, text.size());
}

TEST(CsvReaderTest, WantedColumnsAndRaggedRecords) {
    CsvReader reader({}, {3, 1}, 4);
    EXPECT_EQ(readAll(reader, "a,b,c,d\na,b,c\na,b,c,d,e\n\"a\",\"b\",c,\"d\"\n\"a\",b\n\na,b,,\n"),
              "1:|d|b 2:field-count 3:field-count 4:|d|b 5:field-count 6: 7:||b ");
    CsvReader first({}, {0}, 5);
    EXPECT_EQ(readAll(first, "a,b,c,d,e\na,,,,\n,,,\n"), "1:|a 2:|a 3:field-count ");
}

struct Members {
    char const* label;
    std::string line;
    std::string shown;
};

std::vector<Members> const membersCM = {
    {"texts, in any order", R"({"t":"2024","x":[1,{"n":"no"}],"n":"+33"})", "|+33|2024"},
    {"numbers keep their digits", R"({"n":447700900123,"t":-1})", "|447700900123|-1"},
    {"no exponent", R"({"n":18446744073709551615,"t":1.7e9})", "|18446744073709551615|1700000000"},
    {"a fraction", R"({"n":1,"t":1700000000.25})", "|1|1700000000.25"},
    {"digits without end are not nothing", R"({"n":4.4e307,"t":5e-324})", "|4.4e+307|5e-324"},
    {"escapes", R"({"\u006e":"\u00e9\n\"","t":"\ud83d\ude00"})", "|\u00e9\n\"|\U0001f600"},
    {"blanks around", " {\"n\" : \"1\" , \"t\" : \"2\" } \r", "|1|2"},
    {"nothing is empty", R"({"n":null,"t":false})", "||"},
    {"lists and objects are their text", R"({"n":[ "1", {}],"t":{"a":1}})", R"(|["1",{}]|{"a":1})"},
    {"an empty text", R"({"n":"","t":true})", "||"},
    {"a blank line", "  ", ""},
    {"a member lacks", R"({"n":"1"})", "missing-member"},
    {"a member twice", R"({"n":"1","t":"2","n":"1"})", "missing-member"},
    {"twice, and empty", R"({"n":null,"t":"2","n":"1"})", "missing-member"},
    {"a name is taken", R"({"n":"1","t":"2","n_network":"x"})", "name-taken"},
    {"and a member twice", R"({"n":"1","n":"1","t":"2","n_network":"x"})", "name-taken"},
    {"cut off", R"({"n":"1","t":"2")", "broken-json"},
    {"two objects", R"({"n":"1","t":"2"}{})", "broken-json"},
    {"an array", R"(["n","t"])", "broken-json"},
    {"a misspelt value", R"({"n":"1","t":"2","x":tru})", "broken-json"},
    {"a comma too many", R"({"n":"1","t":"2",})", "broken-json"},
    {"no UTF-8", "{\"n\":\"\xff\",\"t\":\"2\"}", "broken-json"},
    {"NUL", "{\"n\":\"1\",\"t\":\"2\"}\0"s, "broken-json"},
    {"too deep", R"({"n":"1","t":"2","x":)" + std::string(2000, '[') + std::string(2000, ']') + "}", "broken-json"},
    {"a number beyond 64 bits", R"({"n":"1","t":"2","x":18446744073709551616})", "broken-json"},
};

TEST(JsonReaderTest, FindsMembers) {
    JsonReader reader({"n", "t"}, {"n_network"});
    std::string text;
    std::string expected;
    for (std::size_t i = 0; i < membersCM.size(); ++i) {
        text += membersCM[i].line + "\n";
        expected += std::to_string(i + 1) + ":" + membersCM[i].shown + " ";
    }
    EXPECT_EQ(readAll(reader, text), expected);
    for (Members const& test : membersCM) // alone, and without a newline
        EXPECT_EQ(readAll(reader, test.line), "1:" + test.shown + " ") << test.label;
}

std::string compressed(Compression kind, std::string const& text) {
    std::string place;
    return std::string(nphost::Compressor(kind).compress(text, place));
}

std::string contentRead(std::string const& file, std::size_t piece) {
    ByteSource source(file);
    std::string all;
    std::vector<char> buffer(piece);
    while (std::size_t const count = source.read(buffer))
        all.append(buffer.data(), count);
    EXPECT_EQ(source.done(), std::filesystem::file_size(file));
    return all;
}

TEST(ByteSourceTest, ReadsWhatWasWrittenWhateverItsForm) {
    TemporaryFolder const folder;
    SeededRandom random;
    std::string large;
    while (large.size() < 3000000)
        large += std::to_string(random() % 100000);
    std::string const skippable = "\x50\x2a\x4d\x18\x03\0\0\0abc"s;
    struct Case {
        char const* label;
        std::string bytes;
        std::string text;
    };
    for (Case const& test :
         {Case{"empty", "", ""}, Case{"one byte", "\x1f", "\x1f"}, Case{"plain", large, large},
          Case{"gzip", compressed(Compression::GZIP, large), large},
          Case{"zstd", compressed(Compression::ZSTD, large), large},
          Case{"gzip of nothing", compressed(Compression::GZIP, ""), ""},
          Case{"members",
               compressed(Compression::GZIP, large) + compressed(Compression::GZIP, "") +
                   compressed(Compression::GZIP, "end"),
               large + "end"},
          Case{"gzip on a tape", compressed(Compression::GZIP, large) + std::string(200'000, '\0'), large},
          Case{"little on a tape", compressed(Compression::GZIP, "a") + std::string(2, '\0'), "a"},
          Case{"frames", skippable + compressed(Compression::ZSTD, "a") + compressed(Compression::ZSTD, large),
               "a" + large}}) {
        std::string const file = folder.write("file", test.bytes);
        EXPECT_TRUE(contentRead(file, 1UL << 20U) == test.text) << test.label;
        EXPECT_TRUE(test.text.size() > 100 || contentRead(file, 1) == test.text) << test.label << ", byte by byte";
    }
}

TEST(ByteSourceTest, DamageIsAnErrorThatNamesTheFile) {
    TemporaryFolder const folder;
    std::string const gzip = compressed(Compression::GZIP, std::string(100000, 'x'));
    std::string const zstd = compressed(Compression::ZSTD, std::string(100000, 'x'));
    std::string flipped = gzip;
    flipped[gzip.size() - 6] = static_cast<char>(~flipped[gzip.size() - 6]); // in the checksum
    std::string apart = gzip;
    apart.append(2, '\0').append(gzip);
    struct Case {
        char const* label;
        std::string bytes;
        char const* reason;
    };
    for (Case const& test :
         {Case{"gzip cut off", gzip.substr(0, gzip.size() - 9), "end early"},
          Case{"gzip cut off in its trailer", gzip.substr(0, gzip.size() - 1), "end early"},
          Case{"gzip cut off in its second header", gzip + "\x1f\x8b\x08", "end early"},
          Case{"gzip with more behind", gzip + "more", "damaged"}, Case{"gzip behind zeros", apart, "damaged"},
          Case{"gzip changed", flipped, "damaged"}, Case{"zstd cut off", zstd.substr(0, zstd.size() - 1), "end early"},
          Case{"zstd with more behind", zstd + "more", "damaged"}}) {
        std::string const file = folder.write("file", test.bytes);
        try {
            contentRead(file, 65536);
            ADD_FAILURE() << test.label;
        } catch (nphost::HostError const& error) {
            std::string const text = error.what();
            EXPECT_TRUE(text.starts_with(file + ": ") && text.find(test.reason) != std::string::npos)
                << test.label << ": " << text;
        }
    }
    EXPECT_THROW(ByteSource(folder.file("none")), nphost::HostError);
    EXPECT_THROW(ByteSource(folder.path().string()), nphost::HostError);
}

// The records of a file by way of blocks of that capacity; pieces of a long line as one.
std::string readBlocks(std::string const& file, std::size_t capacity) {
    ByteSource source(file);
    CsvReader cutter({});
    CsvReader reader({});
    nphost::BlockReader blocks(source, cutter);
    nphost::RecordBlock block(capacity);
    std::string all;
    std::size_t longLine = 0;
    while (blocks.next(block)) {
        if (block.piece() != nphost::RecordBlock::Piece::NONE) {
            longLine += block.text().size();
            if (block.piece() == nphost::RecordBlock::Piece::LAST)
                all += std::to_string(block.firstLine()) + ":long " + std::to_string(longLine) + " ";
            continue;
        }
        reader.begin(block.text(), block.firstLine());
        for (Record record; reader.next(record);)
            all += shown(record) + " ";
    }
    return all;
}

TEST(BlockReaderTest, BlocksChangeNothing) {
    TemporaryFolder const folder;
    SeededRandom random;
    std::array const parts = {"a", ",", "\n", "\r\n", "\"b\"", "\"c\nd\"", "\"e\"\"f\"", "gh", "i\"", ",\n", "\n\n"};
    for (int round = 0; round < 200; ++round) {
        std::string text;
        for (auto i = random() % 60; i > 0; --i)
            text += parts[random() % parts.size()];
        std::string const file = folder.write("file", text);
        CsvReader reader({});
        std::string const expected = readAll(reader, text);
        for (std::size_t const capacity : {200U, 400U, 1U << 20U})
            ASSERT_EQ(readBlocks(file, capacity), expected) << capacity << "\n" << text;
    }
}

TEST(BlockReaderTest, LinesLongerThanABlock) {
    TemporaryFolder const folder;
    auto const read = [&](std::string const& text) { return readBlocks(folder.write("file", text), 100); };
    std::string const huge(1000, 'x');
    EXPECT_EQ(read("a\n" + huge + "\nb\n"), "1:|a 2:long 1001 3:|b ");
    EXPECT_EQ(read(huge), "1:long 1000 ") << "a multiple of the block, without a newline";
    EXPECT_EQ(read(huge + "y"), "1:long 1001 ");
    EXPECT_EQ(read("\"" + huge + "\nb\n"), "1:long 1002 2:|b ");
    std::string lines;
    std::string records;
    for (int i = 2; i < 40; ++i) {
        lines += "abcdefgh\n";
        records += std::to_string(i) + ":|abcdefgh ";
    }
    EXPECT_EQ(read("\"a\n" + lines), "1:broken-quotes " + records) << "a quotation mark that is closed nowhere near";
    EXPECT_EQ(read(std::string(99, 'x') + "\n" + std::string(99, 'y') + "\n"),
              "1:|" + std::string(99, 'x') + " 2:|" + std::string(99, 'y') + " ");
}

TEST(BlockReaderTest, ByteOrderMarks) {
    TemporaryFolder const folder;
    EXPECT_EQ(readBlocks(folder.write("file", "\xef\xbb\xbf\"a\",b\n"), 100), "1:|a|b ");
    EXPECT_EQ(readBlocks(folder.write("file", "\xef\xbb\xbf"), 100), "");
    for (char const* const mark : {"\xff\xfe", "\xfe\xff"})
        EXPECT_THROW(readBlocks(folder.write("file", std::string(mark) + "a\n"), 100), nphost::HostError);
}

// Records of a pipe do not wait for those to come.
TEST(BlockReaderTest, PipeThatPauses) {
    TemporaryFolder const folder;
    std::string const name = folder.file("pipe");
    ASSERT_EQ(mkfifo(name.c_str(), 0600), 0);
    int const pipe = open(name.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(pipe, 0);
    auto const say = [&](std::string const& text) {
        ASSERT_EQ(write(pipe, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    };
    ByteSource source(name);
    CsvReader cutter({});
    nphost::BlockReader blocks(source, cutter);
    nphost::RecordBlock block(1000);
    say("a,b\n\"c");
    ASSERT_TRUE(blocks.next(block));
    EXPECT_EQ(block.text(), "a,b\n");
    say("\nd\"\ne");
    ASSERT_TRUE(blocks.next(block));
    EXPECT_EQ(block.text(), "\"c\nd\"\n");
    EXPECT_EQ(block.firstLine(), 2U);
    close(pipe);
    ASSERT_TRUE(blocks.next(block));
    EXPECT_EQ(block.text(), "e");
    EXPECT_EQ(block.firstLine(), 4U);
    EXPECT_FALSE(blocks.next(block));
}

} // namespace
