// nphost::Request and Response: one question over HTTP and its answer, free of any transport.
//
// Purpose: what the routes (Api.h) see of a request and say in answer; the server makes the one of what it has parsed
// and writes the other.
// Ownership: a request's texts are views of the server's memory, valid during the call; a response owns its own.
// Threads: values. Errors: std::bad_alloc. Complexity: constant.
// Source: RFC 9110 (HTTP semantics).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace nphost {

struct Request {
    std::string_view method;
    std::string_view target; // as it stands in the request line: path, '?' and query
    std::string_view host;   // empty: none
    std::string_view authorization;
    std::string_view contentType;
    std::string_view accept;
    std::string_view ifNoneMatch;
    std::string_view origin;
    std::string_view preflight;   // the method that a browser asks whether it may use
    std::string_view certificate; // the name that the client's certificate was given to; empty without one
    bool hasCertificate = false;  // that one of the configured authorities has signed
};

struct Response {
    unsigned int status = 200;
    char const* type = "application/json"; // constant
    std::string body;
    std::string entityTag;    // with its quotation marks; empty: none
    std::string cacheControl; // empty: no-store
    std::string headers;      // further ones, whole lines with CRLF
};

// "Not Found" for 404.
char const* reasonOf(unsigned int status);

// application/problem+json (RFC 9457); `detail` says what is wrong, for people.
Response problem(unsigned int status, std::string_view detail);

// The path and query of a target that may be a whole address, "http://HOST/...", of this Host (RFC 9112, section 3.2.2).
// What is for another Host stays as it is, and so is no path.
std::string_view pathOf(std::string_view target, std::string_view host);

// A request's path, cut at its slashes and decoded, and the values of its query.
class Target {
  public:
    // False when an escape is broken, or a path is not absolute.
    bool parse(std::string_view target);

    // The path as it stands, without the query.
    std::string_view path() const { return pathM; }
    // What stands behind the prefix, up to the next slash, decoded; what follows that goes to `rest`.
    static bool decode(std::string_view text, bool plusIsBlank, std::string& out);

    // Null when the query has no such name. Throws nothing: a broken escape was found by parse.
    std::string const* find(std::string_view name) const;
    // The name of a value that none of `known` is; empty when all are known. A name that comes twice is unknown, too.
    template <class Names>
    std::string_view unknown(Names const& known) const {
        for (std::size_t i = 0; i < countM; ++i) {
            bool isKnown = false;
            for (std::string_view const name : known)
                isKnown = isKnown || name == valuesM[i].name;
            for (std::size_t j = 0; j < i; ++j)
                isKnown = isKnown && valuesM[j].name != valuesM[i].name;
            if (!isKnown)
                return valuesM[i].name;
        }
        return {};
    }

  private:
    static constexpr std::size_t mostValuesCM = 8;
    struct Value {
        std::string name;
        std::string text;
    };

    std::string_view pathM;
    std::size_t countM = 0;
    Value valuesM[mostValuesCM];
};

} // namespace nphost
