// The framework layer: texts, instants, files, threads, objects.
#include "framework/BAS/DateTime.h"
#include "framework/BAS/RegisteredObject.h"
#include "framework/BAS/SimpleString.h"
#include "framework/BAS/Thread.h"
#include "framework/OMF/InstrumentationProbeBrokerIf.h"
#include "framework/OMF/TomlLimits.h"
#include "framework/RW/RWTValSlist.h"
#include "framework/STR/FileIo.h"
#include "framework/STR/FileIoTurbo.h"
#include "fuzz/Calendar.h"
#include "tests/SeededRandom.h"
#include "tests/TemporaryFolder.h"

#include <atomic>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <latch>
#include <sstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace std::string_literals;

namespace {

std::vector<std::string> words(std::string const& text) {
    std::vector<std::string> result;
    for (BAS::String const& word : BAS::String(text).split())
        result.push_back(word.str());
    return result;
}

// The text in memory of its own size, so that a sanitizer sees what is read beyond its end.
class ExactText {
  public:
    explicit ExactText(std::string_view text) : bytesM(text.begin(), text.end()) {}
    std::string_view view() const { return {bytesM.data(), bytesM.size()}; }

  private:
    std::vector<char> bytesM;
};

// Collects the log for as long as it lives.
class LogCollector : public BAS::LogSinkIf {
  public:
    LogCollector() { BAS::RegisteredObject::installLogSink(this); }
    ~LogCollector() override { BAS::RegisteredObject::installLogSink(nullptr); }
    void write(BAS::Status const& status) noexcept override { reports.push_back(status); }

    std::vector<BAS::Status> reports;
};

} // namespace

TEST(String, SplitsAtWhiteSpaceOnly) {
    using Words = std::vector<std::string>;
    EXPECT_EQ(words(""), Words());
    EXPECT_EQ(words("  \t \r\v\f\n "), Words());
    EXPECT_EQ(words(" a  b\tc\r"), (Words{"a", "b", "c"}));
    EXPECT_EQ(words("a\vb\fc"), (Words{"a", "b", "c"}));
    EXPECT_EQ(words("S\xc3\xadminn \xa0\xff x\0y"s), (Words{"S\xc3\xadminn", "\xa0\xff", "x\0y"s}));
}

TEST(String, ViewsOfWordsAreThoseOfSplit) {
    SeededRandom random;
    // Separators, their neighbours, and bytes that some other reader takes for blanks.
    std::string const bytes = " \t\r\v\f\n  abcdefg\x08\x0e\x1f!\x85\xa0\x89\xff\0"s;
    for (std::size_t round = 0; round < 20'000; ++round) {
        std::string text(round % 200, 'x'); // all lengths around the blocks of 16 and 64 that are looked at
        std::size_t const choice = random() % 2 == 0 ? bytes.size() : 1 + random() % bytes.size();
        for (char& byte : text)
            byte = random() % 4 == 0 ? bytes[random() % choice] : 'x';
        std::vector<std::string> const expected = words(text);
        std::vector<std::string_view> views(random() % 6, "untouched");
        ExactText const line(text);
        ASSERT_EQ(BAS::String::splitViews(line.view(), views), expected.size());
        for (std::size_t i = 0; i < views.size(); ++i)
            ASSERT_EQ(views[i], i < expected.size() ? expected[i] : "untouched") << testing::PrintToString(text);
    }
    for (unsigned byte = 0; byte < 256; ++byte) {
        std::string const text = "left" + std::string(1, static_cast<char>(byte)) + "right, and more than 16 bytes";
        ASSERT_EQ(BAS::String::splitViews(text, {}), words(text).size()) << byte;
        ASSERT_EQ(BAS::String::splitViews(text.substr(0, 7), {}), words(text.substr(0, 7)).size()) << byte;
    }
    std::string many;
    for (int i = 0; i < 3'000'000; ++i)
        many += "w ";
    EXPECT_EQ(BAS::String::splitViews(many, {}), 3'000'000U);
}

TEST(String, ConvertsUnsignedDecimalNumbersOnly) {
    unsigned value = 77;
    for (char const* const text :
         {"4294967296", "99999999999999999999", "", "-1", "-0", "+1", " 1", "1 ", "x1", "0x1", "1.0"}) {
        EXPECT_FALSE(BAS::String(text).toNum(value)) << text;
        EXPECT_EQ(value, 77U) << text;
    }
    for (auto const& [text, expected] : {std::pair{"0", 0U}, {"007", 7U}, {"4294967295", 4294967295U}}) {
        EXPECT_TRUE(BAS::String(text).toNum(value)) << text;
        EXPECT_EQ(value, expected) << text;
    }
}

