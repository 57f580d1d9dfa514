// nphost::Tokens: who may ask what over HTTP, by bearer tokens.
//
// Purpose: a file of TOML has a table a token, named after whoever has it. The token itself is not in it, but its
// digest, so that who reads the file cannot use it:
//
//     [billing]
//     sha256 = "2c26b46b68ffc68ff99b453c1d30413413422d706483bfa0f98a5e886266e7ae"  # printf %s TOKEN | sha256sum
//     scopes = ["lookup"]       # lookup: questions; metrics: /metrics; admin: reload and delta
//
// Ownership: a value. Threads: constant once read. Errors: ConfigurationError names file and line; std::bad_alloc.
// Complexity: a look is linear in the tokens, and takes as long for a right one as for a wrong one.
// Source: RFC 6750 (bearer tokens), FIPS 180-4 (SHA-256).
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace nphost {

using Scopes = unsigned int;
constexpr Scopes lookupScopeCM = 1;
constexpr Scopes metricsScopeCM = 2;
constexpr Scopes adminScopeCM = 4;

// HostError for a name that is none.
Scopes scopesOf(std::vector<std::string> const& names);

using Sha256 = std::array<unsigned char, 32>;
// The library's, lent by whoever has one.
using Digest = Sha256 (*)(std::string_view text);

class Tokens {
  public:
    struct Token {
        std::string name;
        Sha256 digest{};
        Scopes scopes = 0;
    };

    static Tokens read(std::filesystem::path const& file);
    static Tokens parse(std::string_view text, std::filesystem::path const& file);

    // Null when it is none of them.
    Token const* find(Sha256 const& digest) const;
    std::size_t size() const { return tokensM.size(); }

  private:
    std::vector<Token> tokensM;
};

// The token of an Authorization field; empty when it is of another scheme.
std::string_view bearerOf(std::string_view authorization);

} // namespace nphost
