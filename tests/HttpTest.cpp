// The daemon as HTTP clients meet it: routes and fields, streams, who may ask what, TLS, limits, and its stop. What
// malformed requests are answered stands in http/malformed.txt.
#include "tests/HttpSite.h"

#include <atomic>
#include <netinet/in.h>
#include <random>
#include <sys/resource.h>

namespace {

constexpr char const* lookupCM = "POST /v1/lookup HTTP/1.1|Host: a|Content-Type: application/x-ndjson|";

[[maybe_unused]] std::string withBody(std::string const& head, std::string const& body) {
    return wire(head + "Content-Length: " + std::to_string(body.size()) + "||") + body;
}
[[maybe_unused]] std::string chunked(std::string const& data) {
    std::array<char, 20> size{};
    std::snprintf(size.data(), size.size(), "%zx\r\n", data.size());
    return size.data() + data + "\r\n";
}

// How many descriptors the process has.
[[maybe_unused]] std::size_t descriptorsOf(int process) {
    std::filesystem::directory_iterator const all("/proc/" + std::to_string(process) + "/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

} // namespace

TEST(HttpTest, AnswersEachRoute) {
    struct Case {
        char const* request; // all but version and Host
        int status;
        std::vector<char const*> parts; // of head and body
    };
    std::vector<Case> const cases = {
        {"GET /v1/numbers/+447700900123?at=2026-01-31T12:00:00Z",
         200,
         {"Content-Type: application/json\r\n", "ETag: W/\"", "Cache-Control: private, max-age=60",
          R"({"number":"+447700900123","stored":"00447700900123","at":"2026-01-31T12:00:00+00:00",)"
          R"("found":true,"network":{"id":"BRAVO"},"validFrom":"2021-03-01T02:00:00+00:00",)"
          R"("validUntil":"2099-09-15T02:00:00+00:00","ported":true,"prefix":"00447700900123",)"
          R"("range":{"prefix":"0044770","network":"ALPHA"},"data":{"epoch":1}})"}},
        {"GET /v1/numbers/%2B447700900123?at=20980101000000&method=shortest", 200, {"\"id\":\"ALPHA\""}},
        {"GET /v1/numbers/004477009?at=20980101000000", 200, {"\"id\":\"DELTA\"", "\"ported\":true"}},
        {"GET /v1/numbers/0044770?at=2026-01-01T00:00:00", 200, {"\"id\":\"ALPHA\"", "\"ported\":null"}},
        {"GET /v1/numbers/07700%20900-123?normalise=true&at=20260101000000", 200, {"+447700900123"}},
        {"GET /v1/numbers/+15550100", 200, {"\"found\":false,\"network\":null", "\"prefix\":null,\"range\":null"}},
        {"GET /v1/numbers/+447700900123?format=text&at=20260131120000",
         200,
         {"Content-Type: text/plain; charset=utf-8", "\r\n\r\n+447700900123\t2026-01-31T12:00:00+00:00\tBRAVO\n"}},
        {"GET /v1/numbers/07700900123", 200, {"\"found\":false"}}, // stored form as it stands
        {"GET /v1/numbers/07700-900123", 400, {"application/problem+json", "\"status\":400,\"detail\":\"'07700-9"}},
        {"GET /v1/numbers/+", 400, {"is not a number"}},
        {"GET /v1/numbers/%0", 400, {"escape"}},
        {"GET /v1/numbers/%00", 400, {R"(\\x00)"}},
        {"GET /v1/numbers/%ff", 400, {R"(\\xff)"}},
        {"GET /v1/numbers/", 404, {"nothing at this path"}},
        {"GET /v1/numbers/+44/x", 404, {}},
        {"GET /v1/numbers/+44?at=yesterday", 400, {"'yesterday' is not a valid instant"}},
        {"GET /v1/numbers/+44?at=20260230000000", 400, {"not a valid instant"}},
        {"GET /v1/numbers/+44?method=longest", 400, {"best, exact or shortest"}},
        {"GET /v1/numbers/+44?format=xml", 400, {"json or text"}},
        {"GET /v1/numbers/+44?normalise=yes", 400, {"'normalise' must be true or false"}},
        {"GET /v1/numbers/+44?numbr=1", 400, {"'numbr'"}},
        {"GET /v1/numbers/+44?at=2026&at=2027", 400, {"'at' is no value of this request's, or comes twice"}},
        {"GET /v1/numbers/+44?a&b&c&d&e&f&g&h&i", 400, {"at most 8 values"}},
        {"GET /v1/numbers/+447700900123/history", 200, {R"("prefixes":[{"prefix":"00447700900123","records":[{)"}},
        {"GET /v1/numbers/+447700900123/explain?at=20260101000000",
         200,
         {R"("methods":{"best":{"found":true,"prefix":"00447700900123")",
          R"("configured":"best","nextChange":{"at":)"}},
        {"GET /v1/networks", 200, {R"({"networks":[]})"}},
        {"GET /v1/upcoming?from=20260101000000&until=20981231000000",
         200,
         {R"({"records":[{"prefix":"004477009","validFrom":"2098-01-01T00:00:00+00:00","network":{"id":"DELTA"}}],)"
          R"("next":null})"}},
        {"GET /v1/upcoming?from=20260101000000&limit=1", 200, {"\"next\":\""}},
        {"GET /v1/upcoming?limit=0", 400, {"from 1 to 1000"}},
        {"GET /v1/upcoming?after=x", 400, {"no cursor"}},
        {"GET /v1/status", 200, {"\"ok\":true", "\"usable\":true"}},
        {"GET /metrics", 200, {"numberportability_", "text/plain; version=0.0.4"}},
        {"GET /livez", 200, {"\r\n\r\nok\n", "Cache-Control: no-store"}},
        {"GET /readyz", 200, {"\r\n\r\nok\n"}},
        {"GET /openapi.json", 200, {"\"openapi\""}},
        {"GET /?number=%2B447700900123", 200, {"Content-Security-Policy: default-src 'none'", "BRAVO"}},
        {"GET /?number=x", 400, {"text/html"}},
        {"GET /upcoming", 200, {"text/html"}},
        {"GET /style.css", 200, {"text/css", "ETag: \""}},
        {"GET /app.js", 200, {"text/javascript"}},
        {"GET /nothing", 404, {"application/problem+json"}},
        {"GET //livez", 404, {}},
        {"GET /livez/", 404, {}},
        {"GET /%6civez", 404, {}},
        {"POST /livez", 405, {"Allow: GET, HEAD\r\n"}},
        {"get /livez", 405, {}},
        {"DELETE /v1/numbers/+44", 405, {"Allow: GET, HEAD\r\n"}},
        {"GET /v1/lookup", 405, {"Allow: POST\r\n"}},
        {"POST /v1/lookup", 415, {"application/x-ndjson or text/csv"}},
        {"POST /v1/reload", 403, {"no tokens are configured"}},
        {"POST /v1/delta", 403, {"no tokens are configured"}},
        {"OPTIONS /v1/lookup", 204, {"Allow: "}},
    };
    HttpSite site;
    ASSERT_NO_FATAL_FAILURE(site.start());
    // One after the other on a connection, and the same all at once.
    HttpClient single(site.place);
    HttpClient pipelined(site.place);
    std::string together;
    for (Case const& test : cases)
        together += wire(std::string(test.request) + " HTTP/1.1|Host: a||");
    std::jthread const sender([&] { pipelined.send(together); });
    for (Case const& test : cases) {
        std::string const request = std::string(test.request) + " HTTP/1.1|Host: a||";
        Reply const reply = single.ask(request);
        EXPECT_EQ(reply.status, test.status) << test.request << "\n" << reply.head << reply.body;
        for (char const* const part : test.parts)
            EXPECT_TRUE(contains(reply.head + reply.body, part)) << test.request << "\n" << reply.head << reply.body;
        EXPECT_TRUE(contains(reply.head, "\r\nDate: ") && contains(reply.head, "\r\nX-Content-Type-Options: nosniff"));
        EXPECT_EQ(reply.field("Connection"), "") << test.request;
        EXPECT_EQ(pipelined.read().status, test.status) << test.request;
        // HEAD says the same of a body that it does not send. What is counted or timed differs.
        if (std::string_view(test.request).starts_with("GET ") && test.status != 405) {
            Reply const head = single.ask("HEAD" + request.substr(3), true);
            EXPECT_EQ(head.status, test.status) << test.request;
            EXPECT_EQ(head.field("Content-Type"), reply.field("Content-Type"));
            EXPECT_FALSE(head.field("Content-Length").empty()) << test.request;
        }
    }
    EXPECT_EQ(site.stop(), 0) << site.log();
}

TEST(HttpTest, EntityTagsHoldUntilTheDataChange) {
    HttpSite site;
    ASSERT_NO_FATAL_FAILURE(site.start());
    for (char const* const target : {"/v1/numbers/+447700900123", "/v1/numbers/+447700900123/history", "/v1/networks",
                                     "/v1/numbers/+15550100?format=text"}) {
        std::string const tag = site.get(target).field("ETag");
        ASSERT_TRUE(tag.starts_with("W/\"") && tag.ends_with("\"")) << tag;
        std::vector<std::pair<std::string, int>> const cases = {
            {tag, 304},  {tag.substr(2), 304}, {"\"x\" ,  " + tag, 304},
            {"*", 304},  {"\"x\"", 200},       {tag.substr(0, tag.size() - 1), 200},
            {",,", 200}, {"\"\"", 200},
        };
        for (auto const& [field, status] : cases) {
            Reply const reply = site.get(target, "If-None-Match: " + field + "|");
            EXPECT_EQ(reply.status, status) << target << " " << field;
            EXPECT_EQ(reply.field("ETag"), tag);
        }
        site.expect("reload", 0, "");
        EXPECT_EQ(site.get(target, "If-None-Match: " + tag + "|").status, 200) << target;
    }
}

// A table of requests with the statuses that each is answered with, all sent at once, whole and byte by byte. Nothing
// may be answered beyond them.
TEST(HttpTest, RefusesWhatProgramsReadDifferently) {
    struct Case {
        std::string statuses;
        std::string what;
        std::string bytes;
    };
    auto const bytesOf = [](std::string_view text) {
        std::string bytes;
        while (!text.empty()) {
            char const c = text.front();
            text.remove_prefix(1);
            if (c == '|') {
                bytes += "\r\n";
            } else if (c == '{') {
                std::size_t const times = std::stoul(std::string(text));
                std::string_view const inner = text.substr(text.find('*') + 1, text.find('}') - text.find('*') - 1);
                for (std::size_t i = 0; i < times; ++i)
                    bytes += wire(std::string(inner));
                text.remove_prefix(text.find('}') + 1);
            } else if (c == '\\' && text.front() == 'x') {
                bytes += static_cast<char>(std::stoi(std::string(text.substr(1, 2)), nullptr, 16));
                text.remove_prefix(3);
            } else if (c == '\\') {
                static std::map<char, char> const escapes = {
                    {'n', '\n'}, {'r', '\r'}, {'t', '\t'}, {'0', '\0'}, {'s', ' '}};
                bytes += escapes.at(text.front());
                text.remove_prefix(1);
            } else {
                bytes += c;
            }
        }
        return bytes;
    };
    std::vector<Case> cases;
    std::ifstream table(NP_SOURCE_FOLDER "/tests/http/malformed.txt");
    for (std::string line; std::getline(table, line);) {
        if (line.empty() || line.starts_with('#'))
            continue;
        std::size_t const what = line.find("  ") + 2;
        std::size_t const request = line.find_first_not_of(' ', line.find("  ", what));
        cases.push_back({line.substr(0, what - 2), line.substr(what, line.find("  ", what) - what),
                         bytesOf(std::string_view(line).substr(request))});
    }
    ASSERT_GT(cases.size(), 100U);
    HttpSite site("maxConnectionsPerAddress = 1000\n");
    ASSERT_NO_FATAL_FAILURE(site.start());
    std::vector<std::unique_ptr<HttpClient>> clients;
    for (std::size_t const few : {std::size_t{0}, std::size_t{1000}}) // of the first bytes, each by itself
        for (Case const& test : cases) {
            auto const& client = clients.emplace_back(std::make_unique<HttpClient>(site.place));
            std::string_view const bytes = test.bytes;
            std::size_t at = 0;
            while (at < std::min(few, bytes.size()) && client->send(bytes.substr(at, 1)))
                ++at;
            client->send(bytes.substr(at));
        }
    for (std::size_t i = 0; i < clients.size(); ++i) {
        Case const& test = cases[i % cases.size()];
        std::string const answers = clients[i]->rest();
        EXPECT_EQ(statusesOf(answers), test.statuses) << test.what << (i < cases.size() ? "" : ", in bytes") << "\n"
                                                      << answers;
    }
    EXPECT_EQ(site.get("/livez").status, 200);
    EXPECT_EQ(site.stop(), 0) << site.log();
}
