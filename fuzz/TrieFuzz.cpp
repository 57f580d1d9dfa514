// Fuzz target: the digit trie and the number tree against a naive map from digit strings.
//
// Input: one operation a line; its first character says which, the rest is the key. "@" and one character
// behind a key, its last two, choose an instant (or the invalid one).
//   +key  insert                         =key  exact search
//   <key  search of the shortest prefix  *key  collect all prefixes
//   p     print                          !     empty both
//   c     copy the number tree           d     destroy the trie
//   s     make shortcuts
// Any other first character inserts the whole line. Every operation is done on a PBC::PtrTree of each layout and on a
// NumberPortabilityTree; at the end everything is compared once more.
#include "fuzz/Fuzz.h"
#include "store/NumberPortabilityTree.h"

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <type_traits>

namespace {

using namespace DAT::NumberPortability;
using npfuzz::checkEqual;

constexpr std::size_t LONGEST_INPUT = 4096;
constexpr char NEVER = '~'; // the character that chooses the invalid instant

// What a trie owns; counts its objects, so that a forgotten or doubled deletion shows.
template <bool packed>
class Value {
  public:
    explicit Value(std::uint64_t id) : idM(id) { ++livingM; }
    Value(Value const&) = delete;
    Value& operator=(Value const&) = delete;
    ~Value() { --livingM; }

    std::uint64_t id() const { return idM; }
    void printTree(std::ostream& out, BAS::String const& key) const { out << key << '=' << idM << '\n'; }

    static inline std::uint64_t livingM = 0;

  private:
    std::uint64_t idM;
};

using HistoryNode = PBC::PtrTreeNode<NumberPortabilityList>;

std::string digitsOf(std::string_view key) {
    std::string digits;
    std::copy_if(key.begin(), key.end(), std::back_inserter(digits), [](char c) { return c >= '0' && c <= '9'; });
    return digits;
}

// The root, and one node for every different prefix of the keys. Neighbours in order share their longest
// prefix.
template <class Map>
std::uint64_t nodesFor(Map const& map) {
    std::uint64_t nodes = 1;
    std::string_view previous;
    for (auto const& [key, ignored] : map) {
        auto const shared = std::mismatch(key.begin(), key.end(), previous.begin(), previous.end());
        nodes += static_cast<std::uint64_t>(key.end() - shared.first);
        previous = key;
    }
    return nodes;
}

// A trie and its model: the id stored under each digit string; the empty one is the root's.
template <bool packed>
class TriePair {
    using Value = ::Value<packed>;
    using Layout = std::conditional_t<packed, PBC::PackedLayout<Value>, PBC::PlainLayout<Value>>;
    using Trie = PBC::PtrTree<Value, Layout>;
    using TrieNode = PBC::PtrTreeNode<Value>;

  public:
    void insert(std::string const& key, std::uint64_t id) {
        std::string const digits = digitsOf(key);
        if (modelM.count(digits) != 0 && !digits.empty())
            return; // whoever may store a key twice searches first
        auto value = std::make_unique<Value>(id);
        trieM->insert(BAS::String(key), value.get());
        if (digits.empty())
            rootValueM.swap(value); // the root's value is replaced, not deleted; the trie owns the new one
        static_cast<void>(digits.empty() ? nullptr : value.release());
        modelM[digits] = id;
    }

    void search(std::string const& key) const {
        std::vector<std::uint64_t> const prefixes = prefixesOf(digitsOf(key));
        auto const exact = modelM.find(digitsOf(key));
        bool const stored = exact != modelM.end() && !exact->first.empty();
        checkId("exact search", key, trieM->search(BAS::String(key), true), stored ? exact->second : 0);
        checkId("shortest prefix", key, trieM->search(BAS::String(key), false), prefixes.empty() ? 0 : prefixes[0]);
    }

