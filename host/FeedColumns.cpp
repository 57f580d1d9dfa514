#include "host/FeedColumns.h"

#include "host/HostError.h"
#include "host/Text.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>

namespace nphost {

namespace {

constexpr std::array<std::string_view, FeedColumns::fieldsCM> namesCM = {"number", "valid-from", "network"};

// The field that the text names with a '=' behind, which goes.
std::optional<std::size_t> takeField(std::string_view& text) {
    for (std::size_t field = 0; field < namesCM.size(); ++field) {
        std::string_view const name = namesCM[field];
        if (text.starts_with(name) && text.substr(name.size()).starts_with('=')) {
            text.remove_prefix(name.size() + 1);
            return field;
        }
    }
    return std::nullopt;
}

// The column up to a comma behind which the next field stands.
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

std::optional<std::size_t> asPosition(std::string const& text) {
    std::size_t position = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), position);
    bool const whole = error == std::errc() && end == text.data() + text.size() && position > 0;
    return whole ? std::optional(position - 1) : std::nullopt;
}

} // namespace

char const* FeedColumns::nameOf(Field field) {
    return namesCM[field].data();
}

FeedColumns::FeedColumns(std::string_view map) {
    for (std::string_view rest = map; !rest.empty();) {
        std::optional<std::size_t> const field = takeField(rest);
        std::string_view const column = takeColumn(rest);
        if (!field || column.empty() || !columnsM[*field].empty())
            throw HostError("'" + shortened(map) +
                            "' maps no columns; write number=COLUMN,valid-from=COLUMN,network=COLUMN");
        columnsM[*field] = column;
    }
    for (std::size_t field = 0; field < fieldsCM; ++field)
        if (columnsM[field].empty())
            throw HostError("the map of columns lacks " + std::string(namesCM[field]) + "=COLUMN");
}

std::vector<std::size_t> FeedColumns::positions(std::vector<std::string> const& header, std::size_t count,
                                                std::string const& file) const {
    std::vector<std::size_t> result;
    for (Field const field : {NUMBER, VALID_FROM, NETWORK}) {
        result.push_back(position(field, header, count, file));
        for (std::size_t before = 0; before < field; ++before)
            if (result[before] == result[field])
                throw HostError(std::string(namesCM[before]) + " and " + nameOf(field) +
                                " are mapped to one column, '" + shortened(columnsM[field]) + "'");
    }
    return result;
}

std::size_t FeedColumns::position(Field field, std::vector<std::string> const& header, std::size_t count,
                                  std::string const& file) const {
    std::string const& column = columnsM[field];
    auto const found = std::find(header.begin(), header.end(), column);
    if (found != header.end()) {
        if (std::find(found + 1, header.end(), column) != header.end())
            throw HostError(file + ":1: two columns are called '" + shortened(column) + "'; give a position instead");
        return static_cast<std::size_t>(found - header.begin());
    }
    std::optional<std::size_t> const position = asPosition(column);
    if (position && *position < count)
        return *position;
    std::string const counted = std::to_string(count) + (count == 1 ? " column" : " columns");
    throw HostError(file + ":1: there is no column '" + shortened(column) + "' for " + nameOf(field) + " among the " +
                    counted + (count == 1 ? "; is the separator right?" : ""));
}

} // namespace nphost
