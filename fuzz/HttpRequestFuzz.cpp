// Fuzz target: requests over HTTP, from the bytes of a connection to their answers.
//
// Input: a byte that says where the rest is split once, then what a client sends. Whole, split there and byte by byte
// it must give the same requests, up to the same end; what is wrong with one that is not whole may be found later. Each that is taken is read once more by a naive reader of what
// RFC 9112 allows at the strictest: it must have the same end and the same body, or another program would see other
// requests. Each is answered by the routes; what they answer in JSON must be JSON.
#include "fuzz/Fuzz.h"
#include "fuzz/HttpSetting.h"
#include "host/http/RequestParser.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>

namespace {

using npfuzz::checkEqual;

struct Taken {
    std::string head; // as the parser understood it
    std::string body;
    std::size_t bytes = 0; // from its beginning to its end
};

struct Body : nphost::RequestParser::BodyVisitor {
    bool body(std::string_view piece) override {
        text += piece;
        return true;
    }
    std::string text;
};

// As the server does it.
class Reader {
  public:
    void take(std::string_view piece) {
        inputM += piece;
        while (!refused && !inputM.empty()) {
            if (!parserM) {
                if (inputM == "\r" && !emptyLineM)
                    return;
                if (inputM.starts_with("\r\n") && !std::exchange(emptyLineM, true)) {
                    passedM += 2;
                    inputM.erase(0, 2);
                    continue;
                }
                parserM.emplace();
            }
            nphost::RequestParser::Refusal refusal;
            std::size_t const count = parserM->put(inputM, bodyM, refusal);
            takenM += count;
            inputM.erase(0, count);
            if (refusal) {
                checkEqual("the refusal's status being one", inputM, refusal.status >= 400, true);
                refused = true;
            } else if (parserM->hasHeader() && parserM->isDone()) {
                finish();
            } else if (count == 0) {
                return;
            }
        }
    }

    std::vector<Taken> requests;
    std::vector<std::size_t> begins; // where each lies
    bool refused = false;

  private:
    void finish() {
        std::string head(parserM->method());
        head.append(" ").append(parserM->target()).append(parserM->keepsAlive() ? " keep" : " close");
        for (std::string_view const field : {parserM->authorization(), parserM->contentType(), parserM->ifNoneMatch()})
            head.append("\n").append(field);
        requests.push_back({std::move(head), std::exchange(bodyM.text, {}), takenM});
        begins.push_back(passedM);
        passedM += takenM;
        takenM = 0;
        emptyLineM = false;
        refused = !parserM->keepsAlive(); // nothing after it is read
        parserM.reset();
    }