    // Upon what the stack holds already, which must stay.
    void collect(std::string const& key) const {
        Value bottom(UINT64_MAX);
        typename Trie::FoundStack found;
        found.push(&bottom);
        trieM->search(BAS::String(key), found);
        std::vector<std::uint64_t> prefixes = prefixesOf(digitsOf(key));
        std::vector<BAS::String> const many{BAS::String(key), BAS::String("0" + key), BAS::String(key)};
        trieM->search(many, [&](std::size_t i, typename Trie::Prefixes& values) {
            std::vector<std::uint64_t> expected = prefixesOf(digitsOf(many[i].str()));
            for (; !expected.empty() && !values.isEmpty(); expected.pop_back())
                checkId("a stored prefix of many", key, values.pop(), expected.back());
            checkEqual("prefixes of many not found", key, expected.size(), 0);
            checkEqual("no prefix more of many", key, values.isEmpty(), true);
        });
        for (; !prefixes.empty(); prefixes.pop_back())
            checkId("a stored prefix", key, found.isEmpty() ? nullptr : found.pop(), prefixes.back());
        checkId("what lay on the stack", key, found.isEmpty() ? nullptr : found.pop(), bottom.id());
        checkEqual("an empty stack", key, found.isEmpty(), true);
    }

    void print() const {
        std::ostringstream out;
        trieM->printTree(out);
        std::string expected;
        for (auto const& [key, id] : modelM)
            if (!key.empty())
                expected += key + '=' + std::to_string(id) + '\n';
        checkEqual("print", "the trie", out.str(), expected);
    }

    void count() const {
        checkEqual("nodes()", "the trie", trieM->nodes(), nodesFor(modelM));
        checkEqual("nodeCountM", "the trie", TrieNode::nodeCountM.load(), nodesFor(modelM));
        checkEqual("living values", "the trie", Value::livingM, modelM.size());
    }

    void makeShortcuts() { trieM->makeShortcuts(std::size_t{1} << 40); }

    void init() {
        releaseRoot();
        trieM->init();
        modelM.clear();
    }

    void destroy() {
        releaseRoot();
        trieM->destroy();
        checkEqual("nodes() when destroyed", "the trie", trieM->nodes(), 0);
        checkEqual("nodeCountM when destroyed", "the trie", TrieNode::nodeCountM.load(), 0);
        modelM.clear();
        trieM->init();
    }

    ~TriePair() {
        releaseRoot();
        trieM.reset();
        checkEqual("nodeCountM at the end", "the trie", TrieNode::nodeCountM.load(), 0);
        checkEqual("living values at the end", "the trie", Value::livingM, 0);
    }

  private:
    static void checkId(char const* what, std::string const& key, Value const* found, std::uint64_t expected) {
        checkEqual(what, key, found == nullptr ? 0 : found->id(), expected);
    }

    // The ids of the stored prefixes of the digits, the shortest first; none for a key without a digit.
    std::vector<std::uint64_t> prefixesOf(std::string const& digits) const {
        std::vector<std::uint64_t> ids;
        for (std::size_t length = 0; !digits.empty() && length <= digits.size(); ++length)
            if (auto const stored = modelM.find(digits.substr(0, length)); stored != modelM.end())
                ids.push_back(stored->second);
        return ids;
    }

    // The trie deletes its root's value with the root, so it must not be deleted here too.
    void releaseRoot() { static_cast<void>(rootValueM.release()); }

    std::unique_ptr<Trie> trieM = std::make_unique<Trie>();
    std::unique_ptr<Value> rootValueM;
    std::map<std::string, std::uint64_t> modelM;
};

// Instants by their character, in the characters' order; the invalid one is last.
BAS::DateTime instantOf(char character) {
    char digits[16];
    std::snprintf(digits, sizeof digits, "200001010000%02u", static_cast<unsigned char>(character) % 60U);
    return character == NEVER ? BAS::DateTime() : BAS::DateTime(std::string_view(digits));
}

// The number tree and its model: for every number its network identifiers by valid-from, newest first.
class TreePair {
  public:
    void insert(std::string const& key, char when, std::uint64_t id) {
        // Of every length around that at which an identifier moves to the heap.
        std::string const network = std::string(id % 12, 'N') + std::to_string(id);
        std::string const digits = digitsOf(key);
        bool const expected = !digits.empty() && modelM[digits].emplace(instantOf(when).seconds(), network).second;
        NumberPortabilityData const record(instantOf(when), BAS::SimpleString(network.c_str()));
        checkEqual("insertion", key, treeM->insert(BAS::String(key), record, true), expected);
        entriesM += expected ? 1 : 0;
    }

