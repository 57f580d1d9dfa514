// The program nphost as its users meet it, run as a process of its own; and the texts that it makes of
// hostile bytes.
#include "host/module/Host.h"
#include "host/base/Instant.h"
#include "host/base/JsonWriter.h"
#include "host/base/ProgressLine.h"
#include "host/base/Text.h"
#include "host/cli/Sections.h"
#include "host/config/Configuration.h"
#include "host/daemon/ClientModules.h"
#include "host/log/MessageCatalogue.h"
#include "host/module/Explanation.h"
#include "host/module/LookUpBatch.h"
#include "host/records/ByteSource.h"
#include "tests/LimitedMemory.h"
#include "tests/ProgramRun.h"
#include "tests/SeededRandom.h"
#include "tests/Spawn.h"
#include "tests/TemporaryFolder.h"
#include "tests/Texts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <poll.h>
#include <random>
#include <set>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

std::string const exampleCM = std::string(NP_SOURCE_FOLDER) + "/examples/nphost.toml";
std::string const exampleDataCM = std::string(NP_SOURCE_FOLDER) + "/examples/portability.dat";

using Arguments = std::vector<std::string>;

// A pipe whose ends close with it, and are not inherited by the program but where it is told so.
struct Pipe {
    Pipe() {
        if (pipe2(ends.data(), O_CLOEXEC) != 0)
            throw std::runtime_error("no pipe");
    }
    Pipe(Pipe const&) = delete;
    Pipe& operator=(Pipe const&) = delete;
    ~Pipe() {
        closeEnd(0);
        closeEnd(1);
    }
    void closeEnd(std::size_t end) {
        if (ends[end] >= 0)
            close(ends[end]);
        ends[end] = -1;
    }
    std::array<int, 2> ends{-1, -1};
};

pid_t start(Arguments const& arguments, int in, int out, int err) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
    pid_t const process = spawn(commandOf(arguments), &actions);
    posix_spawn_file_actions_destroy(&actions);
    return process;
}

bool hasEnded(pid_t process) {
    siginfo_t info = {};
    waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOHANG | WNOWAIT);
    return info.si_pid == process;
}

