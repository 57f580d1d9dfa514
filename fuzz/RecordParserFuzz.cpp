// Fuzz target: parsing lines of a data file, number normalisation included, against a naive model.
//
// Input: four lines with the dialling codes (national access code, international access code, country code,
// international sign), then the lines of a data file. Compared: result and report of every line, and what the
// tree then holds; a listing whose numbers are all in stored form must read back to the same listing.
#include "cache/CacheManager.h"
#include "cache/OwnerServices.h"
#include "fuzz/Calendar.h"
#include "fuzz/Fuzz.h"

#include <functional>
#include <map>
#include <memory>
#include <sstream>

namespace {

constexpr char FILE_NAME[] = "fuzz.dat";
constexpr std::size_t LONGEST_INPUT = 8192;

// A report as one text: identifier, severity and the arguments, each in brackets.
std::string reportText(std::string const& identifier, int severity, std::vector<std::string> const& arguments) {
    std::string text = identifier + ' ' + std::to_string(severity);
    for (std::string const& argument : arguments)
        text += " [" + argument + ']';
    return text;
}

} // namespace

namespace DAT::NumberPortability {

// Stands in for the plug-in: keeps what is reported on it.
class PlugIn {
  public:
    std::string reportsM;
};

namespace OwnerServices {

bool checkFile(PlugIn&) {
    return true;
}

bool checkFile(PlugIn&, BAS::String const&) {
    return true;
}

void report(PlugIn& plugIn, BAS::String const& identifier, BAS::Status::Severity severity,
            BAS::Status::Arguments const& arguments) {
    std::vector<std::string> texts;
    for (BAS::String const& argument : arguments)
        texts.push_back(argument.str());
    plugIn.reportsM += reportText(identifier.str(), severity, texts);
}

BAS::String name(PlugIn const&) {
    return "fuzz";
}

} // namespace OwnerServices
} // namespace DAT::NumberPortability

namespace {

using namespace DAT::NumberPortability;
using npfuzz::checkEqual;

struct Codes {
    std::string national, international, country, sign;
};

std::string normalised(Codes const& codes, std::string const& number) {
    auto const begins = [&number](std::string const& code) { return number.compare(0, code.size(), code) == 0; };
    if (number.empty())
        return codes.international + codes.country;
    if (begins(codes.sign))
        return codes.international + number.substr(codes.sign.size());
    if (begins(codes.international))
        return number;
    if (begins(codes.national))
        return codes.international + codes.country + number.substr(codes.national.size());
    return codes.international + codes.country + number;
}

std::vector<std::string> wordsOf(std::string const& line) {
    std::vector<std::string> words;
    bool inWord = false;
    for (char const character : line) {
        bool const blank = std::string_view(" \t\r\v\f\n").find(character) != std::string_view::npos;
        if (!blank && !inWord)
            words.emplace_back();
        if (!blank)
            words.back() += character;
        inWord = !blank;
    }
    return words;
}

std::string digitsOf(std::string const& number) {
    std::string digits;
    for (char const character : number)
        if (character >= '0' && character <= '9')
            digits += character;
    return digits;
}

class Model {
  public:
    explicit Model(Codes codes) : codesM(std::move(codes)) {}

    struct Outcome {
        bool accepted;
        std::string report; // empty when there is none
    };

    Outcome insert(std::string const& line, unsigned long number) {
        std::vector<std::string> const words = wordsOf(line);
        std::string const place = " " + std::to_string(number) + " in File '" + FILE_NAME + "'. ";
        if (words.size() != 3)
            return {false, reportText("ERR_NUMBER_OF_FIELDS_IN_RECORD", 2,
                                      {std::to_string(words.size()), "3", line, "At Line#" + place})};
        std::string const full = normalised(codesM, words[0]);
        auto const rejected = [&](char const* identifier, std::string const& second, std::string const& third) {
            return reportText(identifier, 2, {"Invalid N-Port Data at Line#" + place, second, third});
        };
        if (!npfuzz::secondsOf(words[1]))
            return {false, rejected("ERR_INVALID_DATETIME", words[1], full)};
        if (digitsOf(full).empty())
            return {false, rejected("ERR_INVALID_NUMBER", full, words[1])};
        if (words[2].find('\0') != std::string::npos)
            return {false, rejected("ERR_INVALID_NETWORK_ID", words[2], full)};
        if (!recordsM[digitsOf(full)].emplace(words[1], words[2]).second)
            return {true, rejected("ERR_DUPLICATE_NUMPORTDATA", full, words[1])};
        return {true, {}};
    }

