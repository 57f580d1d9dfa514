// The packed layout held against the plain one and a map: every result, every count and every printed byte.
#include "store/NumberPortabilityTree.h"
#include "tests/SeededRandom.h"

#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sstream>

using namespace DAT::NumberPortability;

namespace {

// A value of a trie of the tests' own.
struct Item {
    explicit Item(int n) : number(n) { ++alive; }
    ~Item() { --alive; }
    void printTree(std::ostream& out, BAS::String const& key) const { out << key << '=' << number << '\n'; }

    int number;
    static inline int alive = 0;
};

using Plain = PBC::PtrTree<Item>;
using Packed = PBC::PtrTree<Item, PBC::PackedLayout<Item>>;
using PlainLists = PBC::PtrTree<NumberPortabilityList>;

// The shapes that keys come in.
enum class Shape { DENSE, SPARSE, NESTED, SEPARATED, LONG, HEXADECIMAL_LOOKING };
constexpr Shape shapes[] = {Shape::DENSE,     Shape::SPARSE, Shape::NESTED,
                            Shape::SEPARATED, Shape::LONG,   Shape::HEXADECIMAL_LOOKING};

class Keys {
  public:
    explicit Keys(Shape shape)
        : shapeM(shape), traceM(__FILE__, __LINE__, "shape " + std::to_string(static_cast<int>(shape))) {}

    unsigned below(unsigned limit) { return static_cast<unsigned>(randomM() % limit); }

    std::string next() {
        switch (shapeM) {
        case Shape::DENSE:
            return "0049170" + digits(1 + below(3));
        case Shape::SPARSE:
            return "00" + digits(14);
        case Shape::NESTED: { // prefixes of one number, and branches off it
            std::string const spine = "00441711234567890123";
            return spine.substr(0, below(21)) + digits(below(2));
        }
        case Shape::SEPARATED: {
            std::string text;
            for (char const digit : digits(below(7)))
                (text += std::string(below(3), "+- xA\xff"[below(6)])) += digit;
            return text + (below(5) == 0 ? "tail" : "");
        }
        case Shape::LONG: // beyond one machine word, with a long common beginning
            return std::string(20, '7') + digits(below(3)) + std::string(below(40), '8') + digits(below(2));
        case Shape::HEXADECIMAL_LOOKING:
            return "00fF" + digits(below(5)) + "aB" + digits(below(2));
        }
        return "";
    }

  private:
    std::string digits(unsigned count) {
        std::string text;
        while (text.size() < count)
            text += static_cast<char>('0' + below(10));
        return text;
    }

    Shape shapeM;
    testing::ScopedTrace traceM;
    SeededRandom randomM;
};

std::string digitsOf(std::string const& key) {
    std::string digits;
    for (char const character : key)
        if (character >= '0' && character <= '9')
            digits += character;
    return digits;
}

template <class Value>
int numberOf(Value const* value) {
    return value == nullptr ? -1 : value->number;
}

template <class Trie>
std::string printed(Trie const& trie) {
    std::ostringstream out;
    trie.printTree(out);
    return out.str();
}

// Longest first.
std::vector<int> drained(auto& found) {
    std::vector<int> numbers;
    while (!found.isEmpty())
        numbers.push_back(found.pop()->number);
    return numbers;
}

template <class Trie>
std::vector<int> prefixesOf(Trie const& trie, std::string const& key) {
    typename Trie::FoundStack found;
    trie.search(BAS::String(key), found);
    return drained(found);
}

// A packed and a plain trie with the same content, and the map that says what it is.
class Both {
  public:
    void insert(std::string const& key, int number) {
        std::string const digits = digitsOf(key);
        if (!modelM.emplace(digits, number).second)
            return;
        plainM.insert(BAS::String(key), new Item(number));
        packedM.insert(BAS::String(key), new Item(number));
        for (std::size_t length = 0; length <= digits.size(); ++length)
            pathsM.insert(digits.substr(0, length));
    }

