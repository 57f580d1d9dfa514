#include "host/http/Api.h"

#include "host/base/HostError.h"
#include "host/base/Instant.h"
#include "host/base/JsonWriter.h"
#include "host/base/Text.h"
#include "host/fields/Numbers.h"
#include "host/http/Answers.h"
#include "host/http/DeltaUpload.h"
#include "host/http/HttpShared.h"
#include "host/http/LookUpStream.h"
#include "host/http/MetricsText.h"
#include "host/http/OpenApi.h"
#include "host/http/Page.h"
#include "host/http/Questions.h"
#include "host/http/Upcoming.h"
#include "host/service/Front.h"
#include "host/service/QuestionError.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <simdjson.h>
#include <span>
#include <utility>

namespace nphost {

namespace {

// A request that cannot be answered as it stands.
class RequestError : public std::exception {
  public:
    RequestError(unsigned int status, std::string detail) : statusM(status), detailM(std::move(detail)) {}
    char const* what() const noexcept override { return detailM.c_str(); }
    unsigned int status() const { return statusM; }

  private:
    unsigned int statusM;
    std::string detailM;
};

constexpr std::string_view numbersPathCM = "/v1/numbers/";
constexpr std::size_t mostUpcomingCM = 1000;

Step answer(Response response) {
    Step step;
    step.response = std::move(response);
    return step;
}

Response json(std::string body) {
    Response response;
    response.body = std::move(body);
    return response;
}

Response plain(std::string body) {
    Response response;
    response.type = "text/plain; charset=utf-8";
    response.body = std::move(body);
    return response;
}

// "a/b;c=d" without its parameters, in lower case.
std::string mediaType(std::string_view text) {
    std::string type(trimmed(text.substr(0, text.find(';'))));
    std::transform(type.begin(), type.end(), type.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return type;
}

// RFC 4648; what is no base64 gives nothing.
std::string fromBase64(std::string_view text) {
    std::string out;
    unsigned int bits = 0;
    int count = 0;
    for (char const c : text) {
        unsigned int value = 0;
        if (c >= 'A' && c <= 'Z')
            value = static_cast<unsigned int>(c - 'A');
        else if (c >= 'a' && c <= 'z')
            value = static_cast<unsigned int>(c - 'a') + 26;
        else if (isDigit(c))
            value = static_cast<unsigned int>(c - '0') + 52;
        else if (c == '+' || c == '/')
            value = c == '+' ? 62 : 63;
        else if (c == '=')
            break;
        else
            return {};
        bits = bits << 6 | value;
        count += 6;
        if (count >= 8) {
            count -= 8;
            out += static_cast<char>(bits >> count & 0xff);
        }
    }
    return out;
}

} // namespace

class Api::Impl {
  public:
    Impl(FrontParts const& parts, HttpShared& shared) : partsM(parts), sharedM(shared), answersM(parts) {}

    Step handle(Request const& request) {
        Step step;
        try {
            step = route(request);
        } catch (RequestError const& error) {
            step = answer(problem(error.status(), error.what()));
            if (error.status() == 401)
                step.response.headers = "WWW-Authenticate: Bearer realm=\"numberportability\"\r\n"
                                        "WWW-Authenticate: Basic realm=\"numberportability\", charset=\"UTF-8\"\r\n";
            if (error.status() == 405)
                step.response.headers = std::string("Allow: ") + allowedM + "\r\n";
        } catch (QuestionError const& error) {
            step = answer(problem(400, error.what()));
        } catch (HostError const& error) {
            step = answer(problem(503, error.what()));
        }
        step.route = routeM;
        step.client = std::exchange(clientM, {});
        addOrigin(request, step.headers);
        return step;
    }

  private:
    // --- who asks ---

    struct Who {
        Scopes scopes = 0;
        bool byBasic = false;
    };

