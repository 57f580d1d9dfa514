#include "host/import/FeedColumns.h"

#include "host/base/HostError.h"
#include "host/base/Text.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace nphost {

namespace {

constexpr std::array<std::string_view, FeedColumns::fieldsCM> namesCM = {"number", "valid-from", "network"};

// The field that the text names with a '=' behind, which goes, as blanks before it do.
std::optional<std::size_t> takeField(std::string_view& text) {
    std::string_view const whole = text;
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    for (std::size_t field = 0; field < namesCM.size(); ++field) {
        std::string_view const name = namesCM[field];
        if (text.starts_with(name) && text.substr(name.size()).starts_with('=')) {
            text.remove_prefix(name.size() + 1);
            return field;
        }
    }
    text = whole;
    return std::nullopt;
}

// The column up to a comma behind which the next field stands.
// A column's name may have commas in it: only one before a field ends it.
std::string_view takeColumn(std::string_view& text) {
    for (std::size_t comma = text.find(','); comma != std::string_view::npos; comma = text.find(',', comma + 1)) {
        std::string_view next = text.substr(comma + 1);
        if (!takeField(next))
            continue;
        std::string_view const column = text.substr(0, comma);
        text.remove_prefix(comma + 1);
        return column;
    }
    return std::exchange(text, std::string_view());
}

} // namespace

char const* FeedColumns::nameOf(Field field) {
    return namesCM[field].data();
}

FeedColumns::FeedColumns(std::string_view map) {
    for (std::string_view rest = map; !rest.empty();) {
        std::optional<std::size_t> const field = takeField(rest);
        std::string_view const column = takeColumn(rest);
        // One message for all: who has the form before his eyes sees what is wrong.
        if (!field || column.empty() || !columnsM[*field].empty())
            throw HostError("'" + shortened(map) +
                            "' maps no columns; write number=COLUMN,valid-from=COLUMN,network=COLUMN");
        columnsM[*field] = column;
    }
    for (std::size_t field = 0; field < fieldsCM; ++field)
        if (columnsM[field].empty())
            throw HostError("the map of columns lacks " + std::string(namesCM[field]) + "=COLUMN");
}

std::vector<std::size_t> FeedColumns::positions(RecordInput& input) const {
    std::vector<std::size_t> result;
    for (Field const field : {NUMBER, VALID_FROM, NETWORK}) {
        result.push_back(input.positionOf(columnsM[field]));
        for (std::size_t before = 0; before < field; ++before)
            if (result[before] == result[field])
                throw HostError(std::string(namesCM[before]) + " and " + nameOf(field) +
                                " are mapped to one column, '" + shortened(columnsM[field]) + "'");
    }
    return result;
}

} // namespace nphost
