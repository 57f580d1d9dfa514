// The store: records and histories, the trie against a naive model, the number tree and its three search methods.
#include "store/NumberPortabilityTree.h"
#include "tests/SeededRandom.h"

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sstream>

using namespace DAT::NumberPortability;

namespace {

BAS::DateTime at(char const* digits) {
    BAS::DateTime const when{BAS::String(digits)};
    EXPECT_TRUE(when.isValid()) << digits;
    return when;
}

NumberPortabilityData record(char const* validFrom, char const* network) {
    return {at(validFrom), BAS::SimpleString(network)};
}

// What the history answers at an instant: the network, or "-".
std::string networkAt(NumberPortabilityList const& history, char const* instant) {
    NumberPortabilityData found;
    return history.search(at(instant), found) ? found.networkIdM.c_str() : "-";
}

std::string printed(NumberPortabilityList const& history, char const* number) {
    std::ostringstream out;
    history.printTree(out, BAS::String(number));
    return out.str();
}

std::string printed(NumberPortabilityTree const& tree, bool header = false) {
    std::ostringstream out;
    tree.printTree(out, header);
    return out.str();
}

// A value for tries of the tests' own.
struct Value {
    explicit Value(int n) : number(n) { ++alive; }
    ~Value() {
        --alive;
        if (destroyed != nullptr)
            destroyed->push_back(number);
        if (nodeCounts != nullptr)
            nodeCounts->push_back(PBC::PtrTreeNode<Value>::nodeCountM);
    }
    void printTree(std::ostream& out, BAS::String const& key) const { out << key << '=' << number << '\n'; }

    int number;
    static inline int alive = 0;
    static inline std::vector<int>* destroyed = nullptr;
    static inline std::vector<std::uint64_t>* nodeCounts = nullptr;
};

using Trie = PBC::PtrTree<Value>;
using Node = PBC::PtrTreeNode<Value>;

int numberOf(Value const* value) {
    return value == nullptr ? -1 : value->number;
}

// What a prefix-collecting search pushes, taken from the top. What was there before must lie below it.
std::vector<int> found(Trie const& trie, std::string const& key) {
    Value before(-7);
    Trie::FoundStack stack;
    stack.push(&before);
    trie.search(BAS::String(key), stack);
    std::vector<int> numbers;
    while (!stack.isEmpty())
        numbers.push_back(stack.pop()->number);
    EXPECT_EQ(numbers.back(), -7);
    numbers.pop_back();
    return numbers;
}

std::string printed(Trie const& trie) {
    std::ostringstream out;
    trie.printTree(out);
    return out.str();
}

} // namespace

TEST(Record, IsSixteenBytesAndSurvivesSelfAssignment) {
    EXPECT_EQ(sizeof(NumberPortabilityData), 16U);
    for (char const* network : {"NET1", "A network with a long name"}) {
        NumberPortabilityData data = record("20080301000000", network);
        NumberPortabilityData const& same = data;
        data = same;
        EXPECT_STREQ(data.networkIdM.c_str(), network);
        std::ostringstream out;
        out << data;
        EXPECT_EQ(out.str(), "(20080301000000 " + std::string(network) + ")");
    }
    EXPECT_STREQ(NumberPortabilityData().networkIdM.c_str(), "");
}

TEST(History, StandsNewestFirstWhateverTheOrderOfArrival) {
    char const* const dates[] = {"20050101000000", "20080301000000", "20100101000000", "20200101000000"};
    int order[] = {0, 1, 2, 3};
    do {
        NumberPortabilityList history;
        for (int const i : order) {
            EXPECT_TRUE(history.insertAt(record(dates[i], dates[i])));
            EXPECT_FALSE(history.insertAt(record(dates[i], "another network"))) << "same instant";
        }
        ASSERT_EQ(history.length(), 4U);
        for (std::uint32_t i = 0; i < 4; ++i)
            EXPECT_STREQ(history.record(i).networkIdM.c_str(), dates[3 - i]);
        EXPECT_THROW(static_cast<void>(history.record(4)), std::out_of_range);
    } while (std::next_permutation(std::begin(order), std::end(order)));
}

