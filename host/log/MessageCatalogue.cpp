#include "host/log/MessageCatalogue.h"

#include "host/base/Text.h"
#include "host/config/TomlFile.h"

namespace nphost {

namespace {

void appendFilled(std::string& out, std::string_view text, BAS::Status::Arguments const& arguments) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        char const next = text[i] == '%' && i + 1 < text.size() ? text[i + 1] : '\0';
        if (next >= '1' && next <= '9') {
            auto const position = static_cast<std::size_t>(next - '1');
            // An argument that is missing leaves nothing: the texts are an operator's, and a report must not fail for
            // one.
            if (position < arguments.length())
                appendShortened(out, arguments[position].view());
            ++i;
        } else {
            out += text[i];
            i += next == '%' ? 1 : 0;
        }
    }
}

} // namespace

MessageCatalogue::MessageCatalogue(std::filesystem::path const& file) {
    for (auto&& [key, node] : parseToml(readWhole(file), file)) {
        // At the start, where a wrong text can still be told.
        if (!node.is_string())
            throw errorAt(file, key.source(), "'" + shortened(key.str()) + "' must be a text");
        // Made fit to be shown once, not with every report.
        textsM.emplace(key.str(), visible(node.as_string()->get()));
    }
}

void MessageCatalogue::append(std::string& out, BAS::String const& identifier,
                              BAS::Status::Arguments const& arguments) const {
    auto const found = textsM.find(identifier.view());
    if (found != textsM.end())
        return appendFilled(out, found->second, arguments);
    appendVisible(out, identifier.view());
    for (BAS::String const& argument : arguments) {
        out += ' ';
        appendShortened(out, argument.view());
    }
}

} // namespace nphost