    void search(std::string const& key, char when) const {
        std::vector<Stored> const prefixes = prefixesOf(digitsOf(key));
        for (unsigned const method : {NumberPortabilityTree::BEST_MATCH, NumberPortabilityTree::EXACT_MATCH,
                                      NumberPortabilityTree::ANY_PREFIX_MATCH, 77U}) {
            checkSearch(key, when, method, chosen(prefixes, digitsOf(key).size(), instantOf(when).seconds(), method));
            checkDetail(key, when, method, prefixes);
        }
    }

    void print() const { checkListing(*treeM); }

    void count() const {
        checkEqual("entries", "the number tree", treeM->entries(), entriesM);
        checkEqual("nodeCountM", "the number tree", HistoryNode::nodeCountM.load(), nodesFor(modelM));
    }

    void init() {
        treeM->clearAndDestroy();
        modelM.clear();
        entriesM = 0;
    }

    void makeShortcuts() { treeM->prepare(); }

    // The copy replaces what it held, and takes the original's place.
    void copy() {
        auto copied = std::make_unique<NumberPortabilityTree>();
        copied->insert("4711", NumberPortabilityData(instantOf(' '), BAS::SimpleString("OLD")), true);
        copied->copyFrom(*treeM);
        checkListing(*copied);
        treeM = std::move(copied);
        count();
    }

    ~TreePair() {
        treeM.reset();
        checkEqual("nodeCountM at the end", "the number tree", HistoryNode::nodeCountM.load(), 0);
    }

  private:
    using History = std::map<std::uint64_t, std::string, std::greater<>>;

    // A stored prefix of some digits.
    struct Stored {
        std::size_t length;
        History const* history;
    };
    // The record that a method chooses: of which prefix, 0 for none, from when on.
    struct Choice {
        std::size_t length = 0;
        std::uint64_t from = 0;
        std::string network = {};
        bool operator==(Choice const&) const = default;
    };

    // The shortest first.
    std::vector<Stored> prefixesOf(std::string const& digits) const {
        std::vector<Stored> prefixes;
        for (std::size_t length = 1; length <= digits.size(); ++length)
            if (auto const stored = modelM.find(digits.substr(0, length)); stored != modelM.end())
                prefixes.push_back({length, &stored->second});
        return prefixes;
    }

    static Choice chosen(std::vector<Stored> const& prefixes, std::size_t digits, std::uint64_t at, unsigned method) {
        Choice choice;
        for (Stored const& prefix : prefixes) {
            if (method == NumberPortabilityTree::EXACT_MATCH && prefix.length != digits)
                continue;
            if (auto const record = prefix.history->lower_bound(at); record != prefix.history->end())
                choice = {prefix.length, record->first, record->second};
            if (method > NumberPortabilityTree::EXACT_MATCH)
                break;
        }
        return choice;
    }

    void checkSearch(std::string const& key, char when, unsigned method, Choice const& expected) const {
        std::string const what = "search by " + std::to_string(method);
        std::string const network = expected.length == 0 ? "UNCHANGED" : expected.network;
        NumberPortabilityData out(BAS::DateTime(), BAS::SimpleString("UNCHANGED"));
        checkEqual(what.c_str(), key, treeM->search(BAS::String(key), instantOf(when), out, method),
                   expected.length != 0);
        checkEqual(what.c_str(), key, out.networkIdM.view(), network);
        bool foundOfMany[1] = {};
        NumberPortabilityData ofMany[1] = {{BAS::DateTime(), BAS::SimpleString("UNCHANGED")}};
        BAS::String const numbers[1] = {BAS::String(key)};
        BAS::DateTime const instants[1] = {instantOf(when)};
        treeM->search(numbers, instants, ofMany, foundOfMany, method);
        checkEqual(what.c_str(), key, foundOfMany[0], expected.length != 0);
        checkEqual(what.c_str(), key, ofMany[0].networkIdM.view(), network);
    }

