// The daemon as HTTP clients meet it: routes and fields, streams, who may ask what, TLS, limits, and its stop. What
// malformed requests are answered stands in http/malformed.txt.
#include "tests/HttpSite.h"

#include <atomic>
#include <netinet/in.h>
#include <random>
#include <set>
#include <sys/resource.h>
#include <sys/stat.h>

namespace {

constexpr char const* lookupCM = "POST /v1/lookup HTTP/1.1|Host: a|Content-Type: application/x-ndjson|";

std::string withBody(std::string const& head, std::string const& body) {
    return wire(head + "Content-Length: " + std::to_string(body.size()) + "||") + body;
}
std::string chunked(std::string const& data) {
    std::array<char, 20> size{};
    std::snprintf(size.data(), size.size(), "%zx\r\n", data.size());
    return size.data() + data + "\r\n";
}

// How many descriptors the process has.
std::size_t descriptorsOf(int process) {
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
         {R"("methods":{"best":{"found":true,"prefix":"00447700900123")", R"("ported":true,"reason":)",
          R"("configured":"best","range":{"prefix":"0044770","network":"ALPHA"},"nextChange":{"at":)"}},
        {"GET /v1/networks", 200, {R"({"networks":[]})"}},
        {"GET /v1/upcoming?from=20260101000000&until=20981231000000",
         200,
         {R"({"records":[{"prefix":"004477009","validFrom":"2098-01-01T00:00:00+00:00","network":{"id":"DELTA"},)"
          R"("from":{"id":"ALPHA"}}],)"
          R"("next":null})"}},
        {"GET /v1/upcoming?from=20260101000000&limit=1", 200, {"\"next\":\""}},
        {"GET /v1/upcoming?from=20190101000000&limit=1", 200, {"\"id\":\"ALPHA\"},\"from\":null}"}},
        {"GET /v1/upcoming?limit=0", 400, {"from 1 to 1000"}},
        {"GET /v1/upcoming?after=x", 400, {"no cursor"}},
        {"GET /v1/status", 200, {"\"ok\":true", "\"usable\":true"}},
        {"GET /metrics", 200, {"numberportability_", "text/plain; version=0.0.4"}},
        {"GET /livez", 200, {"\r\n\r\nok\n", "Cache-Control: no-store"}},
        {"GET /readyz", 200, {"\r\n\r\nok\n"}},
        {"GET /openapi.json", 200, {"\"openapi\""}},
        {"GET /?number=%2B447700900123", 200, {"Content-Security-Policy: default-src 'none'", "BRAVO"}},
        {"GET /?number=x", 400, {"text/html"}},
        {"GET /upcoming?from=20190101000000", 200, {"text/html", ">from nobody<", ">from <"}},
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
        site.expect("reload --wait", 0, "");
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
    // None took longer than a header may, whatever came of it.
    std::string const sum = "duration_seconds_sum{front=\"http\"} ";
    std::string const metrics = site.get("/metrics").body;
    ASSERT_TRUE(contains(metrics, sum));
    EXPECT_LT(std::stod(metrics.substr(metrics.find(sum) + sum.size())), 6.0 * static_cast<double>(clients.size()));
    EXPECT_EQ(site.get("/livez").status, 200);
    EXPECT_EQ(site.stop(), 0) << site.log();
}

TEST(HttpTest, AnswersStreamsLineByLineHoweverTheyAreSplit) {
    struct Case {
        std::string line;
        std::string part; // of its answer; empty: it has none
    };
    std::vector<Case> const lines = {
        {R"({"number":"+447700900123"})", R"({"number":"+447700900123","stored":"00447700900123")"},
        {R"({"number":"+447700900123","id":7})", R"("id":7)"},
        {R"({ "id" : {"a": [1, null]} , "number" : "+447700900123" } )", R"("id":{"a":[1,null]})"},
        {R"({"number":"\u002b447700900123","at":null,"method":null})", R"("id":"BRAVO")"},
        {R"({"number":"+447700900123","at":"20991001000000"})", R"("id":"CHARLIE")"},
        {R"({"number":"+447700900123","at":"2099-09-15T02:00:00Z","method":"exact"})", R"("id":"CHARLIE")"},
        {R"({"number":"+15550100"})", R"("found":false)"},
        {"\r", ""},
        {"  ", ""},
        {R"({"number":"07700 900123"})", R"({"line":10,"error":"'07700 900123' is not a number in E.164)"},
        {R"({"number":"x","id":"y"})", R"(takes other forms","id":"y"})"},
        {R"({"number":1})", R"('number' must be a text)"},
        {R"({"number":null})", R"('number' must be a text)"},
        {R"({"number":"+44","number":"+44"})", R"('number' comes twice)"},
        {R"({"number":"+44","id":1,"id":2})", R"('id' comes twice)"},
        {R"({"nmber":"+44"})", R"(there is no member 'nmber')"},
        {R"({"id":1})", R"("error":"the member 'number' is missing","id":1})"},
        {R"({"number":"+44","at":"x"})", R"('x' is not a valid instant)"},
        {R"({"number":"+44","method":"x"})", R"(the method 'x' is not)"},
        {R"({"number":"+44")", R"(no JSON object)"},
        {R"({"number":"+44"} {"number":"+44"})", R"(no JSON object)"},
        {R"(["number"])", R"(no JSON object)"},
        {"\xff", R"(no JSON object)"},
        {"{\"number\":\"+44\",\"id\":\"\xff\"}", R"(no JSON object)"},
        {std::string("{\"number\":\"+44\0\"}", 17), R"(no JSON object)"},
        {std::string(3000, '['), R"(no JSON object)"},
        {R"({"number":")" + std::string(300, '4') + R"("})", "longer than 256 characters"},
        {R"({"number":"+447700900123"})", R"("id":"BRAVO")"}, // the last, without a newline
    };
    std::string body;
    for (Case const& each : lines)
        body += (body.empty() ? "" : "\n") + each.line;
    HttpSite site("", "networks = \"networks\"\n");
    site.folder.write("networks", "[BRAVO]\ntext = \"" + std::string(5000, 'x') + "\"\n"); // longer than answers' lines
    ASSERT_NO_FATAL_FAILURE(site.start());
    std::string const head = replaced(lookupCM, "lookup HTTP", "lookup?at=20260131000000 HTTP");
    HttpClient client(site.place);
    client.send(withBody(head, body));
    Reply const whole = client.read();
    EXPECT_EQ(whole.field("Content-Type"), "application/x-ndjson");
    std::istringstream answers(whole.body);
    for (Case const& each : lines) {
        std::string answer;
        if (!each.part.empty())
            std::getline(answers, answer);
        EXPECT_TRUE(contains(answer, each.part)) << each.line << "\n" << answer;
        EXPECT_TRUE(answer.empty() || Json::accept(answer)) << answer;
    }
    EXPECT_EQ(answers.peek(), EOF);
    for (std::size_t const size : {1UL, 7UL, 100UL, 1000UL}) {
        std::string chunks;
        for (std::size_t at = 0; at < body.size(); at += size)
            chunks += chunked(body.substr(at, size));
        client.send(wire(head + "Transfer-Encoding: chunked||"));
        client.send(chunks + "0\r\n\r\n");
        EXPECT_EQ(client.read().body, whole.body) << "in chunks of " << size;
    }
    // To HTTP/1.0 the answer goes until the connection ends.
    client.send(replaced(withBody(head, body), "HTTP/1.1\r\n", "HTTP/1.0\r\nConnection: keep-alive\r\n"));
    Reply const old = client.read();
    EXPECT_EQ(old.field("Connection"), "close");
    EXPECT_EQ(old.body, whole.body);
}

