#include "framework/OMF/TomlLimits.h"

#include <algorithm>

namespace OMF::TomlLimits {

namespace {

// Goes through a text as a parser does: comments and texts in quotation marks are passed over.
class Scan {
  public:
    explicit Scan(std::string_view text) : textM(text) {}

    std::optional<Excess> run() {
        // Size, parts and depth, because each alone can cost the parser its stack, its memory or its time.
        if (textM.size() > mostBytesCM)
            return excess("the file is larger than " + std::to_string(mostBytesCM) + " bytes");
        for (; atM < textM.size(); ++atM) {
            take(textM[atM]);
            if (partsM > mostKeyPartsCM)
                return excess("a key has more than " + std::to_string(mostKeyPartsCM) + " parts");
            if (depthM > mostNestedCM)
                return excess("values are nested more than " + std::to_string(mostNestedCM) + " deep");
        }
        return std::nullopt;
    }

  private:
    void take(char character) {
        switch (character) {
        case '#':
            atM = std::min(textM.find('\n', atM), textM.size()) - 1;
            break;
        case '"':
        case '\'':
            passText(character);
            break;
        // Dots in numbers and instants count as well: no value has enough of them to reach the limit.
        case '.':
            ++partsM;
            break;
        case '[':
        case '{':
            ++depthM;
            partsM = 1;
            break;
        case ']':
        case '}':
            // A bracket too many is an error that the parser finds; here it must only not wrap around.
            depthM -= depthM == 0 ? 0 : 1;
            partsM = 1;
            break;
        // Behind these a new key may begin; the nesting goes on.
        case '\n':
        case '=':
        case ',':
            partsM = 1;
            break;
        default:
            break;
        }
    }

    // Stops at its last character. A text on one line that does not end there is an error, which ends the parser.
    void passText(char quote) {
        std::string const three(3, quote);
        // Three quotation marks open a text of several lines, which only three of the same end.
        bool const isLong = textM.substr(atM).starts_with(three);
        for (atM += isLong ? 3 : 1; atM < textM.size(); ++atM) {
            if (quote == '"' && textM[atM] == '\\') {
                ++atM;
            } else if (!isLong && (textM[atM] == quote || textM[atM] == '\n')) {
                return;
            } else if (isLong && textM.substr(atM).starts_with(three)) {
                atM += 2; // up to two more of them belong to the text
                while (atM + 1 < textM.size() && textM[atM + 1] == quote)
                    ++atM;
                return;
            }
        }
    }

    Excess excess(std::string reason) const {
        auto const passed = textM.substr(0, atM);
        return {std::move(reason), static_cast<std::size_t>(std::count(passed.begin(), passed.end(), '\n')) + 1};
    }

    std::string_view textM;
    std::size_t atM = 0;
    unsigned partsM = 1; // of the key under way
    unsigned depthM = 0; // of the value under way
};

} // namespace

std::optional<Excess> excessOf(std::string_view text) {
    return Scan(text).run();
}

} // namespace OMF::TomlLimits