    void checkDetail(std::string const& key, char when, unsigned method, std::vector<Stored> prefixes) const {
        std::string const what = "detail by " + std::to_string(method);
        std::size_t const digits = digitsOf(key).size();
        std::uint64_t const at = instantOf(when).seconds();
        LookUpDetail details[1];
        BAS::String const numbers[1] = {BAS::String(key)};
        BAS::DateTime const instants[1] = {instantOf(when)};
        treeM->describeMany(numbers, instants, details, method);
        Choice const now = chosen(prefixes, digits, at, method);
        checkEqual(what.c_str(), key, details[0].prefixDigits, now.length);
        checkEqual(what.c_str(), key, details[0].record.networkIdM.view(), now.network);
        std::uint64_t next = BAS::DateTime().seconds();
        for (Stored const& prefix : prefixes)
            for (auto const& [from, network] : *prefix.history)
                if (from > at && from < next && chosen(prefixes, digits, from, method) != now)
                    next = from;
        checkEqual(("next change, " + what).c_str(), key, details[0].nextChange.seconds(), next);
        if (now.length == 0 && !details[0].nextChange.isValid()) {
            std::string const begun = digitsOf(key);
            bool const hasLonger = std::any_of(modelM.begin(), modelM.end(), [&](auto const& stored) {
                return stored.first.size() > begun.size() && stored.first.starts_with(begun);
            });
            checkEqual(("longer keys, " + what).c_str(), key, details[0].hasLonger, hasLonger);
        }
        std::erase_if(prefixes, [=](Stored const& prefix) { return prefix.length == digits; });
        Choice const range = chosen(prefixes, digits, at, NumberPortabilityTree::BEST_MATCH);
        checkEqual(("range, " + what).c_str(), key, details[0].rangeDigits, range.length);
        checkEqual(("range, " + what).c_str(), key, details[0].range.networkIdM.view(), range.network);
    }

    void checkListing(NumberPortabilityTree const& tree) const {
        std::ostringstream plain, headed, expected;
        tree.printTree(plain, false);
        tree.printTree(headed, true);
        for (auto const& [number, history] : modelM)
            for (auto const& [seconds, network] : history)
                expected << number << "  " << textOf(seconds) << "  " << network << '\n';
        std::string const rule = std::string(59, '-') + '\n';
        checkEqual("listing", "the number tree", plain.str(), expected.str());
        checkEqual("listing with heading", "the number tree", headed.str(),
                   rule + "                 Number Portability Data\n" + rule + expected.str());
    }

    // All instants lie in the first minute of 2000.
    static std::string textOf(std::uint64_t seconds) {
        std::uint64_t const second = seconds - instantOf('\0').seconds();
        return second >= 60 ? "INVALID" : "200001010000" + std::string(second < 10 ? "0" : "") + std::to_string(second);
    }

    std::unique_ptr<NumberPortabilityTree> treeM = std::make_unique<NumberPortabilityTree>();
    std::map<std::string, History> modelM;
    std::uint64_t entriesM = 0;
};

class Session {
  public:
    void carryOut(std::string line) {
        char when = '0';
        if (line.size() >= 3 && line[line.size() - 2] == '@') {
            when = line.back();
            line.resize(line.size() - 2);
        }
        carryOut(line.empty() ? '\0' : line[0], line.empty() ? line : line.substr(1), line, when);
        plainM.count();
        packedM.count();
        treeM.count();
    }

    void finish() const {
        plainM.print();
        packedM.print();
        treeM.print();
    }

  private:
    void carryOut(char operation, std::string const& key, std::string const& line, char when) {
        switch (operation) {
        case '=':
        case '<':
            plainM.search(key);
            packedM.search(key);
            treeM.search(key, when);
            break;
        case '*':
            plainM.collect(key);
            packedM.collect(key);
            break;
        case 'p':
            finish();
            break;
        case '!':
            plainM.init();
            packedM.init();
            treeM.init();
            break;
        case 'c':
            treeM.copy();
            break;
        case 's':
            plainM.makeShortcuts();
            packedM.makeShortcuts();
            treeM.makeShortcuts();
            break;
        case 'd':
            plainM.destroy();
            packedM.destroy();
            break;
        default:
            insert(operation == '+' ? key : line, when);
        }
    }

    void insert(std::string const& key, char when) {
        ++lastIdM;
        plainM.insert(key, lastIdM);
        packedM.insert(key, lastIdM);
        treeM.insert(key, when, lastIdM);
        plainM.search(key);
        packedM.search(key);
        treeM.search(key, when);
    }

    TriePair<false> plainM;
    TriePair<true> packedM;
    TreePair treeM;
    std::uint64_t lastIdM = 0;
};

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Session session;
    for (std::string const& line : npfuzz::linesOf(npfuzz::textOf(data, std::min(size, LONGEST_INPUT))))
        session.carryOut(line);
    session.finish();
    return 0;
}