TEST(History, FindsTheRecordThatHoldsAtAnInstant) {
    NumberPortabilityList history;
    EXPECT_EQ(networkAt(history, "20240101000000"), "-");
    for (auto const& [date, network] :
         {std::pair{"20050101000000", "N05"}, {"20100101000000", "N10"}, {"20080301000000", "N08"}})
        ASSERT_TRUE(history.insertAt(record(date, network)));
    for (auto const& [instant, network] : {std::pair{"20041231235959", "-"},
                                           {"20050101000000", "N05"},
                                           {"20080229235959", "N05"},
                                           {"20080301000000", "N08"},
                                           {"20090701000000", "N08"},
                                           {"20091231235959", "N08"},
                                           {"20100101000000", "N10"},
                                           {"99991231235959", "N10"}})
        EXPECT_EQ(networkAt(history, instant), network) << instant;
    NumberPortabilityData untouched = record("19990101000000", "before");
    EXPECT_FALSE(history.search(at("20000101000000"), untouched));
    EXPECT_STREQ(untouched.networkIdM.c_str(), "before");
}

TEST(History, PrintsLinesOfADataFile) {
    NumberPortabilityList history;
    EXPECT_EQ(printed(history, "1"), "");
    history.insertAt(record("20050101000000", "NET01"));
    history.insertAt(record("20080301000000", " NET02 "));
    EXPECT_EQ(printed(history, "  00441711234567 "),
              "00441711234567  20080301000000  NET02\n00441711234567  20050101000000  NET01\n");
}

TEST(History, AppendsOneOfItsOwnRecords) {
    NumberPortabilityList history;
    history.insert(record("20050101000000", "a long network identifier"));
    history.insert(history.record(0));
    EXPECT_STREQ(history.record(1).networkIdM.c_str(), "a long network identifier");
}

TEST(History, AppendsWhateverTheDateAndCopiesWhole) {
    NumberPortabilityList history;
    char const* const dates[] = {"20100101000000", "20050101000000", "20200101000000", "20200101000000"};
    for (char const* date : dates)
        history.insert(record(date, "a long network identifier"));
    NumberPortabilityList const copy(history);
    ASSERT_EQ(copy.length(), 4U);
    for (std::uint32_t i = 0; i < 4; ++i)
        EXPECT_EQ(copy.record(i).validFromM, at(dates[i]));
}

TEST(Trie, ANodeReplacesAValueWithoutDeletingIt) {
    Node node(10);
    auto const first = std::make_unique<Value>(1);
    node.value(first.get());
    node.value(new Value(2));
    EXPECT_EQ(numberOf(node.value()), 2);
    EXPECT_EQ(first->number, 1);
}

TEST(Trie, GrowsOnlyEmptySlotsInRange) {
    Node node(10);
    Node* const child = node.grow(9);
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(node.grow(9), nullptr);
    EXPECT_EQ(node.child(9), child);
    for (int const slot : {-1, 10, 11, 1000}) {
        EXPECT_EQ(node.grow(slot), nullptr);
        EXPECT_EQ(node.child(slot), nullptr);
    }
}

TEST(Trie, AnswersItsThreeQuestions) {
    Trie trie;
    for (auto const& [key, number] : {std::pair{"0044", 1}, {"0044171", 2}, {"00441711234567", 3}})
        trie.insert(key, new Value(number));
    struct Case {
        char const* key;
        int exact, shortest;
        std::vector<int> prefixes; // longest first
    };
    for (Case const& c : {Case{"00441711234567", 3, 1, {3, 2, 1}},
                          {"+0044 171-1234567x", 3, 1, {3, 2, 1}},
                          {"004417112345678", -1, 1, {3, 2, 1}},
                          {"0044171", 2, 1, {2, 1}},
                          {"0044171123", -1, 1, {2, 1}},
                          {"0044", 1, 1, {1}},
                          {"00", -1, -1, {}},
                          {"0043", -1, -1, {}},
                          {"1", -1, -1, {}},
                          {"", -1, -1, {}},
                          {"abc", -1, -1, {}}}) {
        EXPECT_EQ(numberOf(trie.search(c.key, true)), c.exact) << c.key;
        EXPECT_EQ(numberOf(trie.search(c.key, false)), c.shortest) << c.key;
        EXPECT_EQ(found(trie, c.key), c.prefixes) << c.key;
    }
    EXPECT_EQ(trie.nodes(), 15U);
}

TEST(Trie, KeepsAKeyWithoutDigitsAtItsRoot) {
    Trie trie;
    trie.insert("none", new Value(7));
    EXPECT_EQ(trie.nodes(), 1U);
    EXPECT_EQ(trie.search("none", true), nullptr);
    EXPECT_EQ(trie.search("none", false), nullptr);
    EXPECT_EQ(numberOf(trie.search("5", false)), 7);
    EXPECT_EQ(found(trie, "5"), std::vector<int>{7});
    EXPECT_EQ(printed(trie), "");
}