    Who who(Request const& request) {
        Who result;
        std::shared_ptr<Tokens const> const tokens = sharedM.tokens();
        if (!sharedM.settings().hasAuthentication())
            result.scopes = lookupScopeCM | metricsScopeCM;
        if (request.hasCertificate) {
            result.scopes |= sharedM.certificateScopes();
            clientM = request.certificate;
        }
        if (!tokens || request.authorization.empty())
            return result;
        std::string password;
        std::string_view secret = bearerOf(request.authorization);
        if (secret.empty() && mediaType(request.authorization.substr(0, 6)) == "basic" &&
            request.authorization.size() > 6) {
            // Browsers know no other way: the token is the password, whatever the name.
            std::string const pair = fromBase64(trimmed(request.authorization.substr(6)));
            std::size_t const colon = pair.find(':');
            password = colon == std::string::npos ? std::string() : pair.substr(colon + 1);
            secret = password;
            result.byBasic = true;
        }
        // Nothing is no token, also where a file has its digest by mistake.
        Tokens::Token const* const token = secret.empty() ? nullptr : tokens->find(sharedM.digest()(secret));
        if (token == nullptr)
            throw RequestError(401, "the token is none of those that are known");
        // A browser sends a password along with whatever page asks it to: nothing is commanded by one.
        result.scopes |= result.byBasic ? token->scopes & ~adminScopeCM : token->scopes;
        clientM = token->name;
        return result;
    }

    void require(Request const& request, Scopes scope) {
        Who const asking = who(request);
        if ((asking.scopes & scope) != 0)
            return;
        if (scope == adminScopeCM && !sharedM.settings().hasAuthentication())
            throw RequestError(403, "commands need a token with the scope admin, and no tokens are configured");
        if (request.authorization.empty() && !request.hasCertificate)
            throw RequestError(401, "a token is needed");
        throw RequestError(403, "the token has not the scope that this needs");
    }

    // Browsers say on whose behalf they ask: other people's pages command nothing.
    void requireAdmin(Request const& request) {
        require(request, adminScopeCM);
        if (!request.origin.empty() && !isAllowed(request.origin))
            throw RequestError(403, "the page's origin is not among allowOrigins");
    }

    bool isAllowed(std::string_view origin) const {
        auto const& origins = sharedM.settings().allowOrigins;
        return std::find(origins.begin(), origins.end(), origin) != origins.end();
    }

    void addOrigin(Request const& request, std::string& headers) const {
        if (sharedM.settings().allowOrigins.empty())
            return;
        headers += "Vary: Origin\r\n";
        if (!request.origin.empty() && isAllowed(request.origin))
            headers.append("Access-Control-Allow-Origin: ").append(request.origin).append("\r\n");
    }

    // --- routes ---

    void allow(Request const& request, char const* methods) {
        allowedM = methods;
        std::string_view rest = methods;
        while (!rest.empty()) {
            std::string_view const method = rest.substr(0, rest.find(','));
            if (request.method == method)
                return;
            rest.remove_prefix(std::min(method.size() + 2, rest.size()));
        }
        throw RequestError(405, "the method must be one of " + std::string(methods));
    }

    template <class... Names>
    void allowValues(Names... names) const {
        std::array<std::string_view, sizeof...(names)> const known = {names...};
        if (std::string_view const name = targetM.unknown(known); !name.empty())
            throw RequestError(400, "'" + shortened(name) + "' is no value of this request's, or comes twice");
    }

    Step route(Request const& request) {
        routeM = "-";
        if (!targetM.parse(pathOf(request.target, request.host)))
            throw RequestError(400, "the target is no path with a query of at most 8 values, or an escape is broken");
        std::string_view const path = targetM.path();
        if (request.method == "OPTIONS")
            return options(request);
        if (path.starts_with(numbersPathCM))
            return number(request, path.substr(numbersPathCM.size()));
        for (Route const& each : routes())
            if (path == each.path) {
                routeM = each.path;
                allow(request, each.methods);
                if (each.scope == adminScopeCM)
                    requireAdmin(request);
                else if (each.scope != 0)
                    require(request, each.scope);
                return (this->*each.handle)(request);
            }
        throw RequestError(404, "there is nothing at this path");
    }

    Step options(Request const& request) {
        Response response;
        response.status = 204;
        response.headers = "Allow: GET, HEAD, POST, OPTIONS\r\n";
        if (!request.preflight.empty() && isAllowed(request.origin))
            response.headers += "Access-Control-Allow-Methods: GET, HEAD, POST\r\n"
                                "Access-Control-Allow-Headers: Authorization, Content-Type\r\n"
                                "Access-Control-Max-Age: 600\r\n";
        return answer(std::move(response));
    }

    // --- one number ---

    LookUpQuestion question(std::string_view segment) {
        LookUpQuestion result;
        std::string written;
        if (!Target::decode(segment, false, written))
            throw RequestError(400, "an escape in the number is broken");
        if (std::string const* const flag = targetM.find("normalise"))
            result.normalise = readAskedFlag(*flag, "normalise");
        if (std::string const* const method = targetM.find("method"))
            result.method = readAskedMethod(*method);
        result.at = instant();
        BAS::String stored;
        readAskedNumber(written, result.normalise, partsM.numbers, stored);
        result.normalise = false;
        result.numbers.push_back(stored.str());
        return result;
    }

