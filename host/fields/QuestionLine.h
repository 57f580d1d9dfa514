// nphost::QuestionLine: one line of questions, "number [instant [method]]".
//
// Purpose: what every reader of questions, a line each, has in common. White space separates the columns: blanks, at
// most one tab among them, so that a second tab makes an empty column, which means as much as none. Further columns are
// ignored. White space around the line is none of it.
// - An instant in two parts, "2024-06-15 12:00:00" with an offset or without, is one column.
// - Where numbers may be as people write them, blanks may be a part of the number: it ends at a tab, or where something
//   stands that was meant for an instant.
// - A carriage return within the line means that its lines ended otherwise: it makes the line no question.
// Ownership: the columns refer to the line.
// Threads: no state.
// Errors: none; what a column holds is checked by whoever asks the question.
// Complexity: linear in the line, without allocation.
#pragma once

#include <optional>
#include <string_view>

namespace nphost {

struct QuestionLine {
    std::string_view number;
    std::string_view instant; // empty: none
    std::string_view method;  // empty: none

    // `spaced`: the number may hold blanks.
    QuestionLine(std::string_view line, bool spaced);
};

// Whether a text that should be one number holds more: a control character, as between lines and columns, or an instant
// behind a blank.
bool holdsColumns(std::string_view number);

// The search method of a column: "best", "exact" or "shortest", or 0, 1 or 2. None for any other text.
std::optional<unsigned int> methodOfColumn(std::string_view text);

} // namespace nphost