TEST(String, StripsBothEndsOnly) {
    for (auto const& [from, to] : {std::pair{"  a b  ", "a b"}, {"   ", ""}, {"", ""}, {"a", "a"}}) {
        BAS::String text(from);
        text.strip(' ');
        EXPECT_EQ(text.str(), to);
    }
}

TEST(SimpleString, KeepsShortAndLongTextsThroughCopyAndMove) {
    for (std::size_t length : {0U, 1U, 6U, 7U, 8U, 9U, 54U, 5000U}) {
        std::string const text(length, '\x7f'); // the byte that also tags heap texts
        BAS::SimpleString const original(text.c_str());
        BAS::SimpleString copy(original);
        BAS::SimpleString assigned("something longer than seven");
        assigned = original;
        BAS::SimpleString const& self = assigned;
        assigned = self;
        BAS::SimpleString const moved(std::move(copy));
        EXPECT_EQ(original.view(), text);
        EXPECT_EQ(assigned.view(), text);
        EXPECT_EQ(moved.view(), text);
        EXPECT_EQ(std::string(original.c_str()).size(), length);
    }
    EXPECT_EQ(sizeof(BAS::SimpleString), 8U);
}

TEST(SimpleString, KeepsOfAViewWhatIsBeforeItsFirstNul) {
    for (std::size_t length : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 9U, 40U})
        for (std::size_t nul = 0; nul <= length; ++nul)
            for (char const after : {'x', '\0', '\x01'}) {
                std::string text(length, after);
                text.replace(0, nul, nul, '\x80');
                if (nul < length)
                    text[nul] = '\0';
                BAS::SimpleString const kept(ExactText(text).view());
                ASSERT_EQ(kept.view(), std::string(nul, '\x80')) << length;
                ASSERT_EQ(kept, BAS::SimpleString(text.c_str())) << length;
            }
    EXPECT_EQ(BAS::SimpleString(std::string_view()).view(), "");
    EXPECT_EQ(BAS::SimpleString("NETA\0B").view(), "NETA");
}

TEST(DateTime, TakesRealInstantsOnly) {
    for (char const* const text : {"00010101000000", "99991231235959", "20240229000000", "20000229000000"}) {
        BAS::DateTime const when{BAS::String(text)};
        EXPECT_TRUE(when.isValid() && when.seconds() < BAS::DateTime::invalidSecsCM) << text;
        EXPECT_EQ(when.asString("%Y%m%d%H%M%S").str(), text);
    }
    for (char const* const text :
         {"19000229000000", "20230229000000", "00000101000000", "20240001000000", "20241301000000", "20240100000000",
          "20240132000000", "20240431000000", "20240101240000", "20240101006000", "20240101000060", "", "2024010100000",
          "202401010000000", "2024010100000x", "+2024010100000", " 2024010100000", "2024-01-01 000", "UNKNOWN"}) {
        BAS::DateTime const when{BAS::String(text)};
        EXPECT_FALSE(when.isValid() || when.seconds() < BAS::DateTime::invalidSecsCM) << text;
    }
    EXPECT_EQ(BAS::DateTime(), BAS::DateTime(BAS::String("UNKNOWN")));
    EXPECT_FALSE(BAS::DateTime().isValid());
    EXPECT_EQ(sizeof(BAS::DateTime), 8U);
}

// Every day there is, against a calendar counted day by day.
TEST(DateTime, CountsEveryDayAndFormatsItBack) {
    constexpr unsigned lengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    std::uint64_t expected = 0;
    char text[15];
    for (unsigned year = 1; year <= 9999; ++year)
        for (unsigned month = 1; month <= 12; ++month) {
            bool const leap = year % 400 == 0 || (year % 4 == 0 && year % 100 != 0);
            for (unsigned day = 1; day <= lengths[month - 1] + (month == 2 && leap ? 1 : 0); ++day) {
                std::snprintf(text, sizeof text, "%04u%02u%02u000000", year, month, day);
                BAS::DateTime const when{std::string_view(text, 14)};
                char digits[14];
                when.toDigits(digits);
                ASSERT_EQ(when.seconds(), expected) << text;
                ASSERT_EQ(std::string_view(digits, 14), text);
                expected += 86400;
            }
        }
    EXPECT_EQ(expected, BAS::DateTime::invalidSecsCM);
}