    // An empty one is that of a form that was left empty.
    BAS::DateTime instant() const {
        std::string const* const at = targetM.find("at");
        return at == nullptr || at->empty() ? partsM.clock.now() : readAskedInstant(*at, partsM.clock);
    }
    bool asksForNow() const {
        std::string const* const at = targetM.find("at");
        return at == nullptr || at->empty();
    }

    Step number(Request const& request, std::string_view rest) {
        std::size_t const slash = rest.find('/');
        std::string_view const segment = rest.substr(0, slash);
        std::string_view const view = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
        bool const isHistory = view == "history";
        bool const isExplain = view == "explain";
        if (segment.empty() || (slash != std::string_view::npos && !isHistory && !isExplain))
            throw RequestError(404, "there is nothing at this path");
        routeM = isHistory ? "/v1/numbers/{number}/history"
                           : (isExplain ? "/v1/numbers/{number}/explain" : "/v1/numbers/{number}");
        allow(request, "GET, HEAD");
        require(request, lookupScopeCM);
        if (isHistory || isExplain) {
            allowValues("at", "normalise");
            return whole(request, question(segment), isExplain);
        }
        allowValues("at", "method", "normalise", "format");
        std::string const* const format = targetM.find("format");
        if (format != nullptr && *format != "text" && *format != "json")
            throw RequestError(400, "'format' must be json or text");
        return single(request, question(segment), format != nullptr && *format == "text");
    }

    Step single(Request const& request, LookUpQuestion const& question, bool asText) {
        answersM.begin();
        Response response;
        partsM.service.describe(question, [&](NumberAnswer const& found) {
            (found.detail.found() ? foundM : notFoundM) += 1;
            // The range is no part of what the next change is of.
            response.entityTag = tag(found.detail.nextChange, found.detail.prefixDigits,
                                     found.detail.hasRange() ? found.detail.range.validFromM : BAS::DateTime());
            response.cacheControl = freshness(std::min(found.detail.nextChange, found.detail.rangeChange));
            if (asText) {
                response.type = "text/plain; charset=utf-8";
                answersM.text(response.body, found);
                response.body += '\n';
            } else {
                answersM.json(response.body, found);
            }
        });
        return unlessKnown(request, std::move(response));
    }

    Step whole(Request const& request, LookUpQuestion const& question, bool explains) {
        answersM.begin();
        Explained const explained = partsM.service.explain(question.numbers.front(), question.at, false);
        // The answer tells which data have answered: if others were put to work meanwhile, it is asked of them.
        if (partsM.plugIn.serviceStatus().epoch != answersM.epoch())
            return whole(request, question, explains);
        // Whatever is still to come of any prefix may change what one of the methods answers.
        BAS::DateTime next;
        for (auto const& prefix : explained.prefixes())
            for (auto const& record : prefix.history)
                if (question.at < record.validFromM && (!next.isValid() || record.validFromM < next))
                    next = record.validFromM;
        Response response;
        response.entityTag = tag(next, 0);
        response.cacheControl = freshness(next);
        explains ? answersM.explanation(response.body, explained) : answersM.history(response.body, explained);
        return unlessKnown(request, std::move(response));
    }

    // Weak: an answer for now tells the instant of the question, which is all that may differ under one tag.
    std::string tag(BAS::DateTime nextChange, std::uint32_t prefixDigits, BAS::DateTime rangeSince = {}) const {
        std::string text = "W/\"" + sharedM.startedAs() + "-" + answersM.version() + "-" + std::to_string(prefixDigits);
        if (nextChange.isValid())
            text.append("-").append(InstantDigits(nextChange).view());
        if (rangeSince.isValid())
            text.append("-r").append(InstantDigits(rangeSince).view());
        return text + "\"";
    }

    std::string freshness(BAS::DateTime nextChange) const {
        std::uint64_t seconds = sharedM.settings().cacheSeconds;
        // What is asked of now ends with the next change; other instants stay as they are until the data change.
        if (asksForNow() && nextChange.isValid()) {
            // Not by the data's clock, which may be put forward or back on the way.
            std::uint64_t const now = BAS::DateTime::now().seconds();
            seconds = std::min(seconds, std::max(partsM.clock.toUtc(nextChange).seconds(), now) - now);
        }
        return seconds == 0 ? "private, no-cache" : "private, max-age=" + std::to_string(seconds);
    }