TEST(Trie, FreesChildrenBeforeTheirParentFromTheFirstSlotUp) {
    std::uint64_t const before = Node::nodeCountM;
    std::vector<int> destroyed;
    std::vector<std::uint64_t> counts;
    Trie trie;
    for (char const* key : {"1", "12", "121", "19", "3", "30", "0"})
        trie.insert(key, new Value(std::atoi(key))); // NOLINT(cert-err34-c)
    EXPECT_EQ(Node::nodeCountM - before, 8U);
    EXPECT_EQ(trie.nodes(), 8U);
    Value::destroyed = &destroyed;
    Value::nodeCounts = &counts;
    trie.init();
    Value::destroyed = nullptr;
    Value::nodeCounts = nullptr;
    EXPECT_EQ(destroyed, (std::vector<int>{0, 121, 12, 19, 1, 30, 3}));
    // A node is counted out before its children are; the fresh root is in already.
    std::vector<std::uint64_t> relative;
    for (std::uint64_t const count : counts)
        relative.push_back(count - before);
    EXPECT_EQ(relative, (std::vector<std::uint64_t>{7, 4, 4, 3, 3, 1, 1}));
    EXPECT_EQ(Node::nodeCountM - before, 1U);
    EXPECT_EQ(trie.nodes(), 1U);
    EXPECT_EQ(Value::alive, 0);
    trie.destroy();
    EXPECT_EQ(trie.nodes(), 0U);
    trie.init();
    trie.insert("5", new Value(5));
    EXPECT_EQ(numberOf(trie.search("5", true)), 5);
}

// A key of millions of digits, as a broken file may hold one, must cost memory but no call stack.
TEST(Trie, IsAsDeepAsMemoryAllows) {
    constexpr std::size_t digits = 1'000'000; // would overflow any call stack many times over
    Trie trie;
    std::string const key(digits, '9');
    trie.insert(BAS::String(key), new Value(1));
    EXPECT_EQ(numberOf(trie.search(BAS::String(key), true)), 1);
    std::size_t length = 0;
    trie.visit([&](BAS::String const& visited, Value const*) { length = visited.length(); });
    EXPECT_EQ(length, digits);
    trie.init();
    EXPECT_EQ(Value::alive, 0);
}

namespace {

// Digits, and the same with separators between them.
std::pair<std::string, std::string> makeKey(std::mt19937& random, unsigned alphabet) {
    std::string digits;
    std::string text;
    for (auto length = 1 + random() % 9; length > 0; --length) {
        if (random() % 4 == 0)
            text += "+- xA\xff"[random() % 6];
        digits += static_cast<char>('0' + random() % alphabet);
        text += digits.back();
    }
    return {digits, text};
}

} // namespace

// Generated operations against a map from digit strings, with separators in the keys and keys inside each other.
TEST(Trie, AgreesWithANaiveModel) {
    SeededRandom random;
    for (unsigned alphabet : {2U, 10U}) {
        Trie trie;
        std::map<std::string, int> model;
        std::set<std::string> paths{""}; // the nodes that there should be
        for (int step = 0; step < 3000; ++step) {
            auto const [digits, text] = makeKey(random, alphabet);
            if (random() % 2 == 0 && model.emplace(digits, step).second) {
                trie.insert(BAS::String(text), new Value(step));
                for (std::size_t length = 0; length <= digits.size(); ++length)
                    paths.insert(digits.substr(0, length));
            }
            auto const exact = model.find(digits);
            ASSERT_EQ(numberOf(trie.search(BAS::String(text), true)), exact == model.end() ? -1 : exact->second);
            std::vector<int> prefixes; // longest first
            for (std::size_t length = digits.size(); length > 0; --length)
                if (auto const prefix = model.find(digits.substr(0, length)); prefix != model.end())
                    prefixes.push_back(prefix->second);
            ASSERT_EQ(found(trie, text), prefixes);
            ASSERT_EQ(numberOf(trie.search(BAS::String(text), false)), prefixes.empty() ? -1 : prefixes.back());
        }
        std::string listing;
        for (auto const& [digits, number] : model)
            listing += digits + "=" + std::to_string(number) + "\n";
        EXPECT_EQ(printed(trie), listing);
        EXPECT_EQ(trie.nodes(), paths.size());
    }
}

