#include "host/http/Request.h"

#include "host/base/JsonWriter.h"
#include "host/base/Text.h"

#include <algorithm>

namespace nphost {

char const* reasonOf(unsigned int status) {
    switch (status) {
    case 200:
        return "OK";
    case 202:
        return "Accepted";
    case 204:
        return "No Content";
    case 304:
        return "Not Modified";
    case 400:
        return "Bad Request";
    case 401:
        return "Unauthorized";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    case 405:
        return "Method Not Allowed";
    case 406:
        return "Not Acceptable";
    case 408:
        return "Request Timeout";
    case 409:
        return "Conflict";
    case 411:
        return "Length Required";
    case 413:
        return "Content Too Large";
    case 414:
        return "URI Too Long";
    case 415:
        return "Unsupported Media Type";
    case 417:
        return "Expectation Failed";
    case 422:
        return "Unprocessable Content";
    case 431:
        return "Request Header Fields Too Large";
    case 501:
        return "Not Implemented";
    case 503:
        return "Service Unavailable";
    case 505:
        return "HTTP Version Not Supported";
    default:
        return "Internal Server Error";
    }
}

Response problem(unsigned int status, std::string_view detail) {
    Response response;
    response.status = status;
    response.type = "application/problem+json";
    JsonWriter(response.body)
        .beginObject()
        .member("type", "about:blank")
        .member("title", reasonOf(status))
        .member("status", status)
        .member("detail", detail)
        .endObject();
    response.body += '\n';
    return response;
}

std::string_view pathOf(std::string_view target, std::string_view host) {
    auto const begins = [](std::string_view text, std::string_view with) {
        return text.size() >= with.size() && std::equal(with.begin(), with.end(), text.begin(), [](char a, char b) {
                   auto const lower = [](char c) {
                       return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
                   };
                   return lower(a) == lower(b);
               });
    };
    for (std::string_view const scheme : {"http://", "https://"}) {
        if (host.empty() || !begins(target, scheme) || !begins(target.substr(scheme.size()), host))
            continue;
        std::string_view const path = target.substr(scheme.size() + host.size());
        if (path.empty())
            return "/";
        if (path.front() == '/')
            return path;
    }
    return target;
}

bool Target::decode(std::string_view text, bool plusIsBlank, std::string& out) {
    out.clear();
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%') {
            int const high = i + 2 < text.size() ? hexDigit(text[i + 1]) : -1;
            int const low = i + 2 < text.size() ? hexDigit(text[i + 2]) : -1;
            if (high < 0 || low < 0)
                return false;
            out += static_cast<char>(high * 16 + low);
            i += 2;
        } else {
            out += plusIsBlank && text[i] == '+' ? ' ' : text[i];
        }
    }
    return true;
}

bool Target::parse(std::string_view target) {
    countM = 0;
    std::size_t const mark = target.find('?');
    pathM = target.substr(0, mark);
    if (!pathM.starts_with('/'))
        return false;
    std::string_view query = mark == std::string_view::npos ? std::string_view() : target.substr(mark + 1);
    while (!query.empty()) {
        std::string_view const pair = query.substr(0, query.find('&'));
        query.remove_prefix(std::min(pair.size() + 1, query.size()));
        if (pair.empty())
            continue;
        if (countM == mostValuesCM)
            return false;
        Value& value = valuesM[countM];
        std::size_t const equals = pair.find('=');
        if (!decode(pair.substr(0, equals), true, value.name) ||
            !decode(equals == std::string_view::npos ? std::string_view() : pair.substr(equals + 1), true, value.text))
            return false;
        ++countM;
    }
    return true;
}

std::string const* Target::find(std::string_view name) const {
    for (std::size_t i = 0; i < countM; ++i)
        if (valuesM[i].name == name)
            return &valuesM[i].text;
    return nullptr;
}

} // namespace nphost