TEST(HttpTest, AnswersStreamsWhileTheyComeIn) {
    HttpSite site;
    ASSERT_NO_FATAL_FAILURE(site.start());
    for (std::string const fields :
         {"Transfer-Encoding: chunked||", "Transfer-Encoding: chunked|Expect: 100-continue||"}) {
        HttpClient client(site.place);
        client.send(wire(lookupCM + fields));
        if (contains(fields, "Expect")) {
            EXPECT_EQ(client.read().status, 100);
        }
        EXPECT_TRUE(contains(client.until("\r\n\r\n"), "200 OK"));
        for (char const* const number : {"+447700900123", "x"}) { // each answer before the next question
            client.send(chunked(std::string("{\"number\":\"") + number));
            client.send(chunked("\"}\n"));
            std::string answer;
            EXPECT_GT(client.chunk(answer), 0U);
            EXPECT_TRUE(contains(answer, number)) << answer;
        }
        client.send("0\r\n\r\n" + wire("GET /livez HTTP/1.1|Host: a||"));
        EXPECT_EQ(client.until("\r\n\r\n"), "0\r\n\r\n");
        EXPECT_EQ(client.read().body, "ok\n");
    }
    // What breaks a stream ends the connection, without a last chunk and without another head.
    for (std::string const& wrong :
         {std::string("x\r\n"), "5;" + std::string(20'000, 'a'), std::string("5\r\n12345wrong\r\n")}) {
        HttpClient client(site.place);
        client.send(wire(lookupCM + std::string("Transfer-Encoding: chunked||")) +
                    chunked("{\"number\":\"+447700900123\"}\n"));
        client.until("\"BRAVO\"");
        client.send(wrong);
        std::string const rest = client.rest();
        EXPECT_FALSE(contains(rest, "HTTP/1.1") || contains(rest, "\r\n0\r\n")) << rest;
    }
    // So does a line without an end, which is told.
    HttpClient client(site.place);
    client.send(wire(lookupCM + std::string("Content-Length: 200000||")) + std::string(200'000, 'x'));
    Reply const reply = client.read();
    EXPECT_TRUE(contains(reply.body, "{\"line\":1,\"error\":\"the line is longer than 64 KiB")) << reply.body;
    EXPECT_EQ(client.rest(), "");
    EXPECT_EQ(site.get("/livez").status, 200);
}

TEST(HttpTest, AnswersCsv) {
    struct Case {
        char const* body;
        char const* answer; // behind the header of answers; without one "# ..." alone
    };
    constexpr char const* head = "number,stored,at,found,network,validFrom,validUntil,ported\r\n";
    std::string const found =
        "+447700900123,00447700900123,2026-01-31T00:00:00+00:00,true,BRAVO,2021-03-01T02:00:00+00:00,"
        "2099-09-15T02:00:00+00:00,true\r\n";
    std::vector<std::pair<std::string, std::string>> const cases = {
        {"number\n+447700900123\n", head + found},
        {"number\r\n+447700900123", head + found},
        {"method, at ,number\nbest,,+447700900123\n,20260131000000,\"+447700900123\"\n", head + found + found},
        {"number,at\n+447700900123\n\n+447700900123,\nx,\n",
         head + std::string("# line 2: it has not as many fields as the header\r\n") + found +
             "# line 5: 'x' is not a number in E.164 (+ and digits) or stored form (digits); normalise=true takes "
             "other forms\r\n"},
        {"number\n\"+44\n+447700900123\n", head + std::string("# line 2: its quotation marks are broken\r\n") + found},
        {"number\n\"+447700900123\n\"\n",
         head +
             std::string("# line 2: its quotation marks are broken\r\n# line 3: its quotation marks are broken\r\n")},
        {"at\n20200101000000\n", "# line 1: the header names no column number\r\n"},
        {"number,number\n", "# line 1: the header must name columns number, at and method, each once\r\n"},
        {"\n\n+447700900123\n", "# line 3: the header must name columns number, at and method, each once\r\n"},
        {"", ""},
    };
    HttpSite site;
    ASSERT_NO_FATAL_FAILURE(site.start());
    std::string const request =
        "POST /v1/lookup?at=20260131000000 HTTP/1.1|Host: a|Content-Type: text/CSV; header=present|";
    for (auto const& [body, answer] : cases)
        for (std::size_t const size : {std::string::npos, std::size_t{1}, std::size_t{9}}) {
            HttpClient client(site.place);
            client.send(wire(request + "Transfer-Encoding: chunked||"));
            for (std::size_t at = 0; at < body.size(); at += std::min(size, body.size()))
                client.send(chunked(body.substr(at, size)));
            client.send("0\r\n\r\n");
            EXPECT_EQ(client.read().body, answer) << body << " in pieces of " << size;
        }
}

TEST(HttpTest, AsksForTokensAndScopes) {
    // The digests of foo, bar, baz, and of nothing at all, which is what comes of a variable that is not set.
    std::string const tokens =
        "[asker]\nsha256 = \"2c26b46b68ffc68ff99b453c1d30413413422d706483bfa0f98a5e886266e7ae\"\nscopes = "
        "[\"lookup\"]\n"
        "[scraper]\nsha256 = \"FCDE2B2EDBA56BF408601FB721FE9B5C338D10EE429EA04FAE5511B68FBF8FB9\"\nscopes = "
        "[\"metrics\"]\n"
        "[chief]\nsha256 = \"baa5a0964d3320fbc0c6a922140453c8513ea24ab8fd0577034804a967248096\"\nscopes = [\"admin\"]\n"
        "[nobody]\nsha256 = \"e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855\"\nscopes = "
        "[\"lookup\"]\n";
    HttpSite site("tokens = \"tokens.toml\"\nallowOrigins = [\"https://a.b\"]\naccessLog = \"access\"\n",
                  "networks = \"networks\"\n");
    site.folder.write("tokens.toml", tokens);
    site.folder.write("networks", "");
    ASSERT_NO_FATAL_FAILURE(site.start());
    struct Case {
        char const* request;
        char const* fields;
        int status;
        char const* part = "";
    };
    constexpr char const* number = "GET /v1/numbers/+447700900123";
    std::vector<Case> const cases = {
        {number, "", 401, "WWW-Authenticate: Bearer"},
        {number, "Authorization: Bearer foo|", 200},
        {number, "Authorization: bEARER   foo |", 200},
        {number, "Authorization: Basic eDpmb28=|", 200}, // x:foo
        {number, "Authorization: Basic !|", 401},
        {number, "Authorization: Basic eDo=|", 401}, // x:
        {number, "Authorization: Basic|", 401},
        {number, "Authorization: Bearer|", 401},
        {number, "Authorization: Bearer fo|", 401, "none of those"},
        {number, "Authorization: Bearer foo bar|", 401},
        {number, "Authorization: foo|", 401},
        {number, "Authorization: Digest foo|", 401},
        {number, "Authorization: Bearer bar|", 403, "scope"},
        {number, "Authorization: Bearer baz|", 403},
        {"GET /metrics", "Authorization: Bearer bar|", 200},
        {"GET /metrics", "Authorization: Bearer foo|", 403},
        {"GET /", "", 401, "WWW-Authenticate: Basic"},
        {"GET /v1/status", "", 401},
        {"GET /v1/networks", "", 401},
        {"GET /v1/upcoming", "", 401},
        {"GET /upcoming", "", 401},
        {"POST /v1/lookup", "Content-Type: text/csv|", 401},
        {"GET /livez", "", 200},
        {"GET /readyz", "", 200},
        {"GET /openapi.json", "", 200},
        {"POST /v1/reload", "", 401},
        {"POST /v1/reload", "Authorization: Bearer foo|", 403},
        {"POST /v1/reload", "Authorization: Basic eDpiYXo=|", 403}, // x:baz, as a browser would send along
        {"POST /v1/reload", "Authorization: Bearer baz|", 200, "\"ok\":true"},
        {"POST /v1/reload", "Authorization: Bearer baz|Origin: https://evil|", 403, "origin"},
        {"POST /v1/reload", "Authorization: Bearer baz|Origin: https://a.b|", 200},
        {"GET /v1/reload", "Authorization: Bearer baz|", 405, "Allow: POST"},
        {"GET /livez", "Origin: https://a.b|", 200, "Access-Control-Allow-Origin: https://a.b\r\n"},
        {"GET /livez", "Origin: https://a.b.c|", 200, "Vary: Origin\r\n"},
        {"OPTIONS /v1/lookup", "Origin: https://a.b|Access-Control-Request-Method: POST|", 204,
         "Access-Control-Allow-Methods: GET, HEAD, POST\r\n"},
        {"POST /v1/lookup",
         "Authorization: Bearer foo|Content-Type: text/csv|Transfer-Encoding: chunked|Origin: https://a.b||0|", 200},
        {"GET /v1/upcoming", "Authorization: Bearer foo|Origin: https://a.b|", 200},
        {"OPTIONS /v1/lookup", "Origin: https://c|Access-Control-Request-Method: POST|", 204, "Vary: Origin\r\n"},
    };
    HttpClient client(site.place);
    for (Case const& test : cases) {
        Reply const reply = client.ask(test.request + std::string(" HTTP/1.1|Host: a|") + test.fields + "|");
        EXPECT_EQ(reply.status, test.status) << test.request << " " << test.fields << reply.head << reply.body;
        EXPECT_TRUE(contains(reply.head + reply.body, test.part)) << test.request << " " << reply.head;
        EXPECT_EQ(contains(reply.head, "Access-Control"), contains(test.fields, "https://a.b|")) << test.fields;
    }
    // A broken file leaves the old tokens, and is reported with its line; another takes their place.
    auto const asks = [&](char const* token) {
        return site.get("/v1/networks", std::string("Authorization: Bearer ") + token + "|").status;
    };
    site.folder.write("tokens.toml", "[asker]\nsha256 = \"2\"\n");
    site.daemon->signal(SIGHUP);
    EXPECT_TRUE(eventually([&] { return contains(site.log(), "tokens.toml:2: 'sha256' must be 64"); })) << site.log();
    // Nobody writes into these.
    for (char const* const name : {"tokens.toml", "networks"}) {
        std::filesystem::remove(site.folder.file(name));
        ASSERT_EQ(mkfifo(site.folder.file(name).c_str(), 0600), 0);
    }
    site.daemon->signal(SIGHUP);
    EXPECT_TRUE(eventually([&] {
        return contains(site.log(), "networks: is no regular file") &&
               contains(site.log(), "tokens.toml: is no regular file");
    })) << site.log();
    EXPECT_EQ(asks("foo"), 200);
    std::filesystem::remove(site.folder.file("tokens.toml"));
    site.folder.write(
        "tokens.toml",
        tokens.substr(tokens.find("[chief]")) +
            "[asker]\nsha256 = \"fcde2b2edba56bf408601fb721fe9b5c338d10ee429ea04fae5511b68fbf8fb9\"\nscopes = "
            "[\"lookup\"]\n");
    site.daemon->signal(SIGHUP);
    EXPECT_TRUE(eventually([&] { return asks("bar") == 200; }));
    EXPECT_EQ(asks("foo"), 401);
    EXPECT_EQ(site.stop(), 0);
    // Numbers are in no log, nor are tokens.
    std::string const all = site.log() + contentOf(site.folder.file("access"));
    EXPECT_TRUE(
        contains(all, "\"client\":\"asker\",\"method\":\"GET\",\"route\":\"/v1/numbers/{number}\",\"status\":200"));
    EXPECT_FALSE(contains(all, "7700900123") || contains(all, "Bearer") || contains(all, "baz"));
}

TEST(HttpTest, TakesReloadsAndDeltas) {
    HttpSite site("tokens = \"tokens.toml\"\nmaxDeltaMiB = 1\n",
                  "deltaFolders = [\"d\"]\n[host.guard]\nmaxLossPercent = 0\nmaxRejectedPercent = 50\n");
    site.folder.write("tokens.toml",
                      "[chief]\nsha256 = \"baa5a0964d3320fbc0c6a922140453c8513ea24ab8fd0577034804a967248096\"\nscopes "
                      "= [\"admin\", \"lookup\"]\n");
    std::filesystem::create_directory(site.folder.file("d"));
    site.folder.write("d/.http-delta-killed", "x"); // the start removes it
    ASSERT_NO_FATAL_FAILURE(site.start());
    std::string const token = "Authorization: Bearer baz|";
    auto const answers = [&](std::string const& number, std::string const& network) {
        return contains(site.get("/v1/numbers/" + number + "?format=text", token).body, "\t" + network + "\n");
    };
    struct Case {
        char const* target;
        std::string body;
        int status;
        char const* part;
        char const* network; // of +447700900124 after it
    };
    std::vector<Case> const cases = {
        {"delta", "00447700900124 20200101000000 NEW\n", 200, "\"succeeded\":true", "NEW"},
        {"delta", "00447700900124 20210101000000 NEWER\nbad\nbad\n", 409, "rejected", "NEW"},
        {"delta?force=true", "00447700900124 20210101000000 NEWER\nbad\nbad\n", 200, "\"succeeded\":true", "NEWER"},
        {"delta", "", 400, "no records", "NEWER"},
        {"delta?reuse=true", "x", 400, "'reuse'", "NEWER"},
        {"delta", std::string(1024 * 1024 + 1, '\n'), 413, "longer", "NEWER"},
        {"reload?force=maybe", "", 400, "'force' must be true or false", "NEWER"},
        {"reload", "", 200, "\"succeeded\":true", "NEWER"},
    };
    for (Case const& test : cases)
        for (bool const inChunks : {false, true}) {
            HttpClient client(site.place);
            std::string const head = "POST /v1/" + std::string(test.target) + " HTTP/1.1|Host: a|" + token;
            inChunks ? client.send(wire(head + "Transfer-Encoding: chunked||") +
                                   (test.body.empty() ? "" : chunked(test.body)) + "0\r\n\r\n")
                     : client.send(withBody(head, test.body));
            Reply const reply = client.read();
            EXPECT_EQ(reply.status, test.status) << test.target << inChunks << reply.body;
            EXPECT_TRUE(contains(reply.body, test.part)) << test.target << inChunks << reply.body;
            EXPECT_TRUE(answers("+447700900124", test.network)) << test.target << inChunks;
        }
    EXPECT_TRUE(std::filesystem::is_empty(site.folder.file("d"))) << "what was uploaded stays";
    // The guard holds reloads, too.
    site.folder.write("data.dat", "00447700900124 20200101000000 ALONE\n");
    EXPECT_EQ(site.ask("POST /v1/reload HTTP/1.1|Host: a|" + token + "|").status, 409);
    EXPECT_TRUE(answers("+447700900124", "NEWER"));
    EXPECT_EQ(site.ask("POST /v1/reload?force=true HTTP/1.1|Host: a|" + token + "|").status, 200);
    EXPECT_TRUE(answers("+447700900124", "ALONE"));
    std::filesystem::remove(site.folder.file("d"));
    HttpClient client(site.place);
    client.send(withBody("POST /v1/delta HTTP/1.1|Host: a|" + token, "x"));
    EXPECT_EQ(client.read().status, 503);
    EXPECT_EQ(site.stop(), 0);
}

TEST(HttpTest, SpeaksTls) {
    HttpSite site("certificate = \"server.pem\"\nkey = \"server.key\"\nclientAuthorities = \"client.pem\"\n"
                  "clientScopes = [\"lookup\", \"admin\"]\n",
                  "", dataCM, "\"127.0.0.1:0\", \"unix:h\"");
    auto const shell = [&](std::string const& command) {
        std::string const out = site.folder.file("shell");
        int const status = waitFor(
            spawn({"/bin/sh", "-c", "cd " + site.folder.path().string() + " && (" + command + ") > " + out + " 2>&1"}));
        return (status == 0 ? "" : "failed: ") + contentOf(out);
    };
    auto const certificate = [&](std::string const& name, std::string const& subject) {
        return shell("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN=" +
                     subject + " -addext subjectAltName=IP:127.0.0.1 -keyout " + name + ".key -out " + name + ".pem");
    };
    for (auto const& [name, subject] : {std::pair{"server", "a"}, {"client", "billing"}, {"other", "other"}}) {
        std::string const said = certificate(name, subject);
        ASSERT_FALSE(contains(said, "failed")) << said;
    }
    ASSERT_NO_FATAL_FAILURE(site.Site::start());
    std::string const port = site.placeAfter("at https://127.0.0.1:");
    std::string const server = "curl -sS -m 20 --cacert server.pem ";
    std::string const own = " --cert client.pem --key client.key ";
    std::string const number = " https://127.0.0.1:" + port + "/v1/numbers/+447700900123?format=text";
    struct Case {
        std::string command;
        char const* part;
    };
    std::vector<Case> const cases = {
        {server + own + number + number, "BRAVO\n+447700900123"},
        {server + number, "a token is needed"},
        {server + " --cert other.pem --key other.key " + number, "failed: "}, // of no authority that is known
        {server + " --http2 -w '%{http_version}'" + own + number, "BRAVO\n1.1"},
        {server + " --tls-max 1.2" + own + number, "BRAVO"},
        {server + " --tls-max 1.1" + own + number, "failed: "},
        {"curl -sS -m 20" + own + number, "failed: "},
        {server + own + " -X POST https://127.0.0.1:" + port + "/v1/reload", "\"succeeded\":true"},
        {server + own + " -H 'Origin: https://evil' -X POST https://127.0.0.1:" + port + "/v1/reload",
         "\"status\":403"},
        {server + own + " -H 'Content-Type: text/csv' --data-binary @questions https://127.0.0.1:" + port +
             "/v1/lookup",
         "true,BRAVO"},
        {server + own + " -H 'Content-Type: text/csv' -H Expect: -X POST -T wrong https://127.0.0.1:" + port +
             "/v1/lookup && echo fine",
         "each once\r\nfine"}, // answered long before all of it has come
        {server + " --unix-socket h http://a/v1/networks", "a token is needed"}, // no certificates there
        {"curl -sS -m 20 http://127.0.0.1:" + port + "/livez", "failed: "},
    };
    site.folder.write("questions", "number\n" + numberedLines(20'000, "+44", 7'700'900'123, ""));
    site.folder.write("wrong", "numbr\n" + numberedLines(500'000, "+44", 7'700'900'123, ""));
    for (Case const& test : cases)
        EXPECT_TRUE(contains(shell(test.command), test.part)) << test.command << "\n"
                                                              << contentOf(site.folder.file("shell"));
    // A new certificate is taken with SIGHUP; a broken one leaves the old.
    for (bool const isBroken : {true, false}) {
        isBroken ? (void)site.folder.write("server.pem", "x") : (void)certificate("server", "new");
        site.daemon->signal(SIGHUP);
        if (isBroken) {
            EXPECT_TRUE(eventually([&] { return contains(site.log(), "ERR_HOST_HTTP"); }));
        }
        EXPECT_TRUE(eventually([&] {
            return contains(shell("curl -sSvk -m 20 https://127.0.0.1:" + port + "/livez"),
                            isBroken ? "subject: CN=a" : "subject: CN=new");
        })) << contentOf(site.folder.file("shell"));
    }
    shell("openssl pkey -in server.key -aes128 -passout pass:x -out locked && mv locked server.key");
    site.daemon->signal(SIGHUP);
    EXPECT_TRUE(eventually([&] { return contains(site.log(), "server.key has a pass phrase"); })) << site.log();
    // Those who do not speak TLS to the end: none of them stays.
    std::vector<std::unique_ptr<HttpClient>> strange;
    for (char const* const bytes : {"", "x", "GET / HTTP/1.1\r\n\r\n", "\x16\x03\x01\x02"}) {
        strange.push_back(std::make_unique<HttpClient>(port));
        strange.back()->send(bytes);
    }
    for (auto const& client : strange)
        client->rest();
    EXPECT_EQ(site.stop(), 0) << site.log();
}

TEST(HttpTest, StartsOnlyWhereItIsSafe) {
    struct Case {
        char const* listen;
        char const* http;
        char const* part;
    };
    std::vector<Case> const cases = {
        {"\"0.0.0.0:0\"", "", "is not loopback: it needs 'certificate' and 'key', and 'tokens' or 'clientAuthorities'"},
        {"\"[::]:0\"", "", "is not loopback"},
        {"\"127.0.0.1:0\", \"0.0.0.0:0\"", "tokens = \"tokens\"\n", "is not loopback"},
        {"", "", "says nowhere to listen"},
        {"\"localhost:80\"", "", "'localhost:80' is no place to listen on"},
        {"\"127.0.0.1\"", "", "is no place"},
        {"\"::1:80\"", "", "is no place"},
        {"\"127.0.0.1:x\"", "", "is no place"},
        {"\"127.0.0.1:70000\"", "", "is no place"},
        {"\"127.0.0.1:-1\"", "", "is no place"},
        {"\"unix:none/h\"", "", "none/h"},
        {"\"127.0.0.1:0\"", "key = \"tokens\"\n", "'certificate' and 'key' must come together"},
        {"\"127.0.0.1:0\"", "key = \"tokens\"\ncertificate = \"tokens\"\n", "tokens: "},
        {"\"127.0.0.1:0\"", "clientAuthorities = \"tokens\"\n", "'clientAuthorities' needs"},
        {"\"127.0.0.1:0\"", "clientScopes = [\"all\"]\n", "there is no scope 'all'"},
        {"\"127.0.0.1:0\"", "tokens = \"none\"\n", "none"},
        {"\"127.0.0.1:0\"", "tokens = \"nphost.toml\"\n", "nphost.toml:"},
        {"\"127.0.0.1:0\"", "accessLog = \"none/log\"\n", "none/log cannot be opened"},
        {"\"127.0.0.1:0\"", "accessLog = \"pipe\"\n", "pipe cannot be opened: nobody reads"},
        {"\"127.0.0.1:0\"", "tokens = \"pipe\"\n", "pipe: is no regular file"},
        {"\"127.0.0.1:0\"", "tokens = \"/dev/zero\"\n", "/dev/zero: is no regular file"},
        {"\"127.0.0.1:0\"", "key = \"pipe\"\ncertificate = \"tokens\"\n", "pipe: is no regular file"},
        {"\"127.0.0.1:0\"", "threads = 0\n", "threads"},
        {"\"127.0.0.1:0\"", "module = \"data.dat\"\n", "data.dat"},
        {"\"127.0.0.1:0\"", "module = \"" NP_OTHER_FRONTS "version.so\"\n",
         "does not fit this host: it is of version 0"},
        {"\"127.0.0.1:0\"", "module = \"" NP_OTHER_FRONTS "sizes.so\"\n", "its objects have other sizes"},
        {"\"192.0.2.1:0\"", "", "is passed its sockets: see numberportability-http.socket"},
    };
    for (Case const& test : cases) {
        HttpSite site(test.http, "", dataCM, test.listen);
        site.folder.write("tokens", "");
        mkfifo(site.folder.file("pipe").c_str(), 0600);
        Result const result = runProgram(site.folder, {"run", "--config", site.configuration}, "run");
        EXPECT_EQ(result.status, 2) << test.listen << test.http << result.err;
        EXPECT_TRUE(contains(result.err, test.part)) << test.listen << test.http << result.err;
    }
}

TEST(HttpTest, ServesThePassedSockets) {
    HttpSite site("", "", dataCM, "");
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    int const passed = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(passed, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(passed, 5), 0);
    getsockname(passed, reinterpret_cast<sockaddr*>(&address), &length);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, passed, 9);
    pid_t const daemon =
        spawn({"/bin/sh", "-c",
               "exec 3<&9 9<&- >" + site.folder.file("out") + " 2>" + site.folder.file("log") +
                   "; LISTEN_FDS=1 LISTEN_FDNAMES=http LISTEN_PID=$$ exec " NP_PROGRAM_FOLDER "/nphost run --config " +
                   site.configuration},
              &actions);
    posix_spawn_file_actions_destroy(&actions);
    // The socket takes connections before there is a daemon: the first waits for it.
    HttpClient client(std::to_string(ntohs(address.sin_port)));
    close(passed);
    EXPECT_EQ(client.ask("GET /livez HTTP/1.1|Host: a||").status, 200) << site.log();
    kill(daemon, SIGTERM);
    EXPECT_EQ(waitFor(daemon), 0);
}

TEST(HttpTest, StopsWhenAllThatIsUnderWayIsAnswered) {
    HttpSite site("tokens = \"tokens\"\n", "", records(100'000));
    site.folder.write("tokens",
                      "[chief]\nsha256 = \"baa5a0964d3320fbc0c6a922140453c8513ea24ab8fd0577034804a967248096\"\nscopes "
                      "= [\"admin\", \"lookup\"]\n");
    ASSERT_NO_FATAL_FAILURE(site.start());
    HttpClient idle(site.place);
    EXPECT_EQ(idle.ask("GET /livez HTTP/1.1|Host: a||").status, 200);
    HttpClient untouched(site.place);
    HttpClient partial(site.place);
    partial.send("GET /livez HTT");
    HttpClient stream(site.place);
    stream.send(wire(lookupCM + std::string("Authorization: Bearer baz|Transfer-Encoding: chunked||")) +
                chunked("{\"number\":\"+447000000001\"}\n"));
    stream.until("\"found\":true");
    std::vector<std::unique_ptr<HttpClient>> commands; // one is under way, others wait
    for (int i = 0; i < 20; ++i) {                     // more than end before the signal comes
        commands.push_back(std::make_unique<HttpClient>(site.place));
        commands.back()->send(wire("POST /v1/reload HTTP/1.1|Host: a|Authorization: Bearer baz||"));
    }
    EXPECT_TRUE(eventually([&] { return contains(site.ctl({"--json", "status"}).out, "\"reload\""); }));
    site.daemon->signal(SIGTERM);
    EXPECT_EQ(idle.rest(), "");
    EXPECT_EQ(untouched.rest(), "");
    partial.send(wire("P/1.1|Host: a||"));
    Reply const last = partial.read();
    EXPECT_EQ(last.status, 200);
    EXPECT_EQ(last.field("Connection"), "close");
    EXPECT_EQ(partial.rest(), "");
    stream.send(chunked("{\"number\":\"+447000000002\"}\n") + "0\r\n\r\n");
    EXPECT_TRUE(contains(stream.rest(), "\r\n0\r\n\r\n"));
    std::multiset<std::string> statuses;
    for (auto const& command : commands)
        statuses.insert(statusesOf(command->rest()));
    EXPECT_GE(statuses.count("503"), 1U); // of those that waited
    EXPECT_EQ(statuses.count("503") + statuses.count("409") + statuses.count("200"), commands.size());
    EXPECT_EQ(site.daemon->wait(), 0) << site.log();
    EXPECT_FALSE(HttpClient(site.place).connected());
}

// As many connections as the limit of descriptors allows, 10,000 at the most: of addresses that each have as many as
// they may, and of kinds that each have to be let go in another way.
TEST(HttpTest, BearsManyConnectionsOfWhichNoneHurries) {
#ifdef NP_SANITIZED
    constexpr std::size_t wanted = 500;
#else
    constexpr std::size_t wanted = 10'000;
#endif
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    constexpr rlim_t others = 200; // what else the daemon and this program have open
    std::size_t const most = std::min<std::size_t>(wanted, std::max(limit.rlim_cur, others + 100) - others);
    if (most < wanted)
        std::cout << "only " << most << " connections: no more descriptors may be open here\n";
    std::size_t const ofAddress = most / 10 + 1; // ten addresses suffice for all of them
    HttpSite site("maxConnections = " + std::to_string(most) +
                      "\nmaxConnectionsPerAddress = " + std::to_string(ofAddress) + "\nidleSeconds = 6\nthreads = 2\n",
                  "", dataCM, "\"127.0.0.1:0\", \"unix:h\"");
    ASSERT_NO_FATAL_FAILURE(site.start());
    std::optional<HttpClient> observer(site.folder.file("h")); // its connection is one of them
    auto const counts = [&](std::string const& what) {
        return contains(observer->ask("GET /metrics HTTP/1.1|Host: a||").body, "numberportability_connections" + what);
    };
    ASSERT_TRUE(counts("{front=\"http\"} 1\n"));
    std::size_t const before = descriptorsOf(site.daemon->id());

    std::vector<std::unique_ptr<HttpClient>> clients;
    auto const refused = [&](in_addr_t from) {
        Reply const reply = HttpClient(site.place, from).read();
        return reply.status == 503 && reply.field("Retry-After") == "5" && reply.field("Connection") == "close";
    };
    for (in_addr_t from = INADDR_LOOPBACK; clients.size() + 1 < most; ++from) {
        for (std::size_t i = 0; i < ofAddress && clients.size() + 1 < most; ++i)
            clients.push_back(std::make_unique<HttpClient>(site.place, from));
        // Not more at once than the system queues.
        ASSERT_TRUE(
            eventually([&] { return counts("{front=\"http\"} " + std::to_string(clients.size() + 1) + "\n"); }));
        if (clients.size() + 1 < most) {
            ASSERT_TRUE(refused(from)) << clients.size();
        }
    }
    EXPECT_TRUE(refused(INADDR_LOOPBACK + 100));
    EXPECT_TRUE(counts("_refused_total{front=\"http\",reason=\"too_many\"} 1\n"));
    EXPECT_TRUE(counts("_refused_total{front=\"http\",reason=\"too_many_of_address\"} 9\n"));

    enum Kind { IDLE, USED, SENDS_SLOWLY, READS_SLOWLY, HALF_CLOSED };
    auto const kindOf = [](std::size_t i) {
        if (i % 50 == 0) // each of these fills the buffers of both ends
            return i % 100 == 0 ? READS_SLOWLY : HALF_CLOSED;
        return i % 3 == 0 ? IDLE : (i % 3 == 1 ? USED : SENDS_SLOWLY);
    };
    std::string large;
    for (int i = 0; i < 100; ++i)
        large += wire("GET /openapi.json HTTP/1.1|Host: a||");
    for (std::size_t i = 0; i < clients.size(); ++i) {
        HttpClient& client = *clients[i];
        if (kindOf(i) == USED) {
            ASSERT_EQ(client.ask("GET /livez HTTP/1.1|Host: a||").status, 200);
        }
        if (kindOf(i) >= READS_SLOWLY)
            client.send(large);
        if (kindOf(i) == HALF_CLOSED)
            client.endSending();
    }
    // A byte now and then of each of those: of a header, which so is never whole, or of an answer.
    std::jthread trickle([&](std::stop_token const& stop) {
        for (std::size_t round = 0; !stop.stop_requested(); ++round, poll(nullptr, 0, 300))
            for (std::size_t i = 0; i < clients.size() && !stop.stop_requested(); ++i) {
                char byte = "GET /livez HTTP/1.1\r\nHost: a\r\nX: yyyyyyyyyyyyyy"[std::min<std::size_t>(round, 45)];
                if (kindOf(i) == SENDS_SLOWLY)
                    (void)::send(clients[i]->descriptor(), &byte, 1, MSG_NOSIGNAL | MSG_DONTWAIT);
                else if (kindOf(i) >= READS_SLOWLY)
                    (void)::recv(clients[i]->descriptor(), &byte, 1, MSG_DONTWAIT);
            }
    });
    for (std::size_t i = 0; i < clients.size(); ++i)
        if (kindOf(i) < READS_SLOWLY) {
            ASSERT_EQ(statusesOf(clients[i]->rest()), kindOf(i) == SENDS_SLOWLY ? "408" : "") << i;
        }
    // Who reads, however slowly, has his time still; all others have gone, and leave room.
    auto const left = static_cast<std::size_t>(std::count_if(
        clients.begin(), clients.end(), [&, i = 0UL](auto const&) mutable { return kindOf(i++) > SENDS_SLOWLY; }));
    observer.emplace(site.folder.file("h")); // it was idle, too
    EXPECT_TRUE(eventually([&] { return counts("{front=\"http\"} " + std::to_string(left + 1) + "\n"); }));
    EXPECT_EQ(HttpClient(site.place).ask("GET /livez HTTP/1.1|Host: a||").status, 200);
    trickle = {}; // stopped and joined
    clients.clear();
    EXPECT_TRUE(eventually([&] { return descriptorsOf(site.daemon->id()) <= before; }))
        << descriptorsOf(site.daemon->id()) << " of " << before;
    EXPECT_EQ(site.stop(), 0) << site.log();
}

TEST(HttpTest, LimitsHoldAndDescriptorsReturn) {
    HttpSite site("maxConnections = 60\nmaxConnectionsPerAddress = 40\nidleSeconds = 1\nthreads = 2\n", "", dataCM,
                  "\"127.0.0.1:0\", \"unix:h\"");
    ASSERT_NO_FATAL_FAILURE(site.start());
    site.ask("GET /upcoming HTTP/1.1|Host: a||"); // what is made once is there
    auto const descriptors = [&] { return descriptorsOf(site.daemon->id()); };
    EXPECT_TRUE(eventually(
        [&] { return contains(site.get("/metrics").body, "numberportability_connections{front=\"http\"} 1\n"); }));
    std::size_t const before = descriptors();
    std::vector<std::unique_ptr<HttpClient>> clients;
    auto const connect = [&](std::string const& place, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            HttpClient& client = *clients.emplace_back(std::make_unique<HttpClient>(place));
            EXPECT_EQ(client.ask("GET /livez HTTP/1.1|Host: a||").status, 200);
            client.send(wire(i % 2 == 0 ? lookupCM + std::string("Transfer-Encoding: chunked||5|") : "GET / HTT"));
        }
    };
    auto const refused = [&](std::string const& place) { return statusesOf(HttpClient(place).rest()) == "503"; };
    // Each has been answered, and begins what it does not end, so that it is not idle.
    connect(site.place, 40);
    EXPECT_TRUE(refused(site.place));
    connect(site.folder.file("h"), 20);
    EXPECT_TRUE(refused(site.folder.file("h")));
    // Half-closed, reset, and left to their time.
    for (std::size_t i = 0; i < clients.size(); i += 3)
        clients[i]->endSending();
    linger const reset = {1, 0};
    for (std::size_t i = 1; i < clients.size(); i += 3) {
        setsockopt(clients[i]->descriptor(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        clients[i].reset(new HttpClient("1"));
    }
    EXPECT_TRUE(eventually([&] { return site.get("/livez").status == 200; }));
    HttpClient idle(site.place);
    EXPECT_EQ(idle.rest(), "") << "closed without a word when its time is over";
    clients.clear();
    // A half-closed client is answered what it asked for.
    HttpClient half(site.place);
    half.send(wire("GET /v1/status HTTP/1.1|Host: a||GET /upcoming HTTP/1.1|Host: a||GET /livez HTTP/1.1|Host: a||"));
    half.endSending();
    EXPECT_EQ(statusesOf(half.rest()), "200 200 200");
    // Who reads nothing is read no further, and nobody else waits for him.
    auto deaf = std::make_unique<HttpClient>(site.place);
    fcntl(deaf->descriptor(), F_SETFL, O_NONBLOCK);
    std::string many;
    for (int i = 0; i < 1000; ++i)
        many += wire("GET /openapi.json HTTP/1.1|Host: a||");
    auto const begin = Clock::now();
    std::size_t sent = 0;
    while (Clock::now() - begin < std::chrono::milliseconds(500) && sent < 100'000'000) {
        ssize_t const count = send(deaf->descriptor(), many.data(), many.size(), MSG_NOSIGNAL);
        sent += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    EXPECT_LT(sent, 20'000'000U);
    EXPECT_EQ(site.get("/livez").status, 200);
    setsockopt(deaf->descriptor(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    deaf.reset();
    EXPECT_TRUE(eventually([&] { return descriptors() <= before; })) << descriptors() << " of " << before;
    EXPECT_EQ(site.stop(), 0) << site.log();
}

// For the thread sanitizer above all: everything that may happen at once, and the stop in the midst of it.
TEST(HttpTest, BearsEverythingAtOnce) {
    std::string const asker =
        "[chief]\nsha256 = \"baa5a0964d3320fbc0c6a922140453c8513ea24ab8fd0577034804a967248096\"\nscopes = [\"admin\", "
        "\"lookup\", \"metrics\"]\n";
    HttpSite site("tokens = \"tokens\"\naccessLog = \"access\"\nthreads = 2\n", "networks = \"networks\"\n",
                  records(1000));
    site.folder.write("tokens", asker);
    site.folder.write("networks", "[A]\nname = \"a\"\n");
    ASSERT_NO_FATAL_FAILURE(site.start());
    std::atomic<bool> over{false};
    std::atomic<int> answered{0};
    std::string const token = "Authorization: Bearer baz|";
    std::string const get = " HTTP/1.1|Host: a|" + token + "|";
    std::string const lookups =
        withBody(lookupCM + token, numberedLines(300, "{\"number\":\"+44", 7'000'000'000, "\"}"));
    std::vector<std::string> const requests = {
        wire("GET /v1/numbers/+447000000001" + get + "GET /v1/numbers/+447000000002/explain" + get + "GET /livez" +
             get),
        lookups + lookups,
        wire("GET /metrics" + get + "GET /v1/status" + get),
        wire("GET /?number=%2B447000000003" + get + "GET /upcoming" + get + "GET /v1/upcoming" + get),
        wire("POST /v1/reload" + get + "GET /v1/networks" + get),
        withBody("POST /v1/delta HTTP/1.1|Host: a|" + token, "00448 20200101000000 B\n"),
        wire("GET /v1/numbers/x" + get) + "GET / HTTP/9\r\n\r\n",
    };
    std::vector<std::jthread> threads;
    for (std::string const& request : requests)
        threads.emplace_back([&] {
            while (!over) {
                HttpClient client(site.place);
                for (int i = 0; i < 3 && client.send(request); ++i) {
                    for (std::size_t left = request.size() / 200 + 1; left > 0 && !over; --left) {
                        pollfd ready = {client.descriptor(), POLLIN, 0};
                        if (poll(&ready, 1, 100) != 1 || !client.more())
                            break;
                        ++answered;
                    }
                }
            }
        });
    threads.emplace_back([&] {
        for (int i = 0; !over; ++i) {
            site.folder.write("tokens", i % 3 == 0 ? "broken" : asker);
            site.daemon->signal(SIGHUP);
            poll(nullptr, 0, 20);
        }
    });
    EXPECT_TRUE(eventually([&] { return answered > 300; }));
    auto const end = Clock::now() + std::chrono::seconds(2);
    while (Clock::now() < end && !site.daemon->status())
        poll(nullptr, 0, 50);
    site.daemon->signal(SIGTERM);
    EXPECT_EQ(site.daemon->wait(), 0) << site.log().substr(0, 5000);
    over = true;
}
