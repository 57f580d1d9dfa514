// Public numbering data through the real module, against a brute-force reading of the same files that shares no code
// with the product. The data lie beside the checkout where it is developed; elsewhere these tests are skipped.
#include "tests/LoadedPlugIn.h"

#include <algorithm>
#include <map>
#include <sstream>
#include <string_view>

namespace {

struct Line {
    std::string digits;
    std::string validFrom;
    std::string network;
};

// With country code 33, national access code 0, international access code 00 and sign +, spelled out.
std::string storedForm(std::string const& number) {
    if (number[0] == '+')
        return "00" + number.substr(1);
    if (number.compare(0, 2, "00") == 0)
        return number;
    return "0033" + (number[0] == '0' ? number.substr(1) : number);
}

std::vector<Line> linesOf(std::string const& file) {
    std::ifstream in(file);
    std::vector<Line> lines;
    for (Line line; in >> line.digits >> line.validFrom >> line.network; lines.push_back(line))
        line.digits = storedForm(line.digits);
    return lines;
}

using LinesByDigits = std::multimap<std::string_view, Line const*>;

// The lines whose digits the number begins with.
std::vector<Line> prefixesOf(std::string const& number, LinesByDigits const& lines) {
    std::vector<Line> prefixes;
    for (std::size_t length = 0; length <= number.size(); ++length) {
        auto const [first, last] = lines.equal_range(std::string_view(number).substr(0, length));
        std::for_each(first, last, [&](auto const& line) { prefixes.push_back(*line.second); });
    }
    return prefixes;
}

// Among the prefixes that the method allows, the longest (best match) or the shortest one's newest record that has
// started.
std::string bruteForce(std::vector<Line> const& prefixes, std::string const& number, std::string const& instant,
                       unsigned method) {
    std::map<std::size_t, std::pair<std::string, std::string>> newest; // by key length: started records only
    std::size_t shortest = std::string::npos;
    for (Line const& line : prefixes) {
        shortest = std::min(shortest, line.digits.size());
        auto& best = newest[line.digits.size()];
        if (line.validFrom <= instant && line.validFrom > best.first)
            best = {line.validFrom, line.network};
    }
    std::string answer = "-";
    for (auto const& [length, record] : newest) {
        bool const counts = method == 0 || (method == 1 ? length == number.size() : length == shortest);
        if (counts && !record.first.empty())
            answer = record.second; // ever longer keys
    }
    return answer;
}

class RealData : public LoadedPlugIn, public testing::WithParamInterface<std::vector<std::string>> {
  protected:
    static inline std::string const folderOfData = NP_SOURCE_FOLDER "/../shared/data/";
};

} // namespace

TEST_P(RealData, AgreesWithABruteForceReading) {
    std::vector<Line> lines;
    std::string all;
    for (std::string const& name : GetParam()) {
        if (!std::filesystem::exists(folderOfData + name))
            GTEST_SKIP() << "skipped: no ../shared/data/" << name << " beside this checkout";
        std::vector<Line> const more = linesOf(folderOfData + name);
        lines.insert(lines.end(), more.begin(), more.end());
    }
    folder.write("main", contentOf(folderOfData + GetParam()[0]));
    keys.clear();
    set("FileName", file);
    set("CountryCode", "33");
    set("NationalAccessCode", "0");
    createInitialised();
    for (std::size_t i = 1; i < GetParam().size(); ++i)
        EXPECT_EQ(update({{"AdditionalNumPortData", folderOfData + GetParam()[i]}}), "true handled");
    for (std::string const& entry : journal.take())
        EXPECT_TRUE(entry.starts_with("INF_") || entry.starts_with("EVT::ADD_NUM_PORT_DATA_SUCC")) << entry;

    LinesByDigits byDigits;
    for (Line const& line : lines)
        byDigits.emplace(line.digits, &line);
    std::size_t found = 0;
    for (std::size_t i = 0; i < lines.size(); i += 1 + lines.size() / 300) {
        Line const& line = lines[i];
        for (std::string const& number :
             {line.digits, line.digits + "1234", line.digits.substr(0, line.digits.size() - 1) + "7"}) {
            std::vector<Line> const prefixes = prefixesOf(number, byDigits);
            for (std::string const& instant :
                 {line.validFrom, std::string("20150601120000"), std::string("20270101000000")})
                for (unsigned const method : {0U, 1U, 2U}) {
                    DAT::NumberPortability::NumberPortabilityData out;
                    bool const answered = operationsM->searchBy(object(), BAS::String(number),
                                                                BAS::DateTime(BAS::String(instant)), out, method);
                    ASSERT_EQ(answered ? out.networkIdM.c_str() : "-", bruteForce(prefixes, number, instant, method))
                        << number << " at " << instant << " by " << method;
                    found += answered ? 1 : 0;
                }
        }
    }
    EXPECT_GT(found, 2000U);
}

INSTANTIATE_TEST_SUITE_P(Files, RealData,
                         testing::Values(std::vector<std::string>{"fr-blocks.dat"},
                                         std::vector<std::string>{"carriers.dat"},
                                         std::vector<std::string>{"fr-blocks.dat", "carriers.dat"}));
