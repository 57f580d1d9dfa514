// Fuzz target: the file of tokens, and Authorization fields.
//
// Input: the file's text, whose first line is a field's value, too. Of accepted text each token that is found by a
// digest in it must have scopes and a name, and no more be found than there are; refused text must give one printable
// line that names the file. Anything thrown other than ConfigurationError ends the program.
#include "fuzz/Fuzz.h"
#include "host/config/ConfigurationError.h"
#include "host/http/Tokens.h"

#include <algorithm>
#include <cctype>
#include <set>

namespace {

using npfuzz::checkEqual;

// Of 64 hexadecimal digits.
nphost::Sha256 digestOf(std::string_view digits) {
    nphost::Sha256 digest{};
    for (std::size_t i = 0; i < digest.size(); ++i)
        digest[i] = static_cast<unsigned char>(std::stoi(std::string(digits.substr(2 * i, 2)), nullptr, 16));
    return digest;
}

void checkTokens(std::string_view text, nphost::Tokens const& tokens) {
    std::set<nphost::Tokens::Token const*> found;
    constexpr std::size_t length = 64;
    std::size_t digits = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        digits = std::isxdigit(static_cast<unsigned char>(text[i])) != 0 ? digits + 1 : 0;
        if (digits < length)
            continue;
        if (nphost::Tokens::Token const* const token = tokens.find(digestOf(text.substr(i + 1 - length, length)))) {
            checkEqual("the token's having scopes", token->name, token->scopes != 0, true);
            found.insert(token);
        }
    }
    checkEqual("the number of tokens", text, found.size() <= tokens.size(), true);
    bool const isEscaped = text.find('\\') != std::string_view::npos;
    checkEqual("all tokens' being found", text, isEscaped || found.size() == tokens.size(), true);
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const text = npfuzz::textOf(data, size);
    if (text.size() > 8192)
        return 0;
    std::string_view const field = text.substr(0, text.find('\n'));
    std::string_view const bearer = nphost::bearerOf(field);
    checkEqual("the token's being a part", field,
               bearer.empty() || field.substr(7).find(bearer) != std::string_view::npos, true);
    try {
        checkTokens(text, nphost::Tokens::parse(text, "t.toml"));
    } catch (nphost::ConfigurationError const& error) {
        std::string_view const message = error.what();
        checkEqual("the message's beginning", text, message.substr(0, 6), "t.toml");
        bool const printable = std::none_of(message.begin(), message.end(),
                                            [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 127; });
        checkEqual("the message's being printable", message, printable, true);
    }
    return 0;
}