    static Step unlessKnown(Request const& request, Response response) {
        std::string_view rest = request.ifNoneMatch;
        auto const opaque = [](std::string_view tag) { return tag.starts_with("W/") ? tag.substr(2) : tag; };
        bool known = trimmed(rest) == "*";
        while (!rest.empty() && !known) {
            std::string_view const one = trimmed(rest.substr(0, rest.find(',')));
            known = !one.empty() && opaque(one) == opaque(response.entityTag);
            std::size_t const comma = rest.find(',');
            rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
        }
        if (known) {
            response.status = 304;
            response.body.clear();
        }
        return answer(std::move(response));
    }

    // --- many numbers ---

    Step lookup(Request const& request) {
        allowValues("at", "method", "normalise");
        LookUpStream::Defaults defaults;
        if (!asksForNow())
            defaults.at = instant();
        if (std::string const* const method = targetM.find("method"))
            defaults.method = readAskedMethod(*method);
        if (std::string const* const flag = targetM.find("normalise"))
            defaults.normalise = readAskedFlag(*flag, "normalise");
        std::string const type = mediaType(request.contentType);
        bool const isCsv = type == "text/csv";
        if (!isCsv && type != "application/x-ndjson" && type != "application/json" && type != "application/jsonl")
            throw RequestError(415, "the body must be application/x-ndjson or text/csv");
        Step step;
        step.kind = Step::BODY;
        step.sink = std::make_unique<LookUpStream>(
            partsM, answersM, isCsv ? LookUpStream::Format::CSV : LookUpStream::Format::NDJSON, defaults);
        return step;
    }

    Step networks(Request const& request) {
        allowValues();
        answersM.begin();
        Response response;
        response.entityTag = tag({}, 0);
        response.cacheControl = "private, no-cache";
        answersM.networks(response.body);
        return unlessKnown(request, std::move(response));
    }

    UpcomingQuestion upcomingQuestion() const {
        UpcomingQuestion result;
        auto const read = [this](char const* name, BAS::DateTime otherwise) {
            std::string const* const text = targetM.find(name);
            return text == nullptr || text->empty() ? otherwise : readAskedInstant(*text, partsM.clock);
        };
        result.from = read("from", partsM.clock.now());
        result.until = read("until", {});
        if (std::string const* const limit = targetM.find("limit")) {
            auto const [end, error] = std::from_chars(limit->data(), limit->data() + limit->size(), result.limit);
            if (error != std::errc() || end != limit->data() + limit->size() || result.limit == 0 ||
                result.limit > mostUpcomingCM)
                throw QuestionError("'limit' must be a number from 1 to " + std::to_string(mostUpcomingCM));
        }
        if (std::string const* const after = targetM.find("after"); after != nullptr && !after->empty()) {
            if (!isCursor(*after))
                throw QuestionError("'after' is no cursor of an answer");
            result.after = *after;
        }
        return result;
    }

    // All stored records are looked at: not on this thread.
    Step upcomingRecords(Request const& /*request*/) {
        allowValues("from", "until", "limit", "after");
        Step step;
        step.kind = Step::WORK;
        step.work = [&parts = partsM, question = upcomingQuestion()] {
            UpcomingEntries const found = upcoming(parts.plugIn, question);
            AnswerWriter answers(parts);
            answers.begin();
            Response response;
            std::string& out = response.body;
            out = "{\"records\":[";
            for (UpcomingEntry const& entry : found.entries) {
                out.append(&entry == found.entries.data() ? "" : ",").append("{\"prefix\":\"").append(entry.prefix);
                out += "\",\"validFrom\":";
                answers.instant(out, entry.validFrom);
                out.append(",\"network\":").append(answers.network(entry.network)).append(",\"from\":");
                out.append(entry.before ? answers.network(*entry.before) : "null").append("}");
            }
            out += "],\"next\":";
            if (found.next.empty())
                out += "null";
            else
                out.append("\"").append(found.next).append("\"");
            out += "}\n";
            return response;
        };
        return step;
    }

    // --- commands ---

    static Step command(std::string line) {
        Step step;
        step.kind = Step::COMMAND;
        step.command = std::move(line);
        return step;
    }

