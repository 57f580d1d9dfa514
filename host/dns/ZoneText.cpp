#include "host/dns/ZoneText.h"

#include "host/dns/Wire.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <utility>

namespace nphost {

namespace {

constexpr std::array<std::pair<std::string_view, std::uint16_t>, 11> typesCM = {{{"A", 1},
                                                                                 {"NS", DNS_NS},
                                                                                 {"CNAME", 5},
                                                                                 {"SOA", DNS_SOA},
                                                                                 {"PTR", 12},
                                                                                 {"TXT", 16},
                                                                                 {"AAAA", 28},
                                                                                 {"NAPTR", DNS_NAPTR},
                                                                                 {"IXFR", 251},
                                                                                 {"AXFR", 252},
                                                                                 {"ANY", DNS_ANY}}};

std::string statusText(unsigned int rcode) {
    switch (static_cast<DnsRcode>(rcode)) {
    case DnsRcode::NOERROR:
        return "NOERROR";
    case DnsRcode::FORMERR:
        return "FORMERR";
    case DnsRcode::SERVFAIL:
        return "SERVFAIL";
    case DnsRcode::NXDOMAIN:
        return "NXDOMAIN";
    case DnsRcode::NOTIMP:
        return "NOTIMP";
    case DnsRcode::REFUSED:
        return "REFUSED";
    case DnsRcode::BADVERS:
        return "BADVERS";
    case DnsRcode::BADCOOKIE:
        return "BADCOOKIE";
    }
    return "RCODE" + std::to_string(rcode);
}

// Of a text between quotation marks, or of a label.
void appendEscapedText(std::string& out, std::string_view text, std::string_view marked) {
    for (char const c : text) {
        auto const code = static_cast<unsigned char>(c);
        if (code < ' ' || code > '~') {
            char escaped[5];
            std::snprintf(escaped, sizeof escaped, "\\%03u", static_cast<unsigned>(code));
            out += escaped;
            continue;
        }
        if (marked.find(c) != std::string_view::npos)
            out += '\\';
        out += c;
    }
}

// A message that is read from front to back. What is not there, or no answer of ours, makes it wrong.
class Message {
  public:
    explicit Message(std::string_view bytes) : bytesM(bytes) {}

    unsigned take8() {
        isWrongM = isWrongM || atM >= bytesM.size();
        return isWrongM ? 0 : static_cast<unsigned char>(bytesM[atM++]);
    }
    unsigned take16() {
        unsigned const high = take8();
        return high << 8 | take8();
    }
    std::uint32_t take32() {
        std::uint32_t const high = take16();
        return high << 16 | take16();
    }
    // Also one that goes on elsewhere, before it.
    std::string takeName() {
        std::string name;
        std::size_t at = atM;
        bool isElsewhere = false;
        for (std::size_t most = mostDnsNameBytesCM; most > 0; --most) {
            unsigned const length = at < bytesM.size() ? static_cast<unsigned char>(bytesM[at]) : 255;
            if (length >= 0xc0 && at + 1 < bytesM.size()) {
                if (!std::exchange(isElsewhere, true))
                    atM = at + 2;
                at = (length & 63) << 8 | static_cast<unsigned char>(bytesM[at + 1]);
                continue;
            }
            if (length > mostDnsLabelBytesCM || at + length >= bytesM.size())
                break;
            name += bytesM.substr(at, length + 1);
            at += length + std::size_t{1};
            if (length == 0) {
                atM = isElsewhere ? atM : at;
                return dnsNameText(name);
            }
        }
        isWrongM = true;
        return {};
    }
    std::string takeText() {
        unsigned const length = take8();
        std::string text = "\"";
        for (unsigned i = 0; i < length && !isWrongM; ++i) {
            char const c = static_cast<char>(take8());
            appendEscapedText(text, {&c, 1}, "\"\\");
        }
        return text + '"';
    }
    void pass(std::size_t count) {
        isWrongM = isWrongM || count > bytesM.size() - atM;
        atM += isWrongM ? 0 : count;
    }
    bool isWrong() const { return isWrongM; }
    void refuse() { isWrongM = true; }