    std::string inputM;
    Body bodyM;
    std::optional<nphost::RequestParser> parserM;
    std::size_t takenM = 0;
    std::size_t passedM = 0;
    bool emptyLineM = false;
};

std::string lower(std::string_view text) {
    std::string result(text);
    for (char& c : result)
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    return result;
}

// A line that ends in CRLF, without it, and taken off; none when another control character stands in it.
std::optional<std::string> lineOf(std::string_view& text) {
    std::size_t const end = text.find("\r\n");
    if (end == std::string_view::npos)
        return std::nullopt;
    std::string line(text.substr(0, end));
    text.remove_prefix(end + 2);
    bool const isClean = std::all_of(line.begin(), line.end(), [](char c) {
        auto const code = static_cast<unsigned char>(c);
        return (code >= ' ' && code != 127) || c == '\t';
    });
    return isClean ? std::optional(line) : std::nullopt;
}

std::optional<std::string> dechunked(std::string_view& text) {
    std::string body;
    for (;;) {
        std::optional<std::string> const line = lineOf(text);
        std::size_t const digits = line ? std::min(line->find_first_not_of("0123456789abcdefABCDEF"), line->size()) : 0;
        if (digits == 0 || digits > 15 ||
            (digits < line->size() && std::string_view("; \t").find((*line)[digits]) == std::string_view::npos))
            return std::nullopt;
        std::size_t const size = std::stoul(line->substr(0, digits), nullptr, 16);
        if (size == 0)
            break;
        if (text.size() < size + 2 || text.substr(size, 2) != "\r\n")
            return std::nullopt;
        body += text.substr(0, size);
        text.remove_prefix(size + 2);
    }
    for (;;) {
        std::optional<std::string> const trailer = lineOf(text);
        if (!trailer)
            return std::nullopt;
        if (trailer->empty())
            return body;
    }
}

// The request's body by the naive reader, if that takes exactly all of it.
std::optional<std::string> bodyOf(std::string_view text) {
    std::optional<std::string> const first = lineOf(text);
    if (!first || first->size() < 12)
        return std::nullopt;
    bool const isOld = first->ends_with(" HTTP/1.0");
    if (!isOld && !first->ends_with(" HTTP/1.1"))
        return std::nullopt;
    std::vector<std::string> lengths, encodings;
    int hosts = 0;
    for (;;) {
        std::optional<std::string> const line = lineOf(text);
        if (!line)
            return std::nullopt;
        if (line->empty())
            break;
        std::size_t const colon = line->find(':');
        if (colon == std::string::npos || colon == 0 || line->find_first_of(" \t") < colon)
            return std::nullopt;
        std::string const name = lower(std::string_view(*line).substr(0, colon));
        std::string value = line->substr(colon + 1);
        value.erase(0, std::min(value.find_first_not_of(' '), value.size()));
        value.erase(value.find_last_not_of(' ') + 1);
        hosts += name == "host" ? 1 : 0;
        if (name == "content-length")
            lengths.push_back(value);
        if (name == "transfer-encoding")
            encodings.push_back(lower(value));
    }
    if (hosts > 1 || (!isOld && hosts == 0) || lengths.size() + encodings.size() > 1)
        return std::nullopt;
    std::optional<std::string> body = "";
    if (!encodings.empty()) {
        body = encodings[0] == "chunked" && !isOld ? dechunked(text) : std::nullopt;
    } else if (!lengths.empty()) {
        if (lengths[0].empty() || lengths[0].size() > 18 ||
            lengths[0].find_first_not_of("0123456789") != std::string::npos)
            return std::nullopt;
        std::size_t const size = std::stoul(lengths[0]);
        if (size > text.size())
            return std::nullopt;
        body = text.substr(0, size);
        text.remove_prefix(size);
    }
    return text.empty() ? body : std::nullopt;
}

void checkAnswer(nphost::Response const& response) {
    checkEqual("the reason of its status", std::to_string(response.status),
               response.status == 500 || std::string_view(nphost::reasonOf(response.status)) != nphost::reasonOf(500),
               true);
    if (std::string_view(response.type).find("json") != std::string_view::npos && response.status != 304)
        checkEqual("its being JSON", response.body, nlohmann::json::accept(response.body), true);
    for (std::string const* const text : {&response.entityTag, &response.cacheControl})
        checkEqual("its being one line", *text, text->find_first_of("\r\n") == std::string::npos, true);
}

void answer(Taken const& taken) {
    static HttpSetting setting;
    static nphost::Api api(setting.parts(), setting.shared());
    std::vector<std::string> lines = npfuzz::linesOf(taken.head);
    lines.resize(4);
    nphost::Request request;
    std::string_view const first = lines[0];
    request.method = first.substr(0, first.find(' '));
    request.target = first.substr(first.find(' ') + 1, first.rfind(' ') - first.find(' ') - 1);
    request.authorization = lines[1];
    request.contentType = lines[2];
    request.ifNoneMatch = lines[3];
    nphost::Step step = api.handle(request);
    std::string out;
    switch (step.kind) {
    case nphost::Step::ANSWER:
        return checkAnswer(step.response);
    case nphost::Step::COMMAND:
        return checkEqual("the command's being JSON", step.command, nlohmann::json::accept(step.command), true);
    case nphost::Step::WORK:
        return checkAnswer(step.work());
    case nphost::Step::BODY:
        if (step.sink->take(taken.body, out))
            step.sink->end(out);
    }
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const text = npfuzz::textOf(data, size);
    if (text.empty() || text.size() > 16384)
        return 0;
    std::string_view const bytes = text.substr(1);
    std::size_t const split = std::min<std::size_t>(static_cast<unsigned char>(text[0]), bytes.size());
    Reader whole, parted, single;
    whole.take(bytes);
    parted.take(bytes.substr(0, split));
    parted.take(bytes.substr(split));
    for (std::size_t i = 0; i < bytes.size(); ++i)
        single.take(bytes.substr(i, 1));
    for (Reader const* const other : {&parted, &single}) {
        checkEqual("the number of requests", bytes, other->requests.size(), whole.requests.size());
        for (std::size_t i = 0; i < whole.requests.size(); ++i) {
            checkEqual("the request", bytes, other->requests[i].head, whole.requests[i].head);
            checkEqual("the request's body", bytes, other->requests[i].body, whole.requests[i].body);
            checkEqual("the request's end", bytes, other->requests[i].bytes, whole.requests[i].bytes);
        }
    }
    for (std::size_t i = 0; i < whole.requests.size(); ++i) {
        Taken const& taken = whole.requests[i];
        std::string_view const own = bytes.substr(whole.begins[i], taken.bytes);
        std::optional<std::string> const body = bodyOf(own);
        checkEqual("the naive reader's taking", own, body.has_value(), true);
        checkEqual("the body", own, taken.body, *body);
        answer(taken);
    }
    return 0;
}