Result run(Arguments const& arguments, std::string const& input = {}) {
    TemporaryFolder const folder;
    int const in = open(folder.write("in", input).c_str(), O_RDONLY | O_CLOEXEC);
    int const out = open(folder.file("out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    int const err = open(folder.file("err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    Result result;
    result.status = waitFor(start(arguments, in, out, err));
    for (int const descriptor : {in, out, err})
        close(descriptor);
    result.out = contentOf(folder.file("out"));
    result.err = contentOf(folder.file("err"));
    return result;
}

std::string dataOf(long numbers) {
    return numberedLines(numbers, "00", 100000000, "  20200101000000  A");
}

void expectOneLine(Result const& result, std::string const& part, std::string const& label) {
    EXPECT_EQ(result.status, 2) << label << "\n" << result.err;
    EXPECT_EQ(result.out, "") << label;
    EXPECT_EQ(lineCount(result.err), 1) << label << "\n" << result.err;
    EXPECT_TRUE(contains(result.err, part)) << label << "\n" << result.err;
}

struct Answer {
    char const* label;
    std::string arguments; // an instant, and what follows it, between bars
    int status;
    char const* out;
    char const* err = "";
};

std::vector<Answer> const answersCM = {
    {"before the first port: the block", "20200101000000|00447700900123", 0,
     "00447700900123\t20200101000000\t20180101000000\tALPHA\n"},
    {"the second before a port", "20210301015959|00447700900123", 0,
     "00447700900123\t20210301015959\t20180101000000\tALPHA\n"},
    {"the very second of a port", "20210301020000|00447700900123", 0,
     "00447700900123\t20210301020000\t20210301020000\tBRAVO\n"},
    {"ISO, after the second port", "2025-01-01T00:00:00Z|00447700900123", 0,
     "00447700900123\t20250101000000\t20240915020000\tCHARLIE\n"},
    {"a port still to come, several numbers in order, one of nobody",
     "2024-06-15 12:00:00|00447700900124|0033|004420794600180", 1,
     "00447700900124\t20240615120000\t20180101000000\tALPHA\n0033\t20240615120000\t-\t-\n"
     "004420794600180\t20240615120000\t20230522020000\tCITYTEL\n"},
    {"before all records", "20171231235959|00447700900123", 1, "00447700900123\t20171231235959\t-\t-\n"},
    {"exact, and the block is not enough", "20240615120000|--method|exact|00447700900199", 1,
     "00447700900199\t20240615120000\t-\t-\n"},
    {"shortest", "20240615120000|--method|shortest|00447700900550", 0,
     "00447700900550\t20240615120000\t20180101000000\tALPHA\n"},
    {"as people write numbers",
     "20240615120000|--normalise|(07700) 900-123|+44 20.7946 0018|00447700900550|+44 (0)7700 900123|"
     "tel:+44(0)7700900123|07700\u00a0900123 ext. 5",
     0,
     "00447700900123\t20240615120000\t20210301020000\tBRAVO\n"
     "00442079460018\t20240615120000\t20230522020000\tCITYTEL\n"
     "00447700900550\t20240615120000\t20230120020000\tALPHA\n"
     "00447700900123\t20240615120000\t20210301020000\tBRAVO\n"
     "00447700900123\t20240615120000\t20210301020000\tBRAVO\n"
     "00447700900123\t20240615120000\t20210301020000\tBRAVO\n"},
    {"ported, back in its block, of the block, of no range, of a prefix before its range",
     "20240615120000|--ported|00447700900123|00447700900550|00447700900111|00447700900|0033", 1,
     "00447700900123\t20240615120000\t20210301020000\tBRAVO\ttrue\n"
     "00447700900550\t20240615120000\t20230120020000\tALPHA\ttrue\n"
     "00447700900111\t20240615120000\t20180101000000\tALPHA\tfalse\n"
     "00447700900\t20240615120000\t20180101000000\tALPHA\t-\n"
     "0033\t20240615120000\t-\t-\t-\n"},
    {"ported, by the shortest prefix", "20240615120000|--ported|--method|shortest|00447700900550|00447700900123", 0,
     "00447700900550\t20240615120000\t20180101000000\tALPHA\t-\n"
     "00447700900123\t20240615120000\t20180101000000\tALPHA\tfalse\n"},
    {"not normalised: national form is not stored form", "20240615120000|07700900123|0033|+0 0", 1,
     "07700900123\t20240615120000\t-\t-\n0033\t20240615120000\t-\t-\n+0 0\t20240615120000\t-\t-\n",
     "nphost: '07700900123' is not in stored form, which begins with the international access code; --normalise takes "
     "numbers as people write them\n"},
};

TEST(HostLookupTest, AnswersFromTheExamples) {
    for (Answer const& test : answersCM) {
        Arguments arguments = {"lookup", "--config", exampleCM, "--at"};
        std::istringstream words(test.arguments);
        for (std::string word; std::getline(words, word, '|');)
            arguments.push_back(word);
        Result const result = run(arguments);
        EXPECT_EQ(result.status, test.status) << test.label;
        EXPECT_EQ(result.out, test.out) << test.label;
        EXPECT_EQ(result.err, test.err) << test.label;
    }
}

std::string const atCM = "20240615120000";
std::string const longNumberCM = "00447700900123" + std::string(300000, '5');

struct Question {
    char const* label;
    std::string line;
    std::string answer;
    char const* complaint; // null for a good line
};

std::vector<Question> const questionsCM = {
    {"number alone", "00447700900123", "00447700900123\t" + atCM + "\t20210301020000\tBRAVO", nullptr},
    {"instant", "00447700900123\t20250101000000", "00447700900123\t20250101000000\t20240915020000\tCHARLIE", nullptr},
    {"ISO instant, CRLF", "00447700900123\t2025-01-01T00:00:00Z\r",
     "00447700900123\t20250101000000\t20240915020000\tCHARLIE", nullptr},
    {"own method wins over --method", "00447700900550\t" + atCM + "\t2",
     "00447700900550\t" + atCM + "\t20180101000000\tALPHA", nullptr},
    {"empty instant and method", "00447700900123\t\t", "00447700900123\t" + atCM + "\t20210301020000\tBRAVO", nullptr},
    {"blanks", " 00447700900123  20250101000000 exact ", "00447700900123\t20250101000000\t20240915020000\tCHARLIE",
     nullptr},
    {"further columns", "00447700900123\t" + atCM + "\t0\tname\t" + std::string(600000, 'x'),
     "00447700900123\t" + atCM + "\t20210301020000\tBRAVO", nullptr},
    {"very long number", longNumberCM, longNumberCM + "\t" + atCM + "\t20210301020000\tBRAVO", nullptr},
    {"nobody's number", "0033", "0033\t" + atCM + "\t-\t-", nullptr},
    {"empty line", "", "\t\t-\t-", ":10: the line is empty"},
    {"CRLF alone", "\r", "\t\t-\t-", ":11: the line is empty"},
    {"no number", "\t" + atCM, "\t" + atCM + "\t-\t-", ":12: there is no number"},
    {"no digit", "hello\t" + atCM, "hello\t" + atCM + "\t-\t-", ":13: there is no number: 'hello'"},
    {"no such day", "0044\t20230229000000", "0044\t20230229000000\t-\t-", ":14: the instant is not valid"},
    {"method out of range", "0044\t" + atCM + "\t3", "0044\t" + atCM + "\t-\t-",
     ":15: the method is not best, exact or shortest, nor 0, 1 or 2: '3'"},
    {"control characters in the complaint", "0044\t\x1b[2J", "0044\t\x1b[2J\t-\t-",
     ":16: the instant is not valid: '\\x1b[2J'"},
    {"blanks, a tab, and an instant in two parts", "00447700900550 \t 2024-06-15 12:00:00\vshortest more",
     "00447700900550\t" + atCM + "\t20180101000000\tALPHA", nullptr},
    {"lined up by tabs", "00447700900123\t\t20250101000000", "00447700900123\t20250101000000\t20240915020000\tCHARLIE",
     nullptr},
    {"a method, and no instant", "00447700900550\t\tshortest", "00447700900550\t" + atCM + "\t20180101000000\tALPHA",
     nullptr},
    {"blanks in a number", "0044 7700 900123", "0044\t7700\t-\t-", ":20: the instant is not valid: '7700'"},
    {"half an instant", "0044 2024-06-15 12:00", "0044\t2024-06-15\t-\t-",
     ":21: the instant is not valid: '2024-06-15'"},
    {"lines that end in carriage returns", "0044\r0045", "0044\r0045\t\t-\t-", ":22: a carriage return is in the line"},
    {"last line without a newline", "00447700900150", "00447700900150\t" + atCM + "\t20220610020000\tDELTA", nullptr},
};

TEST(HostLookupTest, StreamKeepsOrderAndBearsWithEveryLine) {
    std::string input;
    std::string expected;
    long complaints = 0;
    for (Question const& test : questionsCM) {
        input += test.line + (&test == &questionsCM.back() ? "" : "\n");
        expected += test.answer + "\n";
        complaints += test.complaint == nullptr ? 0 : 1;
    }
    Result const result = run({"lookup", "--config", exampleCM, "--at", atCM, "--method", "best", "-"}, input);
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(result.out == expected) << result.out.substr(0, 2000);
    EXPECT_EQ(lineCount(result.err), complaints) << result.err;
    for (Question const& test : questionsCM)
        EXPECT_TRUE(test.complaint == nullptr || contains(result.err, test.complaint)) << test.label << result.err;
}

TEST(HostLookupTest, StreamBoundsItsComplaints) {
    std::string const bad = replaced(std::string(100, 'x'), "x", "?\n");
    Result const complaints = run({"lookup", "--config", exampleCM, "-"}, bad);
    EXPECT_EQ(complaints.status, 1);
    EXPECT_EQ(lineCount(complaints.out), 100);
    EXPECT_EQ(lineCount(complaints.err), 21);
    EXPECT_TRUE(contains(complaints.err, ":1: there is no number: '?'")) << complaints.err;
    EXPECT_TRUE(contains(complaints.err, "80 more"));
    Result const ported = run({"lookup", "--ported", "--config", exampleCM, "-"}, "?\n00447700900123 " + atCM + "\n");
    EXPECT_EQ(ported.out, "?\t\t-\t-\t-\n00447700900123\t" + atCM + "\t20210301020000\tBRAVO\ttrue\n");
    Result const none = run({"lookup", "--config", exampleCM, "-"});
    EXPECT_EQ(none.status, 0);
    EXPECT_EQ(none.out + none.err, "");
}

TEST(HostLookupTest, StreamNormalisesNumbersWithBlanks) {
    Result const spaced =
        run({"lookup", "--normalise", "--config", exampleCM, "--at", "20240615120000", "-"},
            "07700 900 123\n+44 7700 900123 20250101000000 best\n(07700) 900-123 2020-01-01 00:00:00\n"
            "+44 20 7946 0018\t20240615120000 0\n07700 900123 20241345000000\n07700 900123 2024-06-15\n"
            "07700900123 20240615\n07700 900123 best\ntel: 00447700900123 20250101000000\n");
    EXPECT_EQ(spaced.out, "00447700900123\t20240615120000\t20210301020000\tBRAVO\n"
                          "00447700900123\t20250101000000\t20240915020000\tCHARLIE\n"
                          "00447700900123\t20200101000000\t20180101000000\tALPHA\n"
                          "00442079460018\t20240615120000\t20230522020000\tCITYTEL\n"
                          "07700 900123\t20241345000000\t-\t-\n07700 900123\t2024-06-15\t-\t-\n"
                          "07700900123 20240615\t\t-\t-\n07700 900123 best\t\t-\t-\n"
                          "00447700900123\t20250101000000\t20240915020000\tCHARLIE\n");
    EXPECT_TRUE(contains(spaced.err, ":7: the number cannot be read: '07700900123 20240615'")) << spaced.err;
}

TEST(HostLookupTest, StreamOfMoreThanEveryBufferHolds) {
    std::string questions;
    std::string answers;
    for (int i = 0; i < 20000; ++i) { // with numbers that become longer and shorter
        bool const national = i % 3 == 0;
        questions += national ? "(07700) 900-123\t20240615120000\n" : "+44 77 00 90 01 50\t20240615120000\n";
        answers += national ? "00447700900123\t20240615120000\t20210301020000\tBRAVO\n"
                            : "00447700900150\t20240615120000\t20220610020000\tDELTA\n";
    }
    Result const many = run({"lookup", "--normalise", "--config", exampleCM, "-"}, questions);
    EXPECT_EQ(many.status, 0);
    EXPECT_TRUE(many.out == answers);
}

// Answers questions one at a time, in this process.
class SingleAnswers {
  public:
    explicit SingleAnswers(std::string const& configuration)
        : hostM(nphost::readConfiguration(configuration, nphost::sectionsCM), {configuration}) {
        hostM.start();
    }
    std::string answer(std::string const& number, std::string const& at, std::optional<unsigned int> method) {
        BAS::DateTime const instant(at.c_str());
        DAT::NumberPortability::NumberPortabilityData record;
        bool const found = method ? hostM.plugIn().search(BAS::String(number), instant, record, *method)
                                  : hostM.plugIn().search(BAS::String(number), instant, record);
        std::ostringstream line;
        line << number << '\t' << at << '\t';
        (found ? line << record.validFromM << '\t' << record.networkIdM : line << "-\t-") << '\n';
        return line.str();
    }

  private:
    nphost::Host hostM;
};

// Prefixes of every length below one another, with networks of every kind of storage, no two from the same instant.
std::string nestedPrefixes(std::mt19937& random) {
    std::ostringstream data;
    for (std::uint64_t i = 0; i < 3000; ++i) {
        auto const validFrom = BAS::DateTime::fromSeconds(BAS::DateTime("20100101000000").seconds() + i * 150000);
        std::string const network(1 + random() % 20, static_cast<char>('A' + random() % 26));
        data << "00" << std::to_string(random()).substr(0, 1 + random() % 5) << ' ' << validFrom << ' ' << network
             << '\n';
    }
    return data.str();
}

// Batches of every length: cut by their own size, by a change of method, by bad lines, by long numbers and by the
// blocks in which the input is read.
TEST(HostLookupTest, StreamAgreesWithSingleLookUps) {
    SeededRandom random;
    ConfiguredFolder const site(nestedPrefixes(random), "SearchMethod = 2\n");
    SingleAnswers single(site.configuration);
    std::string questions;
    std::string answers;
    unsigned long lines = 0;
    std::string firstComplaint;
    while (lines < 30000) {
        auto const methodColumn = static_cast<unsigned>(random() % 4); // 3: none, so the configured one
        auto const runLength = 1 + random() % (random() % 4 == 0 ? 800 : 5);
        for (unsigned i = 0; i < runLength; ++i, ++lines) {
            std::string number = "00" + std::to_string(random());
            if (random() % 3000 == 0)
                number.append(random() % 3000, '7');
            std::string const at = std::to_string(2008 + random() % 20) + "0615120000";
            bool const bad = random() % 500 == 0;
            std::string const method = methodColumn == 3 ? "" : std::to_string(methodColumn);
            questions.append(number).append("\t").append(at).append("\t").append(method).append(bad ? "x\n" : "\n");
            if (bad)
                answers.append(number).append("\t").append(at).append("\t-\t-\n");
            else
                answers += single.answer(number, at, methodColumn == 3 ? std::nullopt : std::optional(methodColumn));
            if (bad && firstComplaint.empty())
                firstComplaint = "standard input:" + std::to_string(lines + 1) + ": ";
        }
    }
    Result const result = run({"lookup", "--config", site.configuration, "-"}, questions);
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(contains(result.err, firstComplaint)) << firstComplaint << result.err.substr(0, 2000);
    std::istringstream actual(result.out);
    std::istringstream expected(answers);
    std::string actualLine;
    for (std::string line; std::getline(expected, line);) {
        ASSERT_TRUE(std::getline(actual, actualLine));
        ASSERT_EQ(actualLine, line);
    }
    EXPECT_FALSE(std::getline(actual, actualLine)) << actualLine;
}

TEST(HostLookupTest, AnswersACoprocessBeforeItAsksAgain) {
    Pipe questions;
    Pipe answers;
    pid_t const process = start({"lookup", "--config", exampleCM, "--at", "20240615120000", "-"}, questions.ends[0],
                                answers.ends[1], STDERR_FILENO);
    questions.closeEnd(0);
    answers.closeEnd(1);
    for (std::string const question :
         {"00447700900123\n", "00447700900150\n0044770", "0900124\n", "00447700900150\t\t1\n"}) {
        ASSERT_EQ(write(questions.ends[1], question.data(), question.size()), static_cast<ssize_t>(question.size()));
        pollfd ready = {answers.ends[0], POLLIN, 0};
        ASSERT_EQ(poll(&ready, 1, 20000), 1) << "no answer to " << question;
        std::array<char, 256> answer{};
        ssize_t const length = read(answers.ends[0], answer.data(), answer.size());
        ASSERT_GT(length, 0);
        EXPECT_EQ(std::count(answer.begin(), answer.begin() + length, '\n'), 1);
    }
    questions.closeEnd(1);
    EXPECT_EQ(waitFor(process), 0);
}

bool isAsleep(pid_t process) {
    return contains(contentOf("/proc/" + std::to_string(process) + "/status"), "State:\tS");
}

std::string readAll(int descriptor) {
    std::string all;
    std::array<char, 5000> piece{};
    for (ssize_t length = 1; length > 0; all.append(piece.data(), static_cast<std::size_t>(length)))
        length = std::max<ssize_t>(0, read(descriptor, piece.data(), piece.size()));
    return all;
}

// The first answer needs no memory, the second does. Refused once, each is looked up by itself.
TEST(LookUpBatchTest, WhatIsNotLookedUpIsNotNotFound) {
    ConfiguredFolder const site("00441 20200101000000 A\n00442 20200101000000 " + std::string(100, 'N') + "\n");
    nphost::Host host(nphost::readConfiguration(site.configuration, nphost::sectionsCM), {site.configuration});
    host.start();
    nphost::LookUpBatch batch(host.plugIn(), 2);
    batch.describe({}); // takes the memory for details
    for (char const* const number : {"00441", "00442"}) {
        batch.nextNumber() = number;
        batch.add(BAS::DateTime("20240101000000"));
    }
    auto const answers = [&](bool once, auto&& ask) {
        bool answered = true;
        refusesOne = once;
        allowed = 0;
        try {
            ask();
        } catch (std::bad_alloc const&) {
            answered = false;
        }
        EXPECT_EQ(std::exchange(allowed, -1) < 0, once) << "one was refused";
        EXPECT_EQ(answered, once);
        return answered;
    };
    for (bool const once : {false, true}) {
        bool const searched = answers(once, [&] { batch.search({}); });
        EXPECT_TRUE(!searched || (batch.record(0) != nullptr && batch.record(1) != nullptr));
        bool const described = answers(once, [&] { batch.describe({}); });
        EXPECT_TRUE(!described || (batch.detail(0).found() && batch.detail(1).found()));
    }
}

namespace {

using Detail = DAT::NumberPortability::LookUpDetail;

// What the stored prefixes of a number, looked at one by one, say a look-up should tell.
void expectDetail(Detail const& detail, nphost::Explanation::Prefixes const& prefixes, std::string const& number,
                  BAS::DateTime at, unsigned int method) {
    nphost::Explanation const explanation(prefixes, BAS::String(number));
    auto const choice = explanation.choose(method, at);
    ASSERT_EQ(detail.found(), choice.record != nullptr);
    if (detail.found()) {
        EXPECT_EQ(detail.prefixDigits, choice.prefix->key.length());
        EXPECT_EQ(detail.record.validFromM, choice.record->validFromM);
        EXPECT_EQ(detail.record.networkIdM, choice.record->networkIdM);
    }
    auto const change = explanation.nextChange(method, at);
    EXPECT_EQ(detail.nextChange, change ? change->at : BAS::DateTime());
    nphost::Explanation::Prefixes shorter = prefixes;
    std::erase_if(shorter, [&](auto const& prefix) { return prefix.key.length() == number.length(); });
    auto const range = nphost::Explanation(shorter, BAS::String(number)).choose(0, at);
    ASSERT_EQ(detail.hasRange(), range.record != nullptr);
    auto const rangeChange = nphost::Explanation(shorter, BAS::String(number)).nextChange(0, at);
    EXPECT_EQ(detail.rangeChange, rangeChange ? rangeChange->at : BAS::DateTime());
    std::optional<bool> ported;
    if (detail.hasRange()) {
        EXPECT_EQ(detail.rangeDigits, range.prefix->key.length());
        EXPECT_EQ(detail.range.validFromM, range.record->validFromM);
        EXPECT_EQ(detail.range.networkIdM, range.record->networkIdM);
        if (detail.found() && detail.prefixDigits >= detail.rangeDigits)
            ported = detail.record.networkIdM.view() != range.record->networkIdM.view();
    }
    EXPECT_EQ(detail.ported(), ported);
    EXPECT_EQ(explanation.ported(method, at), ported);
}

} // namespace

// Numbers and blocks within one another, with short and long networks and histories; more of them than share a lock, and
// some too long for the walk of many at once.
TEST(LookUpBatchTest, DescribesWhatTheStoredPrefixesSay) {
    SeededRandom random;
    auto const below = [&](unsigned limit) { return static_cast<unsigned>(random() % limit); };
    auto const number = [&] {
        std::string text = std::string("0044171234567890123456789").substr(0, 4 + below(20));
        for (unsigned more = below(3); more > 0; --more)
            text += static_cast<char>('0' + below(4));
        return text;
    };
    auto const instant = [&] { return BAS::DateTime("20200101000000").seconds() + below(400); };
    std::set<std::pair<std::string, std::uint64_t>> records;
    while (records.size() < 1500)
        records.emplace(number(), instant());
    for (unsigned i = 0; i < 3000; ++i) // most of 400
        records.emplace("0044171", instant());
    std::string lines;
    for (auto const& [key, validFrom] : records)
        lines += key + " " + nphost::digitsOf(BAS::DateTime::fromSeconds(validFrom)) +
                 (below(3) == 0 ? " A-LONG-NETWORK-" : " N") + std::to_string(below(3)) + "\n";
    ConfiguredFolder const site(lines);
    nphost::Host host(nphost::readConfiguration(site.configuration, nphost::sectionsCM), {site.configuration});
    host.start();
    nphost::LookUpBatch batch(host.plugIn(), 600);
    std::map<std::string, int> seen; // that each kind of answer is there
    for (std::optional<unsigned int> const method : {std::optional<unsigned int>(), {0U}, {1U}, {2U}, {3U}}) {
        while (!batch.isFull()) {
            batch.nextNumber() = number();
            batch.add(BAS::DateTime::fromSeconds(instant()));
        }
        batch.describe(method);
        for (std::size_t i = 0; i < batch.size() && !testing::Test::HasFailure(); ++i) {
            SCOPED_TRACE(batch.number(i).str() + " by " + std::to_string(method.value_or(9)));
            Detail const& detail = batch.detail(i);
            expectDetail(detail, host.plugIn().explain(batch.number(i)), batch.number(i).str(), batch.instant(i),
                         method.value_or(0));
            ++seen[!detail.found() ? "nothing" : !detail.ported() ? "unknown" : *detail.ported() ? "ported" : "home"];
        }
        batch.clear();
    }
    EXPECT_EQ(seen.size(), 4U);
}

// Whoever started the program may have made its pipes non-blocking. Nothing is written before it waits, and nothing
// read before its output is full.
TEST(HostPipeTest, NonBlockingPipesAreWaitedFor) {
    ConfiguredFolder const site(dataOf(3000));
    std::string const questions = numberedLines(3000, "00", 100000000, "\t20240615120000");
    std::string const records = numberedLines(3000, "00", 100000000, ",20240615120000,A");
    auto* const before = std::signal(SIGPIPE, SIG_IGN); // a program that ends early is an error of this test
    for (auto const& [arguments, input] :
         {std::pair(Arguments{"lookup", "--config", site.configuration, "-"}, questions),
          std::pair(Arguments{"enrich", "--config", site.configuration, "--no-header", "--number", "1", "--time", "2"},
                    records),
          std::pair(Arguments{"import", "--no-header", "--map", "number=1,valid-from=2,network=3", "-"}, records),
          std::pair(Arguments{"print", "--no-heading", "--config", site.configuration}, std::string())}) {
        Pipe in;
        Pipe out;
        Pipe err;
        for (int const end : {in.ends[0], out.ends[1], err.ends[1]})
            fcntl(end, F_SETFL, O_NONBLOCK);
        pid_t const process = start(arguments, in.ends[0], out.ends[1], err.ends[1]);
        in.closeEnd(0);
        err.closeEnd(1);
        while (!input.empty() && !hasEnded(process) && !isAsleep(process)) {
        }
        std::thread asker([&in, &text = input] {
            EXPECT_EQ(write(in.ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
            in.closeEnd(1);
        });
        pollfd room = {out.ends[1], POLLOUT, 0};
        while (!hasEnded(process) && poll(&room, 1, 0) == 1) {
        }
        out.closeEnd(1);
        EXPECT_EQ(lineCount(readAll(out.ends[0])), 3000) << arguments[0];
        asker.join();
        EXPECT_EQ(waitFor(process), 0) << arguments[0] << readAll(err.ends[0]);
    }
    std::signal(SIGPIPE, before);
}

TEST(HostPipeTest, AClosedStandardOutputEndsEveryCommandAlike) {
    TemporaryFolder const folder;
    ConfiguredFolder const site(dataOf(20000));
    std::string const none = folder.write("none.dat", "");
    int const in = open(site.data.c_str(), O_RDONLY | O_CLOEXEC);
    for (Arguments arguments :
         {Arguments{"lookup", "-"}, Arguments{"print"}, Arguments{"diff", "--list", "gained", none, site.data},
          Arguments{"check", site.data}, Arguments{"print", "--help"}}) {
        arguments.insert(arguments.begin() + 1, {"--config", site.configuration});
        Pipe out;
        out.closeEnd(0);
        auto* const before = std::signal(SIGPIPE, SIG_IGN); // what the program inherits
        lseek(in, 0, SEEK_SET);
        EXPECT_EQ(waitFor(start(arguments, in, out.ends[1], STDERR_FILENO)), -SIGPIPE) << arguments[0];
        std::signal(SIGPIPE, before);
    }
    close(in);
}

TEST(HostLookupTest, ShowsRejectedLinesOfALoadUpToALimit) {
    std::string data = "00441  20200101000000  A\n";
    ConfiguredFolder const few(data + "forged\x1b[31m\n2026-01-01T00:00:00Z\n");
    Result const shown = run({"lookup", "--config", few.configuration, "00441"});
    EXPECT_EQ(shown.status, 0) << shown.err;
    EXPECT_EQ(lineCount(shown.err), 2) << "each once, although two trees reject it\n" << shown.err;
    EXPECT_TRUE(contains(shown.err, "ERR_NUMBER_OF_FIELDS_IN_RECORD \"1\" \"3\" \"forged\\x1b[31m\" \"At Line# 2 in"));
    EXPECT_TRUE(contains(shown.err, "Number of fields: 1 instead of 3."));

    for (int i = 0; i < 30; ++i)
        data.append(5000, 'x') += '\n';
    ConfiguredFolder const many(data);
    Result const bounded = run({"lookup", "--config", many.configuration, "00441"});
    EXPECT_EQ(bounded.status, 0);
    EXPECT_EQ(lineCount(bounded.err), 21);
    EXPECT_TRUE(contains(bounded.err, "nphost: 10 more rejected lines are not shown"));
    EXPECT_TRUE(contains(bounded.err, "... (5000 bytes)"));
    EXPECT_LT(bounded.err.size(), 20000U);

    Result const verbose = run({"lookup", "--verbose", "--config", many.configuration, "00441"});
    EXPECT_EQ(lineCount(verbose.err), 60 + 5) << "every report, and those of a load that went well";
    EXPECT_TRUE(contains(verbose.err, " NORMAL INF_NUM_NPORT_LOADED \"1\" : 1 records are loaded"));
}

std::string const badDataCM = "00441  20200101000000  A\n"
                              "00441  20200101000000  B\n"     // 2: duplicate
                              "00442  20200101000000\n"        // 3: fields
                              "00443  20200230000000  A\n"     // 4: date
                              "+  20200101000000  A\n"         // 5: a sign alone is stored as 00, so it is none
                              "0044\xff\xfe 5  x  A  B\n"      // 6: fields, no UTF-8
                              "00449  20210101000000  N\xff\n" // 7: a record
                              "\n";                            // 8: fields

TEST(HostCheckTest, CountsEachLineOnce) {
    // Without an international access code a bare sign names no number, so that every kind of line is there.
    std::string data = badDataCM;
    data += std::string("00446  20200101000000  A\0B\n", 27); // 9: NUL in the network
    ConfiguredFolder const setup(data, "InternationalAccessCode = \"\"\n");
    std::filesystem::remove(setup.data);
    std::string const file = setup.folder.write("other.dat", data);

    Result const text = run({"check", "--config", setup.configuration, file});
    EXPECT_EQ(text.status, 1) << text.err;
    EXPECT_EQ(text.err, "");
    EXPECT_TRUE(contains(text.out, "line 2: ERR_DUPLICATE_NUMPORTDATA: "));
    EXPECT_TRUE(contains(text.out, "line 3: ERR_NUMBER_OF_FIELDS_IN_RECORD: Number of fields: 2 instead of 3.\n"
                                   "    00442  20200101000000\n"));
    EXPECT_FALSE(contains(text.out, "line 6")) << "only the first of a kind\n" << text.out;

    Result const all = run({"check", "--all", "--config", setup.configuration, file});
    for (char const* const line : {"line 2:", "line 3:", "line 4:", "line 5:", "line 6:", "line 8:", "line 9:"})
        EXPECT_TRUE(contains(all.out, line)) << line << "\n" << all.out;
    EXPECT_TRUE(contains(all.out, "    0044\\xff\\xfe 5  x  A  B\n")) << all.out;

    Result const json = run({"check", "--json", "--all", "--config", setup.configuration, file});
    EXPECT_EQ(json.status, 1);
    for (char const* const part :
         {"\"lines\":9", "\"records\":2", "\"numbers\":2", "\"rejectedFields\":3", "\"rejectedDateTimes\":1",
          "\"rejectedNumbers\":1", "\"rejectedNetworks\":1", "\"duplicates\":1", "\"earliest\":\"20200101000000\"",
          "\"latest\":\"20210101000000\"", "\"networks\":{\"A\":1,\"N\xEF\xBF\xBD\":1}",
          "\"identifier\":\"ERR_INVALID_NUMBER\",\"line\":5", "\"identifier\":\"ERR_INVALID_NETWORK_ID\",\"line\":9"})
        EXPECT_TRUE(contains(json.out, part)) << part << "\n" << json.out;
    EXPECT_FALSE(contains(json.out, "\xff"));
}

TEST(HostCheckTest, HoldsTheTableOfNetworksAgainstTheFile) {
    ConfiguredFolder const site("00441 20200101000000 A\n00442 20200101000000 B\n00443 20200101000000 C\n");
    site.folder.write("with.toml", contentOf(site.configuration) + "[host]\nnetworks = \"networks.toml\"\n");
    site.folder.write("networks.toml", "[B]\nname = 'Bee'\n[D]\n");
    struct Case {
        char const* arguments;
        int status;
        char const* part;
    };
    auto const expect = [&site](Case const& test) {
        Result const result = runShell(site.folder, std::string("nphost check --config ") + test.arguments);
        EXPECT_EQ(result.status, test.status) << test.arguments << result.err;
        EXPECT_TRUE(contains(result.out + result.err, test.part)) << test.arguments << "\n" << result.out << result.err;
    };
    for (Case const& test :
         {Case{"with.toml --networks", 0, "Networks in the table:       2\n"},
          Case{"with.toml --networks --json", 0, "{\"networkTable\":{\"count\":2,\"file\":\"networks.toml\"}}\n"},
          Case{"with.toml --networks data.dat", 0,
               "Networks in the table:       2\n  not in it:                 2\n    A\n    C\n"
               "  without records:           1\n    D\n"},
          Case{"with.toml --networks --json data.dat", 0,
               "\"file\":\"networks.toml\",\"lacking\":[\"A\",\"C\"],\"unused\":[\"D\"]},\"networks\":{\"A\":1"},
          Case{"nphost.toml --networks", 2, "nphost.toml: there is no key 'networks' in [host]"},
          Case{"with.toml", 2, "FILE is required"}, Case{"with.toml --networks --all", 2, "FILE is required"}})
        expect(test);
    site.folder.write("networks.toml", "[B]\nname = 5\n");
    expect({"with.toml --networks data.dat", 2, "networks.toml:2: 'name' must be a text"});
    expect({"with.toml data.dat", 0, "Records by network:"});
}

TEST(HostCheckTest, CleanEmptyAndUnreadable) {
    ConfiguredFolder const setup("");
    Result const clean = run({"check", "--config", exampleCM, exampleDataCM});
    EXPECT_EQ(clean.status, 0) << clean.err;
    EXPECT_FALSE(contains(clean.out, "line "));
    Result const empty = run({"check", "--json", "--config", setup.configuration, setup.data});
    EXPECT_EQ(empty.status, 0);
    EXPECT_TRUE(contains(empty.out, "\"earliest\":null,\"latest\":null,\"lines\":0,\"networks\":{}")) << empty.out;
    std::string const marked = setup.folder.write("marked.dat", "\xef\xbb\xbf"
                                                                "00441  20200101000000  A\n");
    Result const mark = run({"check", "--json", "--config", setup.configuration, marked});
    EXPECT_TRUE(mark.status == 0 && contains(mark.err, "begins with a byte order mark")) << mark.err;
    Result const listed = run({"check", "--json", "--all", "--config", setup.configuration, setup.data});
    EXPECT_TRUE(listed.out.starts_with("{\"rejects\":[],")) << listed.out;
    expectOneLine(run({"check", "--config", setup.configuration, setup.folder.file("none.dat")}), "none.dat",
                  "no such file");
    expectOneLine(run({"check", "--config", setup.configuration, "/"}), "/ cannot be opened", "a folder");
}

TEST(HostPrintTest, ListingLoadsAgainToTheSameListing) {
    Result const plain = run({"print", "--no-heading", "--config", exampleCM});
    EXPECT_EQ(plain.status, 0) << plain.err;
    EXPECT_EQ(lineCount(plain.out), lineCount(contentOf(exampleDataCM)));
    EXPECT_TRUE(
        contains(plain.out, "\n00447700900123  20240915020000  CHARLIE\n00447700900123  20210301020000  BRAVO\n"));
    ConfiguredFolder const again(plain.out);
    std::string const output = again.folder.file("listing");
    Result const second = run({"print", "--no-heading", "--output", output, "--config", again.configuration});
    EXPECT_EQ(second.status, 0) << second.err;
    EXPECT_EQ(second.out, "");
    EXPECT_EQ(contentOf(output), plain.out);
    ConfiguredFolder const none("");
    for (std::string const suffix : {".gz", ".zst"})
        for (ConfiguredFolder const* const site : {&again, &none}) {
            std::string const file = site->folder.file("listing") + suffix;
            EXPECT_EQ(run({"print", "--no-heading", "-o", file, "-c", site->configuration}).status, 0);
            EXPECT_NE(contentOf(file).substr(0, 2), "00") << suffix;
            std::array<char, 65536> text;
            EXPECT_EQ(std::string(text.data(), nphost::ByteSource(file).read(text)), site == &again ? plain.out : "");
        }
    Result const heading = run({"print", "--config", again.configuration});
    EXPECT_EQ(lineCount(heading.out), lineCount(plain.out) + 3);
    EXPECT_TRUE(heading.out.ends_with("-\n" + plain.out));
}

TEST(HostPrintTest, RefusesAnOutputThatCannotBeOrMustNotBe) {
    ConfiguredFolder const setup("00441  20200101000000  A\n");
    std::string const hardLink = setup.folder.file("hard");
    std::string const symbolicLink = setup.folder.file("soft");
    std::filesystem::create_hard_link(setup.data, hardLink);
    std::filesystem::create_symlink("data.dat", symbolicLink);
    std::string const pipe = setup.folder.file("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    std::string const before = contentOf(setup.data);
    struct Case {
        std::string output;
        char const* reason;
    };
    for (Case const& test :
         {Case{setup.data, "data file itself"}, Case{hardLink, "data file itself"},
          Case{symbolicLink, "data file itself"}, Case{setup.folder.file("none/listing"), "No such file or directory"},
          Case{"/dev/full", "No space left on device"}, Case{"/", "Is a directory"},
          Case{pipe, "the pipe has no reader"}, Case{"", "--output: the name is empty"}})
        expectOneLine(run({"print", "--output", test.output, "--config", setup.configuration}), test.reason,
                      test.output);
    EXPECT_EQ(contentOf(setup.data), before);
}

TEST(HostPrintTest, ASignalLeavesNoFile) {
    ConfiguredFolder const site(dataOf(100000));
    auto const files = [&site] {
        std::filesystem::directory_iterator const all(site.folder.path());
        return std::distance(begin(all), end(all));
    };
    Arguments const arguments = {"print", "--output", site.folder.file("listing"), "--config", site.configuration};
    rlimit const noCore = {};
    setrlimit(RLIMIT_CORE, &noCore);
    for (int const signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        int status = 0;
        for (int tries = 0; status == 0 && tries < 50; ++tries) { // it may have ended before the signal
            std::filesystem::remove(site.folder.file("listing"));
            pid_t const process = start(arguments, STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO);
            while (files() == 2 && !hasEnded(process)) {
            }
            kill(process, signal);
            status = waitFor(process);
        }
        EXPECT_EQ(status, -signal);
        EXPECT_EQ(files(), 2) << "data and configuration";
    }
}

TEST(HostPrintTest, FullDeviceIsAnErrorForEveryCommand) {
    int const full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    TemporaryFolder const folder;
    int const in = open(folder.write("in", "00447700900123\n").c_str(), O_RDONLY | O_CLOEXEC);
    for (Arguments const& command : {Arguments{"lookup", "0044"}, Arguments{"lookup", "-"}, Arguments{"print"},
                                     Arguments{"check", exampleDataCM}, Arguments{"lookup", "--help"}}) {
        Arguments arguments = command;
        arguments.insert(arguments.begin() + 1, {"--config", exampleCM});
        int const err = open(folder.file("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        EXPECT_EQ(waitFor(start(arguments, in, full, err)), 2) << command[0];
        close(err);
        EXPECT_TRUE(contains(contentOf(folder.file("err")), "No space left on device")) << command[0];
    }
    close(in);
    close(full);
}

std::string deepKey() {
    std::string key;
    for (unsigned part = 0; part < 50'000; ++part)
        key += "a.";
    return key + "a = 1\n";
}

struct Misconfigured {
    char const* label;
    std::string content;
    char const* reason;
};

std::vector<Misconfigured> const misconfiguredCM = {
    {"unknown key", configurationCM + "Countrycode = \"44\"\n",
     "bad.toml:5: unknown key 'Countrycode' in [DAT_NumberPortability]"},
    {"a run-time key", configurationCM + "Reload = \"TRUE\"\n", "bad.toml:5: unknown key 'Reload'"},
    {"unknown table", configurationCM + "[hosts]\n", "bad.toml:5: unknown table 'hosts'"},
    {"key outside a table", "x = 1\n" + configurationCM, "bad.toml:1: unknown key 'x'"},
    {"unknown key of the host", configurationCM + "[host]\nport = 1\n", "bad.toml:6: unknown key 'port' in [host]"},
    {"an array of tables", "[[DAT_NumberPortability]]\n", "bad.toml:1: 'DAT_NumberPortability' must be a table"},
    {"a code without quotation marks", configurationCM + "InternationalAccessCode = 11\n",
     "bad.toml:5: 'InternationalAccessCode' must be quoted"},
    {"wrong type", configurationCM + "SearchMethod = [0]\n", "bad.toml:5: 'SearchMethod' must be a text"},
    {"a number for a path", configurationCM + "[host]\nmessages = 1\n", "bad.toml:6: 'messages' must be a text"},
    {"clients that are no list", configurationCM + "[host]\nclients = \"c.so\"\n",
     "bad.toml:6: 'clients' must be a list"},
    {"a client that is no text", configurationCM + "[host]\nclients = [\"c.so\",\n1]\n",
     "bad.toml:7: each of 'clients' must be a text"},
    {"an empty path", "[DAT_NumberPortability]\nFileName = \"\"\n", "bad.toml:2: 'FileName' must name a file"},
    {"no TOML", configurationCM + "what is this\n", "bad.toml:5: "},
    {"a key of too many parts", configurationCM + "[host]\n" + deepKey(), "bad.toml:6: a key has more than 16 parts"},
    {"a key of too many parts in the catalogue", configurationCM + "[host]\nmessages = \"deep.toml\"\n",
     "deep.toml:1: a key has more than 16 parts"},
    {"too large", configurationCM + std::string(2'000'000, '\n'), "bad.toml:1: the file is larger than 1048576 bytes"},
    {"no UTF-8", configurationCM + "# \xff\n", "bad.toml:5: "},
    {"a key twice", configurationCM + "CountryCode = \"44\"\n", "bad.toml:5: "},
    {"a forged key", configurationCM + "\"a\\nb\\u001b\" = 1\n", "unknown key 'a\\nb\\x1b'"},
    {"mandatory key missing", "[DAT_NumberPortability]\nFileName = \"data.dat\"\n",
     "DAT_NumberPortability.CountryCode is missing (ERR_REG_NAME_NOT_FOUND)"},
    {"no table", "", "no table [DAT_NumberPortability] (ERR_REG_SUBTREE_NOT_FOUND)"},
    {"method that is no number", configurationCM + "SearchMethod = \"x1\"\n", "'x1' (ERR_REG_VALUE_INVALID)"},
    {"negative method", configurationCM + "SearchMethod = -1\n", "'-1' (ERR_REG_VALUE_INVALID)"},
    {"no data file",
     "[DAT_NumberPortability]\nFileName = \"none.dat\"\nCountryCode = \"44\"\nNationalAccessCode = \"0\"\n",
     "none.dat cannot be opened"},
    {"no module", configurationCM + "[host]\nmodule = \"./none.so\"\n", "none.so"},
    {"a module by a name that is nowhere", configurationCM + "[host]\nmodule = \"np-none.so\"\n", "np-none.so"},
    {"no module but a text", configurationCM + "[host]\nmodule = \"./data.dat\"\n", "the module cannot be loaded: "},
    {"another library", configurationCM + "[host]\nmodule = \"" NP_LIBRARY_FOLDER "/libnpframework.so\"\n",
     "does not fit this host: it has no NumberPortabilityOperations"},
    {"another version", configurationCM + "[host]\nmodule = \"" NP_OTHER_MODULES "version.so\"\n",
     "does not fit this host: it is of version "},
    {"other sizes", configurationCM + "[host]\nmodule = \"" NP_OTHER_MODULES "sizes.so\"\n",
     "does not fit this host: its objects have other sizes"},
    {"no zone", configurationCM + "[host]\ndataZone = \"Europe/Londno\"\n",
     "bad.toml:6: 'dataZone': there is no time zone 'Europe/Londno'"},
    {"no catalogue", configurationCM + "[host]\nmessages = \"none.toml\"\n", "none.toml: cannot be read: No such file"},
    {"a catalogue of numbers", configurationCM + "[host]\nmessages = \"numbers.toml\"\n",
     "numbers.toml:1: 'A' must be a text"},
    {"no probes", configurationCM + "[host]\nprobeFolder = \".\"\n", "(ERR_PROBE_FILE)"},
};

TEST(HostConfigurationTest, ErrorsAreOneLineThatNamesThePlace) {
    ConfiguredFolder const setup("00441  20200101000000  A\n");
    setup.folder.write("numbers.toml", "A = 1\n");
    setup.folder.write("deep.toml", deepKey());
    for (Misconfigured const& test : misconfiguredCM)
        expectOneLine(run({"lookup", "--config", setup.folder.write("bad.toml", test.content), "00441"}), test.reason,
                      test.label);
    expectOneLine(run({"lookup", "--config", setup.folder.file("none.toml"), "00441"}),
                  "none.toml: cannot be read: No such file or directory", "no such file");
    expectOneLine(run({"lookup", "--config", setup.folder.path().string(), "00441"}), "Is a directory", "a folder");
}

// Of the records one is in force already where clocks are 14 hours ahead of UTC, and is to come elsewhere.
TEST(HostZoneTest, EveryCommandGoesByTheDatasClock) {
    std::string const soon = nphost::digitsOf(BAS::DateTime::fromSeconds(BAS::DateTime::now().seconds() + 7UL * 3600));
    ConfiguredFolder const site("00441 20200101000000 OLD\n00441 " + soon + " NEW\n");
    site.folder.write("old.dat", "00441 20200101000000 OLD\n");
    site.folder.write("ahead.toml", contentOf(site.configuration) + "[host]\ndataZone = \"Pacific/Kiritimati\"\n");
    site.folder.write("times.csv", "n,t,o\n00441,2020-06-01T10:00:00Z,OP\n");
    struct Case {
        std::string command;
        std::string ahead; // what it writes there
        std::string utc = {};
    };
    std::string const found = "\t20200101000000\tOLD\n";
    std::string const upcoming = soon + "\t00441\tOLD\tNEW\n";
    auto const bothAt = [](char const* first, char const* second) {
        return std::string("00441\t")
            .append(first)
            .append("\t20200101000000\tOLD\n00441\t")
            .append(second)
            .append("\t20200101000000\tOLD\n");
    };
    for (Case const& test :
         {Case{"lookup CONFIG 00441 | cut -f 4", "NEW\n", "OLD\n"},
          Case{"lookup CONFIG --at 2020-06-01T10:00:00Z 00441", "00441\t20200602000000" + found,
               "00441\t20200601100000" + found},
          Case{"lookup CONFIG --at 20200601100000 00441", "00441\t20200601100000" + found,
               "00441\t20200601100000" + found},
          Case{"lookup CONFIG - <questions", bothAt("20200602000000", "20200602020000"),
               bothAt("20200601100000", "20200601120000")},
          Case{"upcoming CONFIG", "", upcoming},
          Case{"upcoming CONFIG --from 2019-12-31T09:59:59Z --until 2019-12-31T10:00:00Z",
               "20200101000000\t00441\t-\tOLD\n"},
          Case{"diff CONFIG --list moved old.dat data.dat | grep NEW | wc -l", "1\n", "0\n"},
          Case{"diff CONFIG --json --at 2020-06-01T10:00:00Z old.dat old.dat | grep -o '\"at\":\"[0-9]*'",
               "\"at\":\"20200602000000\n", "\"at\":\"20200601100000\n"},
          Case{"import CONFIG --map number=n,valid-from=t,network=o --time-format iso times.csv",
               "00441  20200602000000  OP\n", "00441  20200601100000  OP\n"},
          Case{"import CONFIG --map number=n,valid-from=t,network=o --time-format iso --zone Europe/Paris times.csv",
               "00441  20200601120000  OP\n", "00441  20200601120000  OP\n"},
          Case{"enrich CONFIG --number n --time t --time-format iso later.csv | grep -c NEW", "1\n", "0\n"}}) {
        site.folder.write("questions", "00441 2020-06-01 10:00:00Z best\n00441 2020-06-01T10:00:00-02:00\n");
        std::string const iso = soon.substr(0, 8) + "T" + soon.substr(8);
        site.folder.write("later.csv", "n,t\n00441," + iso + "+13:59\n");
        for (bool const ahead : {true, false}) {
            std::string const file = ahead ? "ahead.toml" : site.configuration;
            Result const result =
                runShell(site.folder, "nphost " + replaced(test.command, "CONFIG", "--config " + file));
            EXPECT_EQ(result.out, ahead ? test.ahead : test.utc) << test.command << "\n" << result.err;
        }
    }
}

TEST(HostConfigurationTest, PathsAreTakenFromTheFilesFolder) {
    nphost::Configuration const read =
        nphost::parseConfiguration("[DAT_NumberPortability]\nFileName = 'data/x.dat'\nSearchMethod = 2\n"
                                   "[host]\nmodule = './m.so'\nmessages = '/abs/m.toml'\nprobeFolder = '..'\n"
                                   "clients = ['c.so', 'd/e.so']\n",
                                   "conf/nphost.toml", nphost::sectionsCM);
    auto const moduleOf = [](char const* text, char const* file) {
        return nphost::parseConfiguration(text, file, nphost::sectionsCM).of<nphost::HostSettings>().module;
    };
    auto const settings = read.of<nphost::HostSettings>();
    BAS::RegistryEntry const* const subtree = read.registry.find("DAT_NumberPortability");
    ASSERT_NE(subtree, nullptr);
    EXPECT_EQ(subtree->find("FileName")->value(), "conf/data/x.dat");
    EXPECT_EQ(subtree->find("SearchMethod")->value(), "2");
    EXPECT_EQ(settings.module, "conf/./m.so");
    EXPECT_EQ(settings.messages, "/abs/m.toml");
    EXPECT_EQ(read.of<nphost::ClientModules::Settings>().clients,
              (std::vector<std::filesystem::path>{"c.so", "conf/d/e.so"}));
    EXPECT_EQ(settings.probeFolder, "conf/..");
    // A bare name is for the system's search; with a slash it stays a path even where the file's folder is
    // "".
    EXPECT_EQ(moduleOf("[host]\nmodule = 'm.so'\n", "conf/x.toml"), "m.so");
    EXPECT_EQ(moduleOf("[host]\nmodule = './m.so'\n", "x.toml"), "./m.so");
    EXPECT_EQ(nphost::parseConfiguration("", "x.toml", nphost::sectionsCM).registry.find("DAT_NumberPortability"),
              nullptr);
}

TEST(HostConfigurationTest, ModuleByPathFromAnotherFolder) {
    ConfiguredFolder const setup("00441  20200101000000  A\n", "[host]\nmodule = \"link.so\"\n");
    std::filesystem::create_symlink(NP_MODULE, setup.folder.file("link.so"));
    std::string const content = contentOf(setup.configuration);
    std::string slash = content;
    slash.replace(slash.find("link.so"), 7, "./link.so\"\nprobeFolder = \"" NP_LIBRARY_FOLDER);
    Result const result = run({"lookup", "--config", setup.folder.write("slash.toml", slash), "00441"});
    EXPECT_EQ(result.status, 0) << result.err;
}

TEST(HostUsageTest, WrongUseIsOneLineAndStatusTwo) {
    struct Case {
        Arguments arguments;
        char const* reason;
    };
    for (Case const& test :
         {Case{{}, "a command is required"},
          Case{{"serv"}, "no command or option 'serv'"},
          Case{{"lookup", "0044"}, "--config"},
          Case{{"lookup", "--config", exampleCM}, "NUMBER"},
          Case{{"lookup", "--config", exampleCM, "--at", "20230229000000", "0044"}, "20230229000000"},
          Case{{"lookup", "--config", exampleCM, "--at", "2024-06-15", "0044"}, "2024-06-15"},
          Case{{"lookup", "--config", exampleCM, "--at", "", "0044"}, "not a valid instant"},
          Case{{"lookup", "--config", exampleCM, "--method", "worst", "0044"}, "worst"},
          Case{{"lookup", "--config", exampleCM, "0044", "-"}, "stands alone"},
          Case{{"lookup", "--config", exampleCM, ""}, "not a number"},
          Case{{"lookup", "--config", exampleCM, "00447700900123 20240615120000"}, "not one number"},
          Case{{"lookup", "--config", exampleCM, "00447700900123\n0033"}, "'00447700900123\\n0033' is not one number"},
          Case{{"lookup", "--config", exampleCM, "[0044,0033]"}, "'[0044,0033]' is not a number"},
          Case{{"enrich", "--config", exampleCM, "--number", "[n]", "--time", "t", "[a]"}, "'[a]' is in brackets"},
          Case{{"ctl", "--socket", "s", "update", "[Reload=TRUE]"}, "'[Reload=TRUE]' is not KEY=VALUE"},
          Case{{"upcoming", "--config", exampleCM, "--until", ""}, "'' is not a valid instant; write YYYYMMDD"},
          Case{{"diff", "--config", exampleCM, "--at", "", exampleDataCM, exampleDataCM}, "'' is not a valid instant"},
          Case{{"lookup", "--config", exampleCM, "--normalise", "07700x"}, "'07700x' is not a number"},
          Case{{"lookup", "--config", exampleCM, "--normalise", "447700900123.0"}, "a decimal point"},
          Case{{"lookup", "--config", exampleCM, "--normalise", "+07700900123"}, "no country code begins with 0"},
          Case{{"print", "--config", exampleCM, "more"}, "more"},
          Case{{"check", "--config", exampleCM}, "FILE"},
          Case{{"check", "--config", exampleCM, ""}, "FILE: the name is empty"},
          Case{{"ctl", "--socket", "s", "delta", ""}, "FILE: the name is empty"},
          Case{{"ctl", "--socket", "s", "print", ""}, "FILE: the name is empty"}})
        expectOneLine(run(test.arguments), test.reason, test.reason);
    for (Arguments const& good : {Arguments{"--help"}, Arguments{"--version"}, Arguments{"lookup", "--help"},
                                  Arguments{"print", "--help"}, Arguments{"check", "--help"}}) {
        Result const result = run(good);
        EXPECT_EQ(result.status, 0) << good[0];
        EXPECT_FALSE(result.out.empty());
        EXPECT_EQ(result.err, "");
    }
}

TEST(HostTextTest, ShowsBytesOnOneLine) {
    struct Case {
        std::string text;
        std::string shown;
    };
    for (Case const& test : {Case{"plain \"text\\", "plain \"text\\"}, Case{"a\tb\r\n", "a\\tb\\r\\n"},
                             Case{"\x1b[0m\x7f", "\\x1b[0m\\x7f"}, Case{std::string("\0", 1), "\\x00"},
                             Case{"S\xC5\xBD \xF0\x9F\x98\x80", "S\xC5\xBD \xF0\x9F\x98\x80"},
                             Case{"\xC2\x9B", "\\xc2\\x9b"}, Case{"\xC3", "\\xc3"}, Case{"\xC0\xAF", "\\xc0\\xaf"},
                             Case{"\xE0\x80\xAF", "\\xe0\\x80\\xaf"}, Case{"\xED\xA0\x80", "\\xed\\xa0\\x80"},
                             Case{"\xF4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"}, Case{"\xE2\x82", "\\xe2\\x82"}})
        EXPECT_EQ(nphost::visible(test.text), test.shown);
    EXPECT_EQ(nphost::shortened(std::string(200, 'a')), std::string(200, 'a'));
    EXPECT_EQ(nphost::shortened(std::string(201, 'a')), std::string(200, 'a') + "... (201 bytes)");
    EXPECT_EQ(nphost::shortened(std::string(199, 'a') + "\xC3\xA9"), std::string(199, 'a') + "... (201 bytes)");
    EXPECT_EQ(nphost::asUtf8("a\xff\xC3\xA9"), "a\xEF\xBF\xBD\xC3\xA9");
}

TEST(HostTextTest, JsonIsThatOfTheRFC) {
    using nphost::JsonWriter;
    struct Case {
        char const* label;
        std::function<void(JsonWriter&)> write;
        std::string json;
    };
    using Texts = std::vector<std::string>;
    using Numbers = std::map<std::string, unsigned>;
    for (Case const& test : {
             Case{"a plain text", [](auto& json) { json.value("/ a'<&>"); }, R"("/ a'<&>")"},
             Case{"no text", [](auto& json) { json.value(""); }, R"("")"},
             Case{"quotation mark, backslash", [](auto& json) { json.value("\"a\\"); }, R"("\"a\\")"},
             Case{"controls", [](auto& json) { json.value(std::string_view("\0\a\b\t\n\v\f\r\x1b\x1f\x7f", 11)); },
                  "\"\\u0000\\u0007\\b\\t\\n\\u000b\\f\\r\\u001b\\u001f\x7f\""},
             Case{"UTF-8 and not", [](auto& json) { json.value("\xC3\xA9\xF0\x9F\x98\x80\xC3\xff"); },
                  "\"\xC3\xA9\xF0\x9F\x98\x80\xEF\xBF\xBD\xEF\xBF\xBD\""},
             Case{"a key", [](auto& json) { json.beginObject().member("\"\xff", 1).endObject(); },
                  "{\"\\\"\xEF\xBF\xBD\":1}"},
             Case{"whole numbers",
                  [](auto& json) { json.beginArray().value(0).value(-7).value(std::uint64_t(1) << 63U).endArray(); },
                  "[0,-7,9223372036854775808]"},
             Case{"fractions",
                  [](auto& json) {
                      json.value(std::vector{0.0, 2.0, 0.001, -1234.5, 0.1 + 0.2, 1e-4});
                  },
                  "[0.0,2.0,0.001,-1234.5,0.30000000000000004,0.0001]"},
             Case{"large and small",
                  [](auto& json) {
                      json.value(std::vector{1e14, 1e15, 1.5e300, 9.5e-5});
                  },
                  "[100000000000000.0,1e+15,1.5e+300,9.5e-05]"},
             Case{"no numbers",
                  [](auto& json) {
                      json.value(std::vector{std::nan(""), -HUGE_VAL});
                  },
                  "[null,null]"},
             Case{"truths and null",
                  [](auto& json) { json.beginArray().value(true).value(false).value(nullptr).endArray(); },
                  "[true,false,null]"},
             Case{"a text is no truth", [](auto& json) { json.member("a", static_cast<char const*>("b")); },
                  R"("a":"b")"},
             Case{"there or not",
                  [](auto& json) {
                      json.beginArray().value(std::optional<std::string>()).value(std::optional(1)).endArray();
                  },
                  "[null,1]"},
             Case{"lists",
                  [](auto& json) {
                      json.member("a", Texts()).member("b", Texts{"x", "y"});
                  },
                  R"("a":[],"b":["x","y"])"},
             Case{"maps",
                  [](auto& json) {
                      json.member("a", Numbers()).member("b", Numbers{{"y", 2}, {"x", 1}});
                  },
                  R"("a":{},"b":{"x":1,"y":2})"},
             Case{"nested",
                  [](auto& json) {
                      json.beginObject().key("a").beginArray().beginArray().endArray().beginObject().endObject();
                      json.value(1).endArray().member("b", 2).key("c").beginObject().endObject().endObject();
                  },
                  R"({"a":[[],{},1],"b":2,"c":{}})"},
         }) {
        std::string json;
        JsonWriter writer(json);
        test.write(writer);
        EXPECT_EQ(json, test.json) << test.label;
    }
}

TEST(HostTextTest, ProgressNamesWhatIsKnown) {
    EXPECT_EQ(nphost::progressText({1000, 0, 0}, 2), "1000 lines, 500 lines/s");
    EXPECT_EQ(nphost::progressText({1000, 250, 1000}, 2), "1000 lines, 500 lines/s, 6 s left");
    EXPECT_EQ(nphost::progressText({1000, 1, 100}, 2), "1000 lines, 500 lines/s, 3 min 18 s left");
    EXPECT_EQ(nphost::progressText({1000, 1001, 1000}, 2), "1000 lines, 500 lines/s") << "the file has grown";
    EXPECT_EQ(nphost::progressText({0, 0, 10}, 0), "0 lines");
}

TEST(HostCatalogueTest, HasATextForEveryIdentifier) {
    std::string const texts = contentOf(std::string(NP_SOURCE_FOLDER) + "/host/log/messages.toml");
    std::set<std::string> identifiers;
    for (char const* const folder : {"plugin", "cache", "framework"})
        for (auto const& entry :
             std::filesystem::recursive_directory_iterator(std::string(NP_SOURCE_FOLDER) + "/" + folder)) {
            std::string const source = entry.path().extension() == ".cpp" ? contentOf(entry.path()) : std::string();
            for (char const* const start : {"\"ERR_", "\"INF_", "\"EVT::"})
                for (std::size_t at = source.find(start); at != std::string::npos; at = source.find(start, at + 1))
                    identifiers.insert(source.substr(at + 1, source.find('"', at + 1) - at - 1));
        }
    EXPECT_GT(identifiers.size(), 30U);
    for (std::string const& identifier : identifiers)
        EXPECT_TRUE(contains(texts, "\n" + identifier + " = ") || contains(texts, "\n\"" + identifier + "\" = "))
            << identifier;
}

TEST(HostCatalogueTest, FillsPlaceholdersOnce) {
    TemporaryFolder const folder;
    nphost::MessageCatalogue const catalogue(
        folder.write("m.toml", "A = \"%2 is %1, 100%% %9%\"\nB = \"two\\nlines\"\n"));
    auto const text = [&](char const* identifier, BAS::Status::Arguments const& arguments) {
        std::string out;
        catalogue.append(out, identifier, arguments);
        return out;
    };
    EXPECT_EQ(text("A", {"%2", "x\ny"}), "x\\ny is %2, 100% %");
    EXPECT_EQ(text("B", {}), "two\\nlines");
    EXPECT_EQ(text("C", {"a", "b"}), "C a b") << "no text";
}

} // namespace