    std::string commandLine(char const* name, std::string_view file) const {
        std::string line;
        JsonWriter writer(line);
        writer.beginObject().member("version", 1).member("command", name);
        if (!file.empty())
            writer.member("file", file);
        for (char const* const flag : {"reuse", "force"})
            if (std::string const* const value = targetM.find(flag))
                writer.member(flag, readAskedFlag(*value, flag));
        writer.endObject();
        return line;
    }

    Step status(Request const& /*request*/) {
        allowValues();
        Step step = command(commandLine("status", {}));
        step.asksOnly = true;
        return step;
    }

    Step reload(Request const& /*request*/) {
        allowValues("reuse", "force");
        return command(commandLine("reload", {}));
    }

    Step delta(Request const& /*request*/) {
        allowValues("force");
        if (partsM.deltaFolders.empty())
            throw RequestError(403, "deltaFolders is empty: no deltas are taken");
        auto file = std::make_shared<DeltaUpload>(partsM.deltaFolders.front());
        Step step;
        step.kind = Step::BODY;
        constexpr std::uint64_t mebibyte = 1024UL * 1024;
        step.sink = std::make_unique<DeltaSink>(file, commandLine("delta", file->name().native()),
                                                sharedM.settings().maxDeltaMiB * mebibyte);
        return step;
    }

    // --- what watches ---

    Step live(Request const& /*request*/) { return answer(plain("ok\n")); }

    Step ready(Request const& /*request*/) {
        bool const usable = partsM.plugIn.serviceStatus().usable;
        Response response = plain(usable ? "ok\n" : "the data are not usable\n");
        response.status = usable ? 200 : 503;
        return answer(std::move(response));
    }

    Step metrics(Request const& /*request*/) {
        Response response;
        response.type = metricsTypeCM.data();
        response.body = metricsText(partsM.metrics, partsM.service.standing());
        return answer(std::move(response));
    }

    static Step asset(Request const& request, char const* type, std::string_view text, std::string const& tag) {
        Response response;
        response.type = type;
        response.body = text;
        response.entityTag = tag;
        response.cacheControl = "no-cache";
        return unlessKnown(request, std::move(response));
    }
    std::string assetTag() const { return "\"" + partsM.version + "-" + sharedM.startedAs() + "\""; }

    Step openApi(Request const& request) {
        return asset(request, "application/openapi+json", openApiDocument(), assetTag());
    }
    Step style(Request const& request) { return asset(request, "text/css; charset=utf-8", pageStyle(), assetTag()); }
    Step script(Request const& request) {
        return asset(request, "text/javascript; charset=utf-8", pageScript(), assetTag());
    }

    // --- the page ---

    static Response html(std::string body) {
        Response response;
        response.type = "text/html; charset=utf-8";
        response.body = std::move(body);
        response.headers.append("Content-Security-Policy: ").append(pagePolicy()).append("\r\n");
        response.headers += "Referrer-Policy: no-referrer\r\nX-Frame-Options: DENY\r\n";
        return response;
    }

    static PageSetting pageSetting(FrontParts const& parts, std::string const& accessCode, Standing const& standing) {
        return PageSetting{parts.clock.now(),
                           BAS::DateTime::now(),
                           parts.clock.zone(),
                           [&parts](BAS::DateTime at) {
                               std::string text;
                               parts.clock.appendIso(text, at);
                               return text;
                           },
                           [table = parts.networks.current()](std::string_view id) {
                               PageNetwork network;
                               if (Network const* const known = table ? table->find(id) : nullptr)
                                   network = {known->name, known->mcc, known->mnc, known->routingNumber, known->text};
                               return network;
                           },
                           accessCode,
                           standing};
    }

    Step page(Request const& /*request*/) {
        Standing const standing = partsM.service.standing();
        PageSetting const setting = pageSetting(partsM, answersM.accessCode(), standing);
        PageQuestion question;
        if (std::string const* const number = targetM.find("number"))
            question.number = *number;
        if (std::string const* const at = targetM.find("at"))
            question.at = *at;
        std::string_view number = question.number;
        if (trimmed(number).empty())
            return answer(html(lookUpPage(setting, question, nullptr)));
        // A plus that was typed into a link is read as a blank.
        std::string written(trimmed(number));
        if (number.starts_with(' ') && isDigit(written.front()) && written.front() != '0')
            written.insert(0, 1, '+');
        try {
            std::string const at = pageInstant(question.at);
            BAS::String stored;
            bool const isStored =
                partsM.numbers.beginsAsStored(written) && std::all_of(written.begin(), written.end(), isDigit);
            readAskedNumber(written, !isStored, partsM.numbers, stored);
            Explained const explained = partsM.service.explain(
                stored.view(), at.empty() ? setting.now : readAskedInstant(at, partsM.clock), false);
            return answer(html(lookUpPage(setting, question, &explained)));
        } catch (QuestionError const& error) {
            Response response = html(lookUpPage(setting, question, nullptr, error.what()));
            response.status = 400;
            return answer(std::move(response));
        }
    }