    void compare(std::string const& key) const {
        std::string const digits = digitsOf(key);
        std::vector<int> prefixes; // longest first
        for (std::size_t length = digits.size() + 1; length-- > 0;)
            if (auto const at = modelM.find(digits.substr(0, length)); at != modelM.end() && !digits.empty())
                prefixes.push_back(at->second);
        auto const exact = digits.empty() ? modelM.end() : modelM.find(digits);
        int const expected = exact == modelM.end() ? -1 : exact->second;
        int const shortest = prefixes.empty() ? -1 : prefixes.back();
        for (int const number :
             {numberOf(plainM.search(BAS::String(key), true)), numberOf(packedM.search(BAS::String(key), true))})
            ASSERT_EQ(number, expected) << key;
        for (int const number :
             {numberOf(plainM.search(BAS::String(key), false)), numberOf(packedM.search(BAS::String(key), false))})
            ASSERT_EQ(number, shortest) << key;
        ASSERT_EQ(prefixesOf(plainM, key), prefixes) << key;
        ASSERT_EQ(prefixesOf(packedM, key), prefixes) << key;
    }

    void compareMany(std::vector<std::string> const& keys) const {
        std::vector<BAS::String> const strings(keys.begin(), keys.end());
        std::size_t next = 0;
        packedM.search(strings, [&](std::size_t i, Packed::Prefixes& found) {
            ASSERT_EQ(i, next++);
            ASSERT_EQ(drained(found), prefixesOf(plainM, keys[i])) << keys[i];
        });
        ASSERT_EQ(next, keys.size());
        plainM.search(strings, [&](std::size_t i, Plain::Prefixes& found) {
            ASSERT_EQ(drained(found), prefixesOf(plainM, keys[i])) << keys[i];
        });
        compareMeasured(plainM, strings);
        compareMeasured(packedM, strings);
    }

    void compareWhole() const {
        std::string listing;
        for (auto const& [digits, number] : modelM)
            if (!digits.empty())
                listing += digits + "=" + std::to_string(number) + "\n";
        ASSERT_EQ(printed(plainM), listing);
        ASSERT_EQ(printed(packedM), listing);
        ASSERT_EQ(plainM.nodes(), std::max<std::size_t>(pathsM.size(), 1));
        ASSERT_EQ(packedM.nodes(), plainM.nodes());
    }

    void makeShortcuts() {
        constexpr std::size_t enough = std::size_t{1} << 40; // for the largest table
        plainM.makeShortcuts(enough);
        packedM.makeShortcuts(enough);
        EXPECT_NE(packedM.shortcutBytes(), 0U);
    }
    void init() {
        plainM.init();
        packedM.init();
        modelM.clear();
        pathsM.clear();
    }
    std::uint64_t nodes() const { return plainM.nodes() + packedM.nodes(); }

  private:
    // Each prefix is found with the digits that lead to it.
    template <class Trie>
    void compareMeasured(Trie const& trie, std::vector<BAS::String> const& keys) const {
        trie.searchMeasured(keys, [&](std::size_t i, std::size_t length, auto& found) {
            std::string const digits = digitsOf(keys[i].str());
            ASSERT_EQ(length, digits.size()) << keys[i];
            std::vector<int> numbers;
            while (!found.isEmpty()) {
                auto const prefix = found.pop();
                auto const stored = modelM.find(digits.substr(0, prefix.digits));
                ASSERT_TRUE(stored != modelM.end() && stored->second == prefix.value->number) << keys[i];
                numbers.push_back(stored->second);
            }
            ASSERT_EQ(numbers, prefixesOf(trie, keys[i].str())) << keys[i];
        });
    }

    Plain plainM;
    Packed packedM;
    std::map<std::string, int> modelM;
    std::set<std::string> pathsM; // the nodes that there should be
};

} // namespace

