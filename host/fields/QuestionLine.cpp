#include "host/fields/QuestionLine.h"
#include "host/base/Text.h"

#include "host/base/Instant.h"
#include "host/fields/NumberText.h"
#include "host/fields/Numbers.h"

#include <algorithm>

namespace nphost {

namespace {

// Not the tab, which may stand for an empty column, nor the carriage return, which makes a line no question.
bool isBlank(char c) {
    return c == ' ' || c == '\v' || c == '\f';
}

std::string_view columnOf(std::string_view line) {
    std::size_t length = 0;
    while (length < line.size() && line[length] != '\t' && !isBlank(line[length]))
        ++length;
    return line.substr(0, length);
}

void skipBlanks(std::string_view& line) {
    while (!line.empty() && isBlank(line.front()))
        line.remove_prefix(1);
}

// What separates a column from the next.
void skipSeparator(std::string_view& line) {
    skipBlanks(line);
    if (!line.starts_with('\t'))
        return;
    line.remove_prefix(1);
    skipBlanks(line);
}

std::string_view takeBytes(std::string_view& line, std::size_t length) {
    std::string_view const column = line.substr(0, length);
    line.remove_prefix(length);
    skipSeparator(line);
    return column;
}

std::string_view takeColumn(std::string_view& line) {
    return takeBytes(line, columnOf(line).size());
}

constexpr std::size_t dateLengthCM = 10;    // YYYY-MM-DD
constexpr std::size_t instantLengthCM = 19; // YYYY-MM-DD HH:MM:SS

// Whatever stands behind it: whether it is an offset is judged by who asks.
bool beginsWithInstant(std::string_view text) {
    return parseInstant(text.substr(0, instantLengthCM)).isValid() &&
           (text.size() == instantLengthCM || !isDigit(text[instantLengthCM]));
}

std::string_view takeInstant(std::string_view& line) {
    std::size_t length = columnOf(line).size();
    // The time of day belongs to the date only if both make an instant: else it is the next column.
    if (length == dateLengthCM && line.size() > length && line[length] == ' ') {
        std::size_t const both = length + 1 + columnOf(line.substr(length + 1)).size();
        length = beginsWithInstant(line.substr(0, both)) ? both : length;
    }
    return takeBytes(line, length);
}

// Whether a column was meant for an instant, a good one or not. No group of a number's digits is as long.
bool beginsInstant(std::string_view line) {
    std::string_view const column = columnOf(line);
    if (column.size() >= instantDigitsCM && std::all_of(column.begin(), column.end(), isDigit))
        return true;
    constexpr std::string_view date = "dddd-dd-dd";
    return column.size() >= date.size() && std::equal(date.begin(), date.end(), column.begin(), [&](char form, char c) {
               return form == 'd' ? isDigit(c) : form == c;
           });
}

// Group by group, for its blanks may be the number's own.
std::string_view takeSpacedNumber(std::string_view& line) {
    std::size_t length = 0;
    for (std::string_view rest = line; !rest.empty();) {
        if (hasDigit(line.substr(0, length)) && beginsInstant(rest)) // "tel: 00447700900123" is one number
            break;
        rest.remove_prefix(columnOf(rest).size());
        length = line.size() - rest.size();
        skipBlanks(rest);
        if (rest.starts_with('\t'))
            break;
    }
    return takeBytes(line, length);
}

} // namespace

// Columns are taken one after the other from the front; what is left behind the method is ignored.
QuestionLine::QuestionLine(std::string_view line, bool spaced) {
    skipBlanks(line);
    // What stands at the end, a carriage return included, is an editor's and no column.
    while (!line.empty() && (isBlank(line.back()) || line.back() == '\t' || line.back() == '\r'))
        line.remove_suffix(1);
    number = spaced ? takeSpacedNumber(line) : takeColumn(line);
    instant = takeInstant(line);
    // Columns that are lined up by several tabs: what comes next is the instant.
    if (instant.empty() && !line.empty() && !methodOfColumn(columnOf(line)))
        instant = takeInstant(line);
    method = takeColumn(line);
}

bool holdsColumns(std::string_view number) {
    if (std::any_of(number.begin(), number.end(), [](char c) { return static_cast<unsigned char>(c) < ' '; }))
        return true;
    // The first column may be anything: a number alone may look like an instant.
    for (std::string_view rest = number; !rest.empty();) {
        takeColumn(rest);
        if (beginsInstant(rest))
            return true;
    }
    return false;
}

std::optional<unsigned int> methodOfColumn(std::string_view text) {
    if (text.size() == 1 && text[0] >= '0' && text[0] < static_cast<char>('0' + searchMethodsCM))
        return static_cast<unsigned int>(text[0] - '0');
    return searchMethodOf(text);
}

} // namespace nphost
