#include "host/http/Tokens.h"

#include "host/base/HostError.h"
#include "host/base/Text.h"
#include "host/config/TomlFile.h"

#include <algorithm>

namespace nphost {

namespace {

Scopes scopeOf(std::string_view name) {
    if (name == "lookup")
        return lookupScopeCM;
    if (name == "metrics")
        return metricsScopeCM;
    return name == "admin" ? adminScopeCM : 0;
}

std::string noScope(std::string_view name) {
    return "there is no scope '" + shortened(name) + "'; the scopes are lookup, metrics and admin";
}

bool readDigest(std::string_view text, Sha256& out) {
    if (text.size() != out.size() * 2)
        return false;
    for (std::size_t i = 0; i < out.size(); ++i) {
        int const high = hexDigit(text[2 * i]);
        int const low = hexDigit(text[2 * i + 1]);
        if (high < 0 || low < 0)
            return false;
        out[i] = static_cast<unsigned char>(high * 16 + low);
    }
    return true;
}

Tokens::Token tokenOf(toml::key const& name, toml::table const& table, std::filesystem::path const& file) {
    Tokens::Token token;
    token.name = name.str();
    bool hasDigest = false;
    for (auto const& [key, node] : table) {
        if (key == "sha256") {
            auto const* const text = node.as_string();
            if (text == nullptr || !readDigest(text->get(), token.digest))
                throw errorAt(file, node.source(), "'sha256' must be 64 hexadecimal digits in quotation marks");
            hasDigest = true;
        } else if (key == "scopes") {
            auto const* const list = node.as_array();
            if (list == nullptr)
                throw errorAt(file, node.source(), "'scopes' must be a list: [\"lookup\"]");
            for (toml::node const& entry : *list) {
                auto const* const text = entry.as_string();
                Scopes const scope = text == nullptr ? 0 : scopeOf(text->get());
                if (scope == 0)
                    throw errorAt(file, entry.source(), noScope(text == nullptr ? std::string() : text->get()));
                token.scopes |= scope;
            }
        } else {
            throw errorAt(file, key.source(),
                          "unknown key '" + shortened(key.str()) + "' in [" + shortened(token.name) + "]");
        }
    }
    if (!hasDigest)
        throw errorAt(file, name.source(), "[" + shortened(token.name) + "] has no 'sha256'");
    if (token.scopes == 0)
        throw errorAt(file, name.source(), "[" + shortened(token.name) + "] has no 'scopes'");
    return token;
}

} // namespace

Scopes scopesOf(std::vector<std::string> const& names) {
    Scopes scopes = 0;
    for (std::string const& name : names) {
        Scopes const scope = scopeOf(name);
        if (scope == 0)
            throw HostError(noScope(name));
        scopes |= scope;
    }
    return scopes;
}

Tokens Tokens::read(std::filesystem::path const& file) {
    return parse(readWhole(file), file);
}

Tokens Tokens::parse(std::string_view text, std::filesystem::path const& file) {
    Tokens tokens;
    toml::table const root = parseToml(text, file);
    for (auto const& [key, node] : root) {
        auto const* const table = node.as_table();
        if (table == nullptr)
            throw errorAt(file, key.source(),
                          "'" + shortened(key.str()) + "' must be a table: [" + shortened(key.str()) + "]");
        Token token = tokenOf(key, *table, file);
        if (tokens.find(token.digest) != nullptr)
            throw errorAt(file, key.source(), "[" + shortened(token.name) + "] has the digest of another token");
        tokens.tokensM.push_back(std::move(token));
    }
    return tokens;
}

// Every byte of every digest is looked at, whatever was found before: the time tells nothing.
Tokens::Token const* Tokens::find(Sha256 const& digest) const {
    Token const* found = nullptr;
    for (Token const& token : tokensM) {
        unsigned int difference = 0;
        for (std::size_t i = 0; i < digest.size(); ++i)
            difference |= static_cast<unsigned int>(digest[i] ^ token.digest[i]);
        if (difference == 0)
            found = &token;
    }
    return found;
}

std::string_view bearerOf(std::string_view authorization) {
    constexpr std::string_view scheme = "bearer ";
    bool const isBearer = authorization.size() > scheme.size() &&
                          std::equal(scheme.begin(), scheme.end(), authorization.begin(),
                                     [](char a, char b) { return a == (b >= 'A' && b <= 'Z' ? b - 'A' + 'a' : b); });
    return isBearer ? trimmed(authorization.substr(scheme.size())) : std::string_view();
}

} // namespace nphost