TEST(Layout, PackedPlainAndAMapAgree) {
    std::uint64_t const nodesBefore = PBC::PtrTreeNode<Item>::nodeCountM;
    for (Shape const shape : shapes) {
        Keys keys(shape);
        Both both;
        for (int round = 0; round < 2; ++round) {
            std::vector<std::string> asked;
            for (int i = 0; i < 1500; ++i) {
                if (keys.below(2) == 0)
                    both.insert(keys.next(), i);
                asked.push_back(keys.next());
                both.compare(asked.back());
                if (testing::Test::HasFatalFailure())
                    return;
            }
            both.compareMany(asked);
            both.compareWhole();
            both.makeShortcuts(); // the same answers again, until something is inserted
            for (std::string const& key : asked)
                both.compare(key);
            both.compareMany(asked);
            both.insert(asked.front(), -5);
            both.compare(asked.front());
            EXPECT_EQ(PBC::PtrTreeNode<Item>::nodeCountM - nodesBefore, both.nodes());
            both.init();
            EXPECT_EQ(PBC::PtrTreeNode<Item>::nodeCountM - nodesBefore, 2U);
            EXPECT_EQ(Item::alive, 0);
        }
    }
    EXPECT_EQ(PBC::PtrTreeNode<Item>::nodeCountM, nodesBefore);
}

namespace {

std::vector<std::string> keysOfAPath(Keys& keys, bool sorted) {
    std::vector<std::string> order;
    while (order.size() < 2000)
        if (std::string key = keys.next(); !key.empty() && key.size() <= PBC::Digits::mostCM)
            order.push_back(key);
    if (sorted)
        std::sort(order.begin(), order.end());
    return order;
}

// A trie that is filled by way of a path.
template <class Trie>
struct ByPath {
    // Refuses a key that is there.
    bool insert(PBC::Digits const& digits, int number) {
        typename Trie::Place& place = trie.reach(digits, path);
        if (trie.layout().value(place))
            return false;
        trie.layout().value(place, new Item(number));
        return true;
    }
    Trie trie;
    typename Trie::Path path;
};

} // namespace

// Keys in any order through a path that starts from the one before: the same trie as by single insertions.
TEST(Layout, APathGivesTheSameTrie) {
    std::uint64_t const nodesBefore = PBC::PtrTreeNode<Item>::nodeCountM;
    for (Shape const shape : {Shape::DENSE, Shape::SPARSE, Shape::NESTED})
        for (bool const sorted : {false, true}) {
            Keys keys(shape);
            ByPath<Packed> packed;
            ByPath<Plain> plain;
            Plain reference;
            for (std::string const& key : keysOfAPath(keys, sorted)) {
                PBC::Digits digits;
                std::string_view rest = key;
                packed.trie.takeDigits(rest, digits);
                bool const isNew = reference.search(BAS::String(key), true) == nullptr;
                auto const number = static_cast<int>(reference.nodes());
                if (isNew)
                    reference.insert(BAS::String(key), new Item(number));
                ASSERT_EQ(packed.insert(digits, number), isNew);
                ASSERT_EQ(plain.insert(digits, number), isNew);
                ASSERT_EQ(packed.trie.nodes(), reference.nodes());
            }
            packed.trie.leave(packed.path);
            plain.trie.leave(plain.path);
            EXPECT_EQ(PBC::PtrTreeNode<Item>::nodeCountM - nodesBefore, 3 * reference.nodes());
            EXPECT_EQ(printed(packed.trie), printed(reference));
            EXPECT_EQ(printed(plain.trie), printed(reference));
        }
    EXPECT_EQ(Item::alive, 0);
}

namespace {

// A number tree, whose histories lie in its nodes where they can, and a plain trie of lists with the same records.
class BothHistories {
  public:
    explicit BothHistories(Keys& keys) : keysM(keys) {
        std::uint32_t entries = 0;
        for (int i = 0; i < 1500; ++i)
            entries += insert() ? 1 : 0;
        EXPECT_EQ(tree.entries(), entries);
    }