    Step upcomingView(Request const& /*request*/) {
        UpcomingPart part;
        std::string fault;
        UpcomingQuestion asked;
        try {
            asked = upcomingQuestion();
            if (targetM.find("from") != nullptr && !targetM.find("from")->empty())
                part.from = asked.from;
            part.until = asked.until;
        } catch (QuestionError const& error) {
            fault = error.what();
        }
        Step step;
        step.kind = Step::WORK;
        step.work = [&parts = partsM, accessCode = answersM.accessCode(), part = std::move(part),
                     asked = std::move(asked), fault]() mutable {
            Standing const standing = parts.service.standing();
            if (fault.empty()) {
                UpcomingEntries found = upcoming(parts.plugIn, asked);
                part.records = std::move(found.entries);
                part.next = std::move(found.next);
            }
            Response response = html(upcomingPage(pageSetting(parts, accessCode, standing), part, fault));
            response.status = fault.empty() ? 200 : 400;
            return response;
        };
        return step;
    }

    struct Route {
        char const* path;
        char const* methods;
        Scopes scope;
        Step (Impl::*handle)(Request const& request);
    };
    static std::span<Route const> routes();

    FrontParts const& partsM;
    HttpShared& sharedM;
    AnswerWriter answersM;
    Target targetM;
    char const* routeM = "-";
    char const* allowedM = "";
    std::string clientM;

  public:
    std::uint64_t foundM = 0;
    std::uint64_t notFoundM = 0;
};

std::span<Api::Impl::Route const> Api::Impl::routes() {
    static constexpr Route all[] = {
        {"/v1/lookup", "POST", lookupScopeCM, &Impl::lookup},
        {"/v1/networks", "GET, HEAD", lookupScopeCM, &Impl::networks},
        {"/v1/upcoming", "GET, HEAD", lookupScopeCM, &Impl::upcomingRecords},
        {"/v1/status", "GET, HEAD", lookupScopeCM, &Impl::status},
        {"/v1/reload", "POST", adminScopeCM, &Impl::reload},
        {"/v1/delta", "POST", adminScopeCM, &Impl::delta},
        {"/metrics", "GET, HEAD", metricsScopeCM, &Impl::metrics},
        {"/livez", "GET, HEAD", 0, &Impl::live},
        {"/readyz", "GET, HEAD", 0, &Impl::ready},
        {"/openapi.json", "GET, HEAD", 0, &Impl::openApi},
        {"/", "GET, HEAD", lookupScopeCM, &Impl::page},
        {"/upcoming", "GET, HEAD", lookupScopeCM, &Impl::upcomingView},
        {"/style.css", "GET, HEAD", 0, &Impl::style},
        {"/app.js", "GET, HEAD", 0, &Impl::script},
    };
    return all;
}

Api::Api(FrontParts const& parts, HttpShared& shared) : implM(std::make_unique<Impl>(parts, shared)) {}

Api::~Api() = default;

Step Api::handle(Request const& request) {
    return implM->handle(request);
}

BodySink::Counts Api::takeCounts() {
    return {std::exchange(implM->foundM, 0), std::exchange(implM->notFoundM, 0)};
}

// What was commanded and did not succeed is no success here either: it was refused, or was tried and failed.
Response Api::answered(std::string line) {
    simdjson::dom::parser parser;
    simdjson::dom::object object;
    bool ok = false;
    bool succeeded = false;
    bool isObject = false;
    if (parser.parse(line).get(object) == simdjson::SUCCESS) {
        isObject = object["ok"].get(ok) == simdjson::SUCCESS;
        if (object["succeeded"].get(succeeded) != simdjson::SUCCESS)
            succeeded = true; // a question, of which that is not said
    }
    Response response = json(std::move(line));
    response.status = !isObject ? 500 : (ok && succeeded ? 200 : 409);
    return response;
}

} // namespace nphost