    std::string listing() const {
        std::string text;
        for (auto const& [number, history] : recordsM)
            for (auto const& [validFrom, network] : history)
                text.append(number).append("  ").append(validFrom).append("  ").append(network).append("\n");
        return text;
    }

    // Whether every stored number is one that normalisation leaves alone.
    bool isInStoredForm() const {
        return std::all_of(recordsM.begin(), recordsM.end(),
                           [this](auto const& entry) { return normalised(codesM, entry.first) == entry.first; });
    }

    using History = std::map<std::string, std::string, std::greater<>>; // network by valid-from, newest first
    std::map<std::string, History> const& records() const { return recordsM; }

  private:
    Codes codesM;
    std::map<std::string, History> recordsM;
};

std::string listingOf(NumberPortabilityTree const& tree) {
    std::ostringstream out;
    tree.printTree(out, false);
    return out.str();
}

// A cache manager with the codes of the input, and a reader that gives reports their file name.
class Parser {
  public:
    explicit Parser(Codes const& codes)
        : nationalM(codes.national), internationalM(codes.international), countryM(codes.country), signM(codes.sign),
          cacheManagerM(
              std::make_unique<CacheManager>(&plugInM, nationalM, internationalM, countryM, signM, 3, FILE_NAME)) {
        readerM.openFile(FILE_NAME, STR::FileIoTurbo::readModeCM);
    }

    Model::Outcome insert(NumberPortabilityTree& tree, std::string const& line, unsigned long number) {
        plugInM.reportsM.clear();
        bool const accepted = cacheManagerM->insertCache(&tree, line, number, true, readerM);
        return {accepted, plugInM.reportsM};
    }

    // Whole lines serve as numbers here: they may be empty and hold blanks, as no field of a line can.
    void checkNormalised(std::string const& number, std::string const& expected) const {
        BAS::String text(number);
        cacheManagerM->normalize(text);
        checkEqual("normalisation", number, text.view(), expected);
    }

  private:
    BAS::String nationalM, internationalM, countryM, signM;
    PlugIn plugInM;
    std::unique_ptr<CacheManager> cacheManagerM;
    STR::FileIoTurbo readerM;
};

void checkSearch(NumberPortabilityTree const& tree, Model const& model) {
    for (auto const& [number, history] : model.records())
        for (auto const& [validFrom, network] : history) {
            NumberPortabilityData found;
            bool const success = tree.search(number, BAS::DateTime(std::string_view(validFrom)), found,
                                             NumberPortabilityTree::EXACT_MATCH);
            checkEqual("finding a record", number, success, true);
            checkEqual("network identifier", number, found.networkIdM.view(), network);
        }
}

void checkReadsBack(Parser& parser, std::string const& listing) {
    NumberPortabilityTree tree;
    unsigned long number = 0;
    for (std::string const& line : npfuzz::linesOf(listing))
        checkEqual("report on reading back", line, parser.insert(tree, line, ++number).report, "");
    checkEqual("reading back", "the listing", listingOf(tree), listing);
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::vector<std::string> lines = npfuzz::linesOf(npfuzz::textOf(data, std::min(size, LONGEST_INPUT)));
    lines.resize(std::max<std::size_t>(lines.size(), 4));
    Codes const codes{lines[0], lines[1], lines[2], lines[3]};
    Parser parser(codes);
    Model model(codes);
    NumberPortabilityTree tree;
    for (std::size_t i = 4; i < lines.size(); ++i) {
        parser.checkNormalised(lines[i], normalised(codes, lines[i]));
        Model::Outcome const expected = model.insert(lines[i], i - 3);
        Model::Outcome const found = parser.insert(tree, lines[i], i - 3);
        checkEqual("acceptance", lines[i], found.accepted, expected.accepted);
        checkEqual("report", lines[i], found.report, expected.report);
    }
    checkEqual("listing", "the tree", listingOf(tree), model.listing());
    checkSearch(tree, model);
    if (model.isInStoredForm())
        checkReadsBack(parser, model.listing());
    return 0;
}