TEST(DateTime, AgreesWithTheLibrarysCalendarOnAlmostValidTexts) {
    SeededRandom random;
    std::string const bytes = "0123456789/:\x2f\x3a\x20\x00\xb0\xfa\xff?-"s; // digits and their neighbours
    unsigned valid = 0;
    for (int round = 0; round < 200'000; ++round) {
        char buffer[16];
        std::snprintf(buffer, sizeof buffer, "%04u%02u%02u%02u%02u%02u", unsigned(random() % 10'000),
                      unsigned(random() % 14), unsigned(random() % 33), unsigned(random() % 26),
                      unsigned(random() % 62), unsigned(random() % 62));
        std::string text(buffer, 14);
        if (random() % 4 == 0)
            text[random() % 14] = bytes[random() % bytes.size()];
        text.resize(random() % 64 == 0 ? random() % 16 : 14, '0');
        std::uint64_t const expected = npfuzz::secondsOf(text).value_or(BAS::DateTime::invalidSecsCM);
        ASSERT_EQ(BAS::DateTime(ExactText(text).view()).seconds(), expected) << testing::PrintToString(text);
        valid += expected != BAS::DateTime::invalidSecsCM ? 1 : 0;
    }
    EXPECT_GT(valid, 50'000U);
}

TEST(DateTime, FormatsWithoutZoneAndPadsEarlyYears) {
    setenv("TZ", "Asia/Tokyo", 1); // NOLINT(concurrency-mt-unsafe)
    tzset();
    BAS::DateTime const early{BAS::String("00070304050607")};
    EXPECT_EQ(early.asString("%Y%m%d%H%M%S").str(), "00070304050607");
    EXPECT_EQ(early.asString("%Y-%m-%d %H:%M:%S 100%% %q%").str(), "0007-03-04 05:06:07 100% %q%");
    EXPECT_EQ(BAS::DateTime().asString("%Y").str(), "INVALID");
    unsetenv("TZ"); // NOLINT(concurrency-mt-unsafe)
    EXPECT_LT(early, BAS::DateTime(BAS::String("00070304050608")));
    EXPECT_GT(BAS::DateTime(), BAS::DateTime(BAS::String("99991231235959")));
    EXPECT_GT(BAS::DateTime::now(), BAS::DateTime(BAS::String("20250101000000")));
}

TEST(Slist, IsLastInFirstOutBeyondItsInlineElements) {
    RWTStack<int*, RWTValSlist<int*>> stack;
    std::vector<int> values(100);
    for (int round = 0; round < 2; ++round) {
        for (int& value : values)
            stack.push(&value);
        for (auto value = values.rbegin(); value != values.rend(); ++value) {
            ASSERT_FALSE(stack.isEmpty());
            ASSERT_EQ(stack.pop(), &*value);
        }
        EXPECT_TRUE(stack.isEmpty());
    }
}

class LineReader : public testing::Test {
  protected:
    using Lines = std::vector<std::string>;
    enum class Form { COPIES, VIEWS, BOTH };

    Lines linesOf(std::string const& content) {
        folder.write("lines", content);
        Lines lines = linesOf(Form::COPIES);
        EXPECT_EQ(linesOf(Form::VIEWS), lines);
        EXPECT_EQ(linesOf(Form::BOTH), lines);
        return lines;
    }
    Lines linesOf(Form form) {
        STR::FileIoTurbo reader;
        EXPECT_TRUE(reader.openFile(BAS::String(folder.file("lines")), 8));
        Lines lines;
        std::string line;
        while (feof(reader.stream()) == 0) {
            bool const asView = form == Form::VIEWS || (form == Form::BOTH && lines.size() % 3 == 1);
            bool const read = readLine(reader, asView, line);
            EXPECT_EQ(read, feof(reader.stream()) == 0);
            if (read)
                lines.push_back(line);
        }
        EXPECT_FALSE(readLine(reader, form == Form::VIEWS, line)) << "the end stays";
        EXPECT_TRUE(reader.closeFile());
        EXPECT_FALSE(readLine(reader, form == Form::VIEWS, line)) << "closed";
        EXPECT_TRUE(reader.closeFile());
        return lines;
    }
    static bool readLine(STR::FileIoTurbo& reader, bool asView, std::string& line) {
        BAS::String copy;
        std::string_view view;
        if (!(asView ? reader.readLine(view) : reader.readLine(copy)))
            return false;
        line = asView ? std::string(view) : copy.str();
        return true;
    }
    void append(std::string const& text) {
        std::ofstream(folder.file("lines"), std::ios::binary | std::ios::app) << text;
    }
    // From here on every read of the reader's file fails.
    static void breakReading(STR::FileIoTurbo& reader) {
        int const broken = open("/proc/self/mem", O_RDONLY);
        dup2(broken, fileno(reader.stream()));
        close(broken);
    }

    static constexpr std::size_t block = 256UL * 1024; // what the reader reads at once
    TemporaryFolder folder;
};

TEST_F(LineReader, GivesEveryLineAndTheEndOnlyAfterTheLast) {
    EXPECT_EQ(linesOf(""), Lines());
    EXPECT_EQ(linesOf("\n"), Lines{""});
    EXPECT_EQ(linesOf("a\nb\n"), (Lines{"a", "b"}));
    EXPECT_EQ(linesOf("a\n\nb"), (Lines{"a", "", "b"}));
    EXPECT_EQ(linesOf("a\r\n\0\xff\n"s), (Lines{"a\r", "\0\xff"s}));
    std::string const longLine(3'000'000, '7');
    EXPECT_EQ(linesOf(longLine + "\n" + longLine), (Lines{longLine, longLine}));
}

// Lines whose last byte, newline or neither is the last of a block.
TEST_F(LineReader, KeepsLinesWholeAcrossBlocks) {
    std::string const full = "0049123456789  20200101000000  NETA\r";
    for (std::size_t const blocks : {1U, 2U, 4U})
        for (int const beyond : {-2, -1, 0, 1, 2})
            for (std::string const& after : {""s, "\n"s, "\nlast"s, "\n\n\0\n"s}) {
                std::size_t const size = blocks * block + static_cast<std::size_t>(beyond);
                std::string content;
                Lines expected;
                while (content.size() + 2 * full.size() < size) {
                    content += full + '\n';
                    expected.push_back(full);
                }
                expected.emplace_back(size - content.size(), '7');
                content += expected.back() + after;
                if (after == "\nlast")
                    expected.emplace_back("last");
                if (after.size() == 4)
                    expected.insert(expected.end(), {"", "\0"s});
                ASSERT_TRUE(linesOf(content) == expected) << blocks << " blocks " << beyond << ' ' << after.size();
            }
}

TEST_F(LineReader, ReadsLinesOfManyBlocksBetweenShortOnes) {
    for (std::size_t const length : {block / 2, block - 1, block, block + 1, 2 * block, 5 * block + 7}) {
        std::string const longLine(length, '\r');
        Lines const expected = {"short", longLine, "", longLine, longLine + "x", "end"};
        std::string content;
        for (std::string const& line : expected)
            content += line + '\n';
        content.pop_back();
        ASSERT_TRUE(linesOf(content) == expected) << length;
    }
}

TEST_F(LineReader, ReadsWhatIsAppendedUntilTheEndShows) {
    folder.write("lines", "a\nb");
    STR::FileIoTurbo reader;
    ASSERT_TRUE(reader.openFile(BAS::String(folder.file("lines")), 8));
    std::string_view line;
    auto const expectLines = [&](Lines const& lines) {
        for (std::string const& expected : lines) {
            EXPECT_TRUE(reader.readLine(line));
            EXPECT_EQ(line, expected);
            EXPECT_EQ(feof(reader.stream()), 0);
        }
    };
    expectLines({"a", "b"});
    append("c\nd");
    expectLines({"c", "d"});
    append("\n");
    expectLines({""});
    EXPECT_FALSE(reader.readLine(line));
    EXPECT_NE(feof(reader.stream()), 0);
    append("e\n");
    EXPECT_FALSE(reader.readLine(line));
    EXPECT_NE(feof(reader.stream()), 0);
    EXPECT_EQ(reader.fileSize(), 3U);
}

TEST_F(LineReader, OpensRegularFilesOnlyAndNeverWaits) {
    STR::FileIoTurbo reader;
    EXPECT_TRUE(reader.closeFile());
    std::string const pipe = folder.file("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    for (std::string const& name :
         {folder.path().string(), pipe, "/dev/null"s, folder.file("missing"), folder.file("a\0"s), ""s}) {
        EXPECT_FALSE(reader.openFile(BAS::String(name), 8)) << name;
        EXPECT_FALSE(reader.isOpen());
        EXPECT_EQ(reader.fileName().str(), name);
        BAS::String line;
        EXPECT_FALSE(reader.readLine(line));
    }
    EXPECT_FALSE(reader.openFile(BAS::String(folder.write("a", "1\n")), 16)) << "not for writing";
    EXPECT_TRUE(reader.openFile(BAS::String(folder.file("a")), 8));
    EXPECT_TRUE(reader.openFile(BAS::String(folder.write("b", "2\n")), 8)) << "replaces the open file";
    BAS::String line;
    EXPECT_TRUE(reader.readLine(line));
    EXPECT_EQ(line.str(), "2");
}

// A process's memory is a regular file that opens and cannot be read at its beginning.
TEST_F(LineReader, TellsAReadErrorFromTheEnd) {
    STR::FileIoTurbo reader;
    ASSERT_TRUE(reader.openFile("/proc/self/mem", 8));
    BAS::String line;
    EXPECT_FALSE(reader.readLine(line));
    EXPECT_EQ(feof(reader.stream()), 0);
}

// The block that was read ends inside a line, behind one, or inside a line that is longer.
TEST_F(LineReader, ReturnsNothingOfALineThatAReadErrorBreaks) {
    for (std::size_t const length : {std::size_t(36), std::size_t(31), 2 * block}) {
        std::string const full(length, '7'), first(31, '1');
        std::string content = first + '\n';
        while (content.size() < 3 * block)
            content += full + '\n';
        folder.write("lines", content);
        STR::FileIoTurbo reader;
        ASSERT_TRUE(reader.openFile(BAS::String(folder.file("lines")), 8));
        BAS::String line;
        ASSERT_TRUE(reader.readLine(line));
        breakReading(reader);
        std::size_t lines = 0;
        for (; reader.readLine(line); ++lines)
            ASSERT_EQ(line.str(), full);
        EXPECT_EQ(feof(reader.stream()), 0);
        EXPECT_EQ(lines == 0, length > block);
        EXPECT_EQ(line.str(), lines == 0 ? first : full) << "left alone";
    }
}

TEST_F(LineReader, SurvivesALineThatMemoryCannotHold) {
#ifdef NP_SANITIZED
    GTEST_SKIP() << "a sanitizer ends the program when memory runs out";
#endif
    folder.write("lines", "first\n");
    std::filesystem::resize_file(folder.file("lines"), 1UL << 40);
    STR::FileIoTurbo reader;
    ASSERT_TRUE(reader.openFile(BAS::String(folder.file("lines")), 8));
    std::string_view line;
    std::ifstream statm("/proc/self/statm");
    rlim_t pages = 0;
    statm >> pages;
    rlimit old = {};
    getrlimit(RLIMIT_AS, &old);
    rlimit const little = {pages * 4096 + (64UL << 20), old.rlim_max};
    EXPECT_TRUE(reader.readLine(line));
    setrlimit(RLIMIT_AS, &little);
    EXPECT_THROW(reader.readLine(line), std::bad_alloc);
    EXPECT_THROW(reader.readLine(line), std::bad_alloc) << "still that line";
    setrlimit(RLIMIT_AS, &old);
    EXPECT_EQ(feof(reader.stream()), 0);
    EXPECT_TRUE(reader.openFile(BAS::String(folder.write("b", "2\n")), 8));
    EXPECT_TRUE(reader.readLine(line));
    EXPECT_EQ(line, "2");
}

class Writer : public testing::Test {
  protected:
    bool write(std::string const& name, std::string const& text) {
        STR::FileIo file(BAS::String(name), std::ios_base::out);
        file.stream() << text << std::flush;
        return file.closeFile();
    }
    // Everything in the folder but the named files: nothing may be left behind.
    std::size_t leftovers(std::size_t expected) const {
        std::size_t files = 0;
        for ([[maybe_unused]] auto const& entry : std::filesystem::directory_iterator(folder.path()))
            ++files;
        return files - expected;
    }
    TemporaryFolder folder;
    LogCollector log;
};

TEST_F(Writer, ReplacesAFileKeepingItsModeAndLinks) {
    std::string const file = folder.write("data", "old");
    ASSERT_EQ(chmod(file.c_str(), 0640), 0);
    std::filesystem::create_symlink("data", folder.path() / "link");
    std::filesystem::create_symlink("link", folder.path() / "link to link");
    EXPECT_TRUE(write(folder.file("link to link"), "new"));
    EXPECT_EQ(contentOf(file), "new");
    struct stat status = {};
    ASSERT_EQ(lstat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0640));
    EXPECT_TRUE(std::filesystem::is_symlink(folder.path() / "link"));

    std::filesystem::create_symlink("not there yet", folder.path() / "dangling");
    EXPECT_TRUE(write(folder.file("dangling"), "made"));
    EXPECT_EQ(contentOf(folder.file("not there yet")), "made");
    EXPECT_EQ(leftovers(5), 0U);
    EXPECT_TRUE(log.reports.empty());
}

TEST_F(Writer, ShowsNothingBeforeItIsClosed) {
    std::string const file = folder.write("data", "old");
    STR::FileIo writer(BAS::String(file), std::ios_base::out);
    writer.stream() << std::string(1'000'000, 'x') << std::endl;
    EXPECT_EQ(contentOf(file), "old");
    EXPECT_TRUE(writer.closeFile());
    EXPECT_TRUE(writer.closeFile());
    EXPECT_EQ(contentOf(file).size(), 1'000'001U);
}

// Blocks that are written while the next is filled, in pieces of many sizes.
TEST_F(Writer, WritesALongFileInOrder) {
    std::string const file = folder.file("long");
    std::string text;
    STR::FileIo writer(BAS::String(file), std::ios_base::out);
    for (std::size_t size = 1; text.size() < 50'000'000; size = size * 3 % 2'000'003) {
        std::string piece = std::to_string(size);
        piece.resize(size, static_cast<char>('a' + size % 26));
        writer.stream() << piece << std::flush;
        text += piece;
    }
    EXPECT_TRUE(writer.closeFile());
    EXPECT_TRUE(contentOf(file) == text);
    EXPECT_TRUE(log.reports.empty());
}

TEST_F(Writer, GivesUpWhenAnExceptionUnwinds) {
    std::string const file = folder.write("data", "old");
    for (std::size_t const size : {10UL, 5'000'000UL}) {
        try {
            STR::FileIo writer(BAS::String(file), std::ios_base::out);
            writer.stream() << std::string(size, 'x');
            throw std::runtime_error("listing");
        } catch (std::runtime_error const&) { // NOLINT(bugprone-empty-catch): it is about the unwinding
        }
        EXPECT_EQ(contentOf(file), "old");
        EXPECT_EQ(leftovers(1), 0U);
    }
}

TEST_F(Writer, KeepsTheOldContentAndSaysWhyWhenItCannotWrite) {
    std::string const file = folder.write("data", "old");
    rlimit old = {};
    getrlimit(RLIMIT_FSIZE, &old);
    rlimit const small = {1000, old.rlim_max};
    signal(SIGXFSZ, SIG_IGN);
    std::size_t reports = 0;
    for (std::size_t const size : {5000UL, 5'000'000UL}) { // the latter by its own thread
        setrlimit(RLIMIT_FSIZE, &small);                   // as if the disk were full
        bool const written = write(file, std::string(size, 'x'));
        setrlimit(RLIMIT_FSIZE, &old);
        EXPECT_FALSE(written);
        EXPECT_EQ(contentOf(file), "old");
        ASSERT_EQ(log.reports.size(), ++reports);
    }
    EXPECT_EQ(log.reports[0].identifier().str(), "ERR_WRITE_FILE");
    EXPECT_EQ(log.reports[0].arguments()[0].str(), file);
    EXPECT_NE(log.reports[0].arguments()[1].str().find("File too large"), std::string::npos);

    for (std::string const& name :
         {folder.file("no/such/folder"), folder.path().string(), folder.file("slash/"), ""s, folder.file("a\0b"s)})
        EXPECT_FALSE(write(name, "x")) << name;
    EXPECT_EQ(log.reports.size(), 7U);
    EXPECT_EQ(leftovers(1), 0U);
}

TEST_F(Writer, KeepsTheOwnerAndRefusesWhatTheAccountMayNotWrite) {
    constexpr uid_t nobody = 65534;
    std::string const file = folder.write("data", "old");
    bool const root = geteuid() == 0;
    if (root) {
        ASSERT_EQ(chown(file.c_str(), nobody, nobody), 0);
        EXPECT_TRUE(write(file, "new"));
        struct stat status = {};
        ASSERT_EQ(stat(file.c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, nobody);
        EXPECT_EQ(status.st_gid, nobody);
        folder.write("data", "old");
        ASSERT_EQ(chown(folder.path().c_str(), nobody, nobody), 0);
        ASSERT_EQ(seteuid(nobody), 0); // root may write everything
    }
    ASSERT_EQ(chmod(file.c_str(), 0400), 0);
    EXPECT_FALSE(write(file, "new"));
    if (root) {
        ASSERT_EQ(seteuid(0), 0);
    }
    EXPECT_EQ(contentOf(file), "old");
    EXPECT_EQ(leftovers(1), 0U);
}

TEST_F(Writer, WritesPipesAndDevicesInPlace) {
    std::string const pipe = folder.file("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_FALSE(write(pipe, "x")) << "nobody reads";
    std::string read;
    int const reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK);
    std::thread consumer;
    {
        STR::FileIo writer(BAS::String(pipe), std::ios_base::out);
        ASSERT_TRUE(writer.isOpen());
        consumer = std::thread([&] {
            fcntl(reader, F_SETFL, 0);
            char bytes[4096];
            for (ssize_t n = 0; (n = ::read(reader, bytes, sizeof bytes)) > 0;)
                read.append(bytes, static_cast<std::size_t>(n));
        });
        writer.stream() << std::string(300'000, 'p') << std::endl;
        EXPECT_TRUE(writer.closeFile());
    }
    consumer.join();
    close(reader);
    EXPECT_EQ(read.size(), 300'001U);
    EXPECT_TRUE(std::filesystem::is_fifo(pipe));
    EXPECT_TRUE(write("/dev/null", "x"));

    // A reader that goes away is an error, not the end of the process.
    int const leaving = open(pipe.c_str(), O_RDONLY | O_NONBLOCK);
    STR::FileIo broken(BAS::String(pipe), std::ios_base::out);
    ASSERT_TRUE(broken.isOpen());
    close(leaving);
    broken.stream() << "x";
    EXPECT_FALSE(broken.closeFile());
    EXPECT_NE(broken.failure().str().find("Broken pipe"), std::string::npos);

    // By its own name a descriptor is written where it stands, not truncated.
    int const own = open(folder.write("own", "abc").c_str(), O_WRONLY | O_APPEND);
    EXPECT_TRUE(write("/dev/fd/" + std::to_string(own), "def"));
    close(own);
    EXPECT_EQ(contentOf(folder.file("own")), "abcdef");
}

namespace {

[[noreturn]] void sleepsOn(BAS::Thread& self, unsigned milliseconds) {
    for (;;) {
        self.serviceCancellation();
        self.sleep(milliseconds);
    }
}

void isInterrupted(BAS::Thread& self) {
    self.interrupt();
    self.serviceInterrupt();
    self.serviceCancellation();
    FAIL() << "passed a cancellation";
}

void swallowsTheCancellation(BAS::Thread& self) {
    for (int i = 0; i < 3; ++i)
        try {
            sleepsOn(self, 1);
        } catch (...) { // NOLINT(bugprone-empty-catch): what a worker should not do
        }
}

} // namespace

TEST(Thread, StopEndsItWhateverItDoes) {
    struct Case {
        char const* name;
        std::function<void(BAS::Thread&)> body;
    };
    for (Case const& c : {Case{"returns", [](BAS::Thread&) {}},
                          {"throws", [](BAS::Thread&) { throw std::runtime_error("ends the thread only"); }},
                          {"sleeps", [](BAS::Thread& self) { sleepsOn(self, 3'600'000); }},
                          {"is interrupted", isInterrupted},
                          {"swallows the cancellation", swallowsTheCancellation}}) {
        SCOPED_TRACE(c.name);
        BAS::Thread thread(nullptr);
        std::latch started(1);
        std::atomic<bool> ended{false};
        struct AtExit {
            std::atomic<bool>& flag;
            ~AtExit() { flag = true; }
        };
        thread.start([&] {
            AtExit const atExit{ended};
            EXPECT_EQ(BAS::Thread::current(), &thread);
            started.count_down();
            c.body(thread);
        });
        started.wait();
        thread.stop();
        EXPECT_TRUE(ended);
        thread.stop();
    }
    EXPECT_EQ(BAS::Thread::current(), nullptr);
    BAS::Thread const neverStarted(nullptr);
}

TEST(RegisteredObject, NamesAreUniqueAndFreedByDestruction) {
    auto first = std::make_unique<BAS::RegisteredObject>("A");
    BAS::RegisteredObject second("A");
    BAS::RegisteredObject const unnamed("");
    EXPECT_TRUE(first->isRegistered());
    EXPECT_FALSE(second.isRegistered());
    EXPECT_FALSE(unnamed.isRegistered());
    first.reset();
    EXPECT_TRUE(BAS::RegisteredObject("A").isRegistered());
}

TEST(RegisteredObject, RequestsAndMessagesReachTheirReceiver) {
    class Receiver : public BAS::RegisteredObject {
      public:
        Receiver() : BAS::RegisteredObject("receiver") {}
        void receiveMessage(BAS::Message const& message) override { received = message.command(); }
        bool receiveRequest(BAS::Message& request) override {
            request.arguments().append("reply");
            return true;
        }
        BAS::String received;
    } receiver;
    BAS::RegisteredObject const sender("sender");
    BAS::Message request("sender", "receiver", "ASK", "");
    EXPECT_TRUE(sender.sendRequest(request));
    EXPECT_EQ(request.arguments()[0].str(), "reply");
    EXPECT_TRUE(sender.sendMessage(BAS::Message("sender", "receiver", "TELL", "")));
    EXPECT_EQ(receiver.received.str(), "TELL");
    BAS::Message nowhere("sender", "nobody", "ASK", "");
    EXPECT_FALSE(sender.sendRequest(nowhere));
    EXPECT_FALSE(sender.sendMessage(nowhere));
}

TEST(RegisteredObject, UpdatesBooleanFlagsFromTheRegistry) {
    LogCollector log;
    BAS::RegisteredObject object("flags");
    BAS::RegistryEntry update("update");
    update.append(BAS::RegistryEntry("On", "true"));
    update.append(BAS::RegistryEntry("Bad", "yes"));
    BAS::RegistryEntry own("flags");
    own.append(BAS::RegistryEntry("On", "FALSE"));
    bool flag = false;
    BAS::ProtectedBool handled;
    EXPECT_TRUE(object.updateBoolFlag(&update, &own, "Missing", flag, "INF_FLAG", handled));
    EXPECT_FALSE(handled.get() || flag);
    EXPECT_TRUE(object.updateBoolFlag(&update, &own, "On", flag, "INF_FLAG", handled));
    EXPECT_TRUE(handled.get() && flag);
    EXPECT_EQ(own.find("On")->value().str(), "true");
    ASSERT_EQ(log.reports.size(), 1U);
    EXPECT_EQ(log.reports[0].arguments()[0].str(), "flags.On");
    EXPECT_FALSE(object.updateBoolFlag(&update, &own, "Bad", flag, "INF_FLAG", handled));
    EXPECT_TRUE(flag);
}

std::string repeated(std::size_t times, std::string const& text) {
    std::string all;
    while (times-- > 0)
        all += text;
    return all;
}

TEST(ProbeBroker, ReadsDescriptionsAndSaysWhyNot) {
    TemporaryFolder const folder;
    LogCollector log;
    BAS::RegisteredObject object("asker");
    OMF::InstrumentationProbeBrokerIf::installFolder(BAS::String(folder.path().string()));
    folder.write("good", "[a]\ndescription = \"first\"\n[b]\n");
    folder.write("bad", "[a\n");
    OMF::InstrumentationProbeBrokerIf::ProbeInfoMap infos;
    EXPECT_TRUE(OMF::InstrumentationProbeBrokerIf::ReadProbeInfoFile(&object, "good", infos));
    EXPECT_EQ(infos.size(), 2U);
    EXPECT_EQ(infos["a"].description.str(), "first");
    EXPECT_TRUE(log.reports.empty());
    folder.write("deep", "[a]\n" + repeated(100'000, "x.") + "x = 1\n");
    for (auto const& [name, reason] : {std::pair{"bad", "line 1"},
                                       {"missing", "cannot be read"},
                                       {".", "cannot be read"},
                                       {"deep", "16 parts (line 2)"}}) {
        EXPECT_FALSE(OMF::InstrumentationProbeBrokerIf::ReadProbeInfoFile(&object, name, infos)) << name;
        EXPECT_TRUE(infos.empty());
        EXPECT_EQ(log.reports.back().identifier().str(), "ERR_PROBE_FILE");
        EXPECT_NE(log.reports.back().arguments()[1].str().find(reason), std::string::npos) << name;
    }
}

TEST(TomlLimits, KnowKeysFromTextsAndComments) {
    std::string const dots(17, '.');
    std::string const most = repeated(15, "a.") + "a"; // parts of a key
    struct Case {
        std::string text;
        std::size_t line; // that is beyond the limits; 0 for none
    };
    std::vector<Case> const cases = {
        {most + " = 1\n[" + most + "]\n\"a.a\"." + most.substr(2) + " = { " + most + " = 1.5, " + most + " = 2 }", 0},
        {"\n" + most + ".a = 1\n", 2},
        {"[" + most + " . a]\n", 1},
        {"a = { b = 1, " + most + ".'a' = 2 }", 1},
        {"#" + dots + "\n'" + dots + "' = \"" + dots + "\\\"" + dots + "\" # " + dots, 0},
        {"a = \"\"\"" + dots + "\n\\\"\"\"" + dots + "\"\"\"\"\"\nb = ''\nc = '''\n" + dots + "''" + dots + "'''", 0},
        {"a = \"\"\"\n\"\"\"\"\n" + most + ".a = 1", 3},
        {"a = '\\'\n" + most + ".a = 1", 2},
        {"a = " + std::string(32, '[') + std::string(32, ']') + "\nb = [{}]", 0},
        {"a = [\n" + repeated(32, "{ a = ["), 2},
        {std::string(OMF::TomlLimits::mostBytesCM, '\n'), 0},
        {std::string(OMF::TomlLimits::mostBytesCM + 1, '\n'), 1}};
    for (Case const& test : cases) {
        auto const excess = OMF::TomlLimits::excessOf(test.text);
        EXPECT_EQ(excess ? excess->line : 0, test.line) << test.text.substr(0, 200);
    }
}