    void compare(std::vector<BAS::String> const& numbers, unsigned method) {
        std::vector<BAS::DateTime> instants;
        while (instants.size() < numbers.size())
            instants.push_back(instant());
        std::vector<NumberPortabilityData> records(numbers.size());
        std::unique_ptr<bool[]> const found(new bool[numbers.size()]);
        tree.search(numbers, instants, records, {found.get(), numbers.size()}, method);
        for (std::size_t i = 0; i < numbers.size(); ++i) {
            NumberPortabilityData expected;
            bool const isExpected = search(numbers[i], instants[i], expected, method);
            NumberPortabilityData single;
            ASSERT_EQ(tree.search(numbers[i], instants[i], single, method), isExpected) << numbers[i];
            ASSERT_EQ(found[i], isExpected) << numbers[i];
            for (NumberPortabilityData const& record : {single, records[i]}) {
                ASSERT_EQ(record.validFromM, expected.validFromM);
                ASSERT_EQ(record.networkIdM, expected.networkIdM);
            }
        }
    }

    NumberPortabilityTree tree;
    PlainLists lists;

  private:
    BAS::DateTime instant() { return BAS::DateTime::fromSeconds(63'000'000'000 + keysM.below(300)); }
    bool insert() {
        BAS::String const number(keysM.next());
        BAS::SimpleString const network(keysM.below(3) == 0 ? "A rather long identifier" : "NET");
        NumberPortabilityData const record(instant(), network);
        bool expected = false;
        if (lists.isSignificant(number.view())) {
            if (lists.search(number, true) == nullptr)
                lists.insert(number, new NumberPortabilityList);
            expected = lists.search(number, true)->insertAt(record);
        }
        EXPECT_EQ(tree.insert(number, record, true), expected) << number;
        return expected;
    }
    bool search(BAS::String const& number, BAS::DateTime at, NumberPortabilityData& out, unsigned method) const {
        if (method != 0) {
            NumberPortabilityList const* const list = lists.search(number, method == 1);
            return list != nullptr && list->search(at, out);
        }
        PlainLists::FoundStack stack;
        lists.search(number, stack);
        while (!stack.isEmpty())
            if (stack.pop()->search(at, out))
                return true;
        return false;
    }

    Keys& keysM;
};

std::string printed(NumberPortabilityTree const& tree) {
    std::ostringstream out;
    tree.printTree(out, false);
    return out.str();
}

} // namespace

// Histories of one and of several records, short and long network identifiers.
TEST(Layout, HistoriesAnswerAlikeInBothLayouts) {
    for (Shape const shape : shapes) {
        Keys keys(shape);
        BothHistories both(keys);
        EXPECT_EQ(printed(both.tree), printed(both.lists));
        std::vector<BAS::String> numbers;
        for (int i = 0; i < 1000; ++i)
            numbers.emplace_back(keys.next());
        for (unsigned const method : {0U, 1U, 2U, 3U})
            ASSERT_NO_FATAL_FAILURE(both.compare(numbers, method));
        NumberPortabilityTree copy;
        copy.copyFrom(both.tree);
        EXPECT_EQ(printed(copy), printed(both.tree));
        EXPECT_EQ(copy.numbers(), both.tree.numbers());
        EXPECT_EQ(copy.entries(), both.tree.entries());
    }
}

namespace {

constexpr std::uint64_t recordsCM = 300'000;
constexpr std::uint64_t firstSecondCM = 63'000'000'000;

BAS::DateTime instantOf(std::uint64_t i) {
    return BAS::DateTime::fromSeconds(firstSecondCM + 2 * i);
}

std::string networkOf(std::uint64_t i) {
    return (i % 100 == 0 ? "A long name " : "") + std::to_string(i);
}

std::vector<std::uint64_t> orderOf(std::string const& arrival, std::mt19937& random) {
    std::vector<std::uint64_t> order(recordsCM);
    for (std::uint64_t i = 0; i < recordsCM; ++i)
        order[i] = arrival == "ascending" ? i : recordsCM - 1 - i;
    if (arrival == "nearly descending")
        std::rotate(order.begin(), order.end() - 7, order.end());
    if (arrival == "shuffled")
        std::shuffle(order.begin(), order.end(), random);
    return order;
}

} // namespace

// A history of very many records in every order of arrival. To move all of them for each that comes would take hours.
TEST(Layout, HoldsALongHistoryInEveryOrderOfArrival) {
    BAS::String const number("00441711234567");
    SeededRandom random;
    for (char const* const arrival : {"ascending", "descending", "nearly descending", "shuffled"}) {
        SCOPED_TRACE(arrival);
        NumberPortabilityTree tree;
        for (std::uint64_t const i : orderOf(arrival, random))
            ASSERT_TRUE(tree.insert(number, {instantOf(i), BAS::SimpleString(networkOf(i).c_str())}, true)) << i;
        for (std::uint64_t i = 0; i < recordsCM; i += 1 + random() % 100)
            ASSERT_FALSE(tree.insert(number, {instantOf(i), BAS::SimpleString("TWICE")}, true)) << i;
        EXPECT_EQ(tree.entries(), recordsCM);
        EXPECT_LT(tree.bytes(), 2 * recordsCM * sizeof(NumberPortabilityData) + 2 * PBC::HugePages::pageCM);

        NumberPortabilityTree copy;
        copy.copyFrom(tree);
        EXPECT_EQ(copy.entries(), recordsCM);
        tree.clearAndDestroy();
        std::uint64_t left = recordsCM;
        copy.visitLaterThan(
            BAS::DateTime::fromSeconds(0),
            [&](BAS::String const&, NumberPortabilityData const& record) {
                --left;
                ASSERT_EQ(record.validFromM, instantOf(left));
                ASSERT_EQ(record.networkIdM.view(), networkOf(left));
            },
            [] {});
        EXPECT_EQ(left, 0U);
        NumberPortabilityData found;
        for (std::uint64_t i = 0; i < recordsCM; i += 1 + random() % 100)
            for (unsigned const later : {0U, 1U}) {
                BAS::DateTime const at = BAS::DateTime::fromSeconds(firstSecondCM + 2 * i + later);
                ASSERT_TRUE(copy.search(number, at, found, NumberPortabilityTree::EXACT_MATCH));
                ASSERT_EQ(found.validFromM, instantOf(i));
            }
        EXPECT_FALSE(copy.search(number, BAS::DateTime::fromSeconds(firstSecondCM - 1), found, 0));
    }
}

TEST(Layout, ARefusedRecordTakesNoMemory) {
    BAS::String const number("00441711234567");
    NumberPortabilityTree tree;
    for (std::uint64_t length = 1; length <= LongHistory::leastCM + 1; ++length) {
        NumberPortabilityData const record(BAS::DateTime::fromSeconds(length), BAS::SimpleString("A long name"));
        ASSERT_TRUE(tree.insert(number, record, true));
        ASSERT_FALSE(tree.insert(number, record, true)); // what it takes meanwhile is kept for the next
        std::size_t const bytes = tree.bytes();
        for (int i = 0; i < 100; ++i)
            ASSERT_FALSE(tree.insert(number, record, true));
        EXPECT_EQ(tree.bytes(), bytes) << length;
    }
}

// To walk once for every digit would take hours.
TEST(Layout, FindsThePrefixesOfAVeryLongNumber) {
    std::string const number(20'000'000, '7'); // NOLINT(bugprone-string-constructor): so long it is
    NumberPortabilityTree tree;
    std::vector<std::size_t> expected;
    for (std::size_t const length : {1'000'000U, 17U, 16U, 7U, 6U, 1U}) { // the longest first
        tree.insert(BAS::String(number.substr(0, length)), {BAS::DateTime("20200101000000"), BAS::SimpleString("N")},
                    true);
        expected.push_back(length);
    }
    tree.insert("78", {BAS::DateTime("20200101000000"), BAS::SimpleString("N")}, true);
    std::vector<std::size_t> found;
    tree.visitPrefixes(BAS::String("+" + number), [&](BAS::String const& key, auto const& history) {
        EXPECT_EQ(key.str(), number.substr(0, key.length()));
        EXPECT_EQ(history.length(), 1U);
        found.push_back(key.length());
    });
    EXPECT_EQ(found, expected);
}

TEST(Layout, RefusesABatchOfUnequalSpans) {
    NumberPortabilityTree const tree;
    std::vector<BAS::String> const numbers(2);
    std::vector<BAS::DateTime> const instants(3);
    std::vector<NumberPortabilityData> records(2);
    bool found[2] = {};
    std::vector<LookUpDetail> details(2);
    EXPECT_THROW(tree.search(numbers, instants, records, found, 0), std::invalid_argument);
    EXPECT_THROW(tree.describeMany(numbers, instants, details, 0), std::invalid_argument);
    tree.search({}, {}, {}, {}, 0);
    tree.describeMany({}, {}, {}, 0);
}

// More networks than a record's word can number: the rest of the records keep their texts themselves.
TEST(Layout, HoldsMoreNetworksThanItNumbers) {
    constexpr unsigned networks = NetworkDictionary::mostCM + 500;
    NumberPortabilityTree tree;
    BAS::DateTime const when("20200101000000");
    for (unsigned i = 0; i < networks; ++i)
        ASSERT_TRUE(tree.insert(BAS::String(std::to_string(1'000'000 + i)),
                                {when, BAS::SimpleString(("N" + std::to_string(i)).c_str())}, true));
    for (unsigned const i : {0U, NetworkDictionary::mostCM - 1, NetworkDictionary::mostCM, networks - 1}) {
        NumberPortabilityData found;
        ASSERT_TRUE(tree.search(BAS::String(std::to_string(1'000'000 + i)), when, found, 1));
        EXPECT_EQ(found.networkIdM.view(), "N" + std::to_string(i));
    }
}

// A number with a value above others makes a path in the table. Its places have room for 8192 of them: with one more, a
// table of fewer digits serves.
TEST(Layout, ShortcutsKnowAsManyPathsAsTheyHaveRoomFor) {
    for (int const paths : {8192, 8193}) {
        Both both;
        std::vector<std::string> keys;
        for (int i = 0; i + 1 < paths; ++i) { // one path is the empty one
            std::string const number = std::to_string(10'000 + i).substr(1);
            both.insert(number, i);
            both.insert(number + "5", 10'000 + i);
            keys.push_back(number + "56");
        }
        both.makeShortcuts();
        for (std::string const& key : keys) {
            both.compare(key);
            if (HasFatalFailure())
                return;
        }
        both.compareMany(keys);
    }
}

TEST(BlockPool, ReusesFreedBlocksAndKnowsThePoolOfEachSize) {
    BlockPool pool;
    for (std::size_t const bytes :
         {std::size_t{16}, std::size_t{48}, BlockPool::largestCM, BlockPool::largestCM + 16, std::size_t{5} << 20}) {
        void* const first = pool.allocate(bytes);
        void* const second = pool.allocate(bytes);
        EXPECT_EQ(&BlockPool::of(first), &pool);
        EXPECT_EQ(&BlockPool::of(second), &pool);
        std::memset(first, 1, bytes);
        std::memset(second, 2, bytes);
        EXPECT_EQ(static_cast<char*>(first)[bytes - 1], 1);
        pool.release(first, bytes);
        pool.release(second, bytes);
        void* const again = pool.allocate(bytes);
        EXPECT_TRUE(bytes > BlockPool::largestCM || again == second);
    }
    pool.clear();
    EXPECT_EQ(pool.bytes(), 0U);
    EXPECT_EQ(&BlockPool::of(pool.allocate(16)), &pool);
}