  private:
    std::string_view bytesM;
    std::size_t atM = 0;
    bool isWrongM = false;
};

void appendData(std::string& out, Message& message, unsigned type) {
    if (type == DNS_NAPTR) {
        out += std::to_string(message.take16());
        out.append(" ").append(std::to_string(message.take16()));
        for (int i = 0; i < 3; ++i)
            out.append(" ").append(message.takeText());
        out.append(" ").append(message.takeName());
    } else if (type == DNS_SOA) {
        out += message.takeName();
        out.append(" ").append(message.takeName());
        for (int i = 0; i < 5; ++i)
            out.append(" ").append(std::to_string(message.take32()));
    } else if (type == DNS_NS) {
        out += message.takeName();
    } else {
        message.refuse();
    }
}

// An OPT record says more of the status.
void appendRecord(std::string& out, Message& message, unsigned& rcode) {
    std::string const owner = message.takeName();
    unsigned const type = message.take16();
    message.take16(); // the class, or how many bytes are taken
    std::uint32_t const ttl = message.take32();
    unsigned const length = message.take16();
    if (type == DNS_OPT) {
        rcode |= ttl >> 24 << 4;
        message.pass(length);
        return;
    }
    out.append(owner).append("\t").append(std::to_string(ttl)).append("\tIN\t");
    out.append(dnsTypeText(static_cast<std::uint16_t>(type))).append("\t");
    appendData(out, message, type);
    out += '\n';
}

} // namespace

std::string dnsNameText(std::string_view name) {
    std::string text;
    while (!name.empty() && name[0] != 0) {
        std::size_t const length = static_cast<unsigned char>(name[0]);
        appendEscapedText(text, name.substr(1, length), ".\\\"();@$ ");
        text += '.';
        name.remove_prefix(std::min(length + 1, name.size()));
    }
    return text.empty() ? "." : text;
}

std::string dnsTypeText(std::uint16_t type) {
    auto const found =
        std::find_if(typesCM.begin(), typesCM.end(), [=](auto const& each) { return each.second == type; });
    return found != typesCM.end() ? std::string(found->first) : "TYPE" + std::to_string(type);
}

std::optional<std::uint16_t> dnsTypeOf(std::string_view text) {
    std::string upper(text);
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
    auto const found =
        std::find_if(typesCM.begin(), typesCM.end(), [&](auto const& each) { return each.first == upper; });
    if (found != typesCM.end())
        return found->second;
    std::string_view digits = upper;
    if (digits.starts_with("TYPE"))
        digits.remove_prefix(4);
    std::uint16_t type = 0;
    auto const [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), type);
    return error == std::errc() && end == digits.data() + digits.size() && !digits.empty() ? std::optional(type)
                                                                                           : std::nullopt;
}

std::optional<std::string> zoneText(std::string_view answer) {
    Message message(answer);
    message.take16();
    unsigned const flags = message.take16();
    unsigned rcode = flags & 15;
    unsigned const questions = message.take16();
    unsigned records = message.take16();
    records += message.take16();
    records += message.take16();
    std::string question;
    if (questions == 1) {
        question = message.takeName();
        question.append(" ").append(dnsTypeText(static_cast<std::uint16_t>(message.take16())));
        message.take16();
    }
    std::string lines;
    for (; records > 0 && !message.isWrong(); --records)
        appendRecord(lines, message, rcode);
    if (message.isWrong() || questions > 1)
        return std::nullopt;
    bool const isTruncated = (flags & 0x0200) != 0;
    return "; " + question + ": " + statusText(rcode) + (isTruncated ? ", truncated" : "") + '\n' + lines;
}

} // namespace nphost