class NumberTree : public testing::Test {
  protected:
    NumberTree() {
        EXPECT_TRUE(tree.insert("0044171", record("20050101000000", "NET01"), true));
        EXPECT_TRUE(tree.insert("00441711234567", record("20080301000000", "NET02"), true));
    }
    std::string answer(char const* number, char const* instant, unsigned method) {
        NumberPortabilityData out;
        return tree.search(number, at(instant), out, method) ? out.networkIdM.c_str() : "-";
    }
    NumberPortabilityTree tree;
};

TEST_F(NumberTree, ResolvesByEachMethod) {
    struct Case {
        char const* number;
        char const* instant;
        char const *best, *exact, *shortest;
    };
    for (Case const& c : {Case{"00441711234567", "20090101000000", "NET02", "NET02", "NET01"},
                          {"0044-171 123 4567", "20090101000000", "NET02", "NET02", "NET01"},
                          {"00441711234567", "20060101000000", "NET01", "-", "NET01"},
                          {"00441711234567", "20040101000000", "-", "-", "-"},
                          {"00441711234567", "20080301000000", "NET02", "NET02", "NET01"},
                          {"00441711234567", "20080229235959", "NET01", "-", "NET01"},
                          {"00441719999999", "20090101000000", "NET01", "-", "NET01"},
                          {"0044", "20090101000000", "-", "-", "-"},
                          {"", "20090101000000", "-", "-", "-"}}) {
        NumberPortabilityData untouched = record("19990101000000", "before");
        if (std::string_view(c.best) == "-") { // also when several histories were asked in vain
            EXPECT_FALSE(tree.search(c.number, at(c.instant), untouched, NumberPortabilityTree::BEST_MATCH));
            EXPECT_STREQ(untouched.networkIdM.c_str(), "before");
        }
        EXPECT_EQ(answer(c.number, c.instant, NumberPortabilityTree::BEST_MATCH), c.best) << c.number << c.instant;
        EXPECT_EQ(answer(c.number, c.instant, NumberPortabilityTree::EXACT_MATCH), c.exact) << c.number << c.instant;
        for (unsigned const method : {2U, 3U, 77U, 4294967295U})
            EXPECT_EQ(answer(c.number, c.instant, method), c.shortest) << c.number << c.instant << method;
    }
}

TEST_F(NumberTree, LetsTheShortestPrefixDecideEvenWhenItStartsLater) {
    ASSERT_TRUE(tree.insert("00", record("20200101000000", "LATE"), true));
    EXPECT_EQ(answer("00441711234567", "20090101000000", NumberPortabilityTree::ANY_PREFIX_MATCH), "-");
    EXPECT_EQ(answer("00441711234567", "20090101000000", NumberPortabilityTree::BEST_MATCH), "NET02");
}

TEST_F(NumberTree, RefusesDuplicatesAndNumbersWithoutDigits) {
    EXPECT_FALSE(tree.insert("0044 171 1234567", record("20080301000000", "OTHER"), true));
    EXPECT_FALSE(tree.insert("", record("20080301000000", "OTHER"), true));
    EXPECT_FALSE(tree.insert("abc", record("20080301000000", "OTHER"), false));
    EXPECT_EQ(tree.entries(), 2U);
    EXPECT_EQ(answer("00441711234567", "20090101000000", 0), "NET02");
    EXPECT_TRUE(tree.insert("00441711234567", record("20080301000000", "OTHER"), false)) << "unordered appends";
    EXPECT_EQ(tree.entries(), 3U);
}

TEST_F(NumberTree, PrintsClearsAndCopies) {
    std::string const listing = "0044171  20050101000000  NET01\n00441711234567  20080301000000  NET02\n";
    std::string const rule(59, '-');
    std::string const heading = rule + "\n                 Number Portability Data\n" + rule + "\n";
    EXPECT_EQ(printed(tree), listing);
    EXPECT_EQ(printed(tree, true), heading + listing);

    NumberPortabilityTree copy;
    copy.insert("1", record("20080301000000", "GONE"), true);
    copy.copyFrom(tree);
    tree.clearAndDestroy();
    EXPECT_EQ(tree.entries(), 0U);
    EXPECT_EQ(answer("00441711234567", "20090101000000", 0), "-");
    EXPECT_EQ(printed(tree), "");
    EXPECT_EQ(printed(tree, true), heading);
    copy.copyFrom(copy);
    EXPECT_EQ(printed(copy), listing);
    EXPECT_EQ(copy.entries(), 2U);
    EXPECT_EQ(copy.numbers(), 2U);
    EXPECT_TRUE(tree.insert("5", record("20080301000000", "NEW"), true));
    EXPECT_EQ(tree.entries(), 1U);
}
