#include "host/dns/UriTemplate.h"

#include "host/base/HostError.h"
#include "host/base/Text.h"

#include <algorithm>
#include <array>
#include <utility>

namespace nphost {

namespace {

bool isLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// What stands for itself in a parameter of a tel: URI and in the user part of a sip: address.
bool isPlain(char c) {
    constexpr std::string_view marks = "-_.~*'()&+$/";
    return isDigit(c) || isLetter(c) || marks.find(c) != std::string_view::npos;
}

// What may stand between the values.
bool isTemplateText(char c) {
    return isPlain(c) || c == ';' || c == '=' || c == '!';
}

void appendEscaped(UriTemplate::Uri& out, std::string_view text) {
    constexpr std::string_view hex = "0123456789ABCDEF";
    for (char const c : text) {
        if (isPlain(c)) {
            out.append(c);
            continue;
        }
        auto const code = static_cast<unsigned char>(c);
        out.append('%');
        out.append(hex[code >> 4]);
        out.append(hex[code & 15]);
    }
}

constexpr std::string_view schemeCM = "tel:";

} // namespace

UriTemplate::Value UriTemplate::valueOf(std::string_view name) {
    using Named = std::pair<std::string_view, Value>;
    constexpr std::array<Named, 8> values = {{{"number", Value::NUMBER},
                                              {"network", Value::NETWORK},
                                              {"rn", Value::RN},
                                              {"rn-context", Value::RN_CONTEXT},
                                              {"spn", Value::SPN},
                                              {"mcc", Value::MCC},
                                              {"mnc", Value::MNC},
                                              {"parameters", Value::PARAMETERS}}};
    auto const found =
        std::find_if(values.begin(), values.end(), [&](Named const& each) { return each.first == name; });
    if (found == values.end())
        throw HostError("there is no value {" + shortened(name) +
                        "}; there are {number}, {network}, {rn}, {rn-context}, {spn}, {mcc}, {mnc} and {parameters}");
    return found->second;
}

UriTemplate::UriTemplate(std::string_view text) {
    if (!text.starts_with("tel:{number}"))
        throw HostError("a template begins with tel:{number}");
    unsigned brackets = 0;
    bool isInside = false;
    for (text.remove_prefix(schemeCM.size()); !text.empty();) {
        char const c = text.front();
        if (c == '{') {
            std::size_t const end = text.find('}');
            if (end == std::string_view::npos)
                throw HostError("a brace is not closed");
            partsM.push_back({{}, valueOf(text.substr(1, end - 1)), isInside ? brackets : 0});
            text.remove_prefix(end + 1);
            continue;
        }
        text.remove_prefix(1);
        if (c == '[' || c == ']') {
            if (isInside == (c == '['))
                throw HostError("brackets must come in pairs, not within one another");
            isInside = c == '[';
            brackets += isInside ? 1 : 0;
            continue;
        }
        if (!isTemplateText(c))
            throw HostError("'" + visible({&c, 1}) + "' cannot stand in the parameters of a tel: URI");
        if (partsM.empty() || partsM.back().value != Value::NONE || partsM.back().optional != (isInside ? brackets : 0))
            partsM.push_back({{}, Value::NONE, isInside ? brackets : 0});
        partsM.back().text += c;
    }
    if (isInside)
        throw HostError("a bracket is not closed");
}

std::string_view UriTemplate::textOf(Value value, Network const& network) {
    switch (value) {
    case Value::NETWORK:
        return network.id;
    case Value::RN:
        return network.routingNumber;
    case Value::RN_CONTEXT:
        return network.routingContext;
    case Value::SPN:
        return network.serviceProvider;
    case Value::MCC:
        return network.mcc;
    case Value::MNC:
        return network.mnc;
    default:
        return network.parameters;
    }
}

// Parameters are further ones: to have none is no lack.
bool UriTemplate::isKnown(Part const& part, Network const& network) {
    return part.value == Value::NONE || part.value == Value::NUMBER || part.value == Value::PARAMETERS ||
           !textOf(part.value, network).empty();
}

bool UriTemplate::isLeftOut(unsigned optional, Network const& network) const {
    return optional != 0 && std::any_of(partsM.begin(), partsM.end(), [&](Part const& part) {
               return part.optional == optional && !isKnown(part, network);
           });
}

bool UriTemplate::needsNothing() const {
    Network nothing;
    nothing.id = "-"; // which every network has
    return std::all_of(partsM.begin(), partsM.end(),
                       [&](Part const& part) { return part.optional != 0 || isKnown(part, nothing); });
}

bool UriTemplate::write(std::string_view digits, Network const& network, Uri& out) const {
    for (Part const& part : partsM)
        if (part.optional == 0 && !isKnown(part, network))
            return false;
    out.append(schemeCM);
    for (Part const& part : partsM) {
        if (isLeftOut(part.optional, network))
            continue;
        if (part.value == Value::NONE) {
            out.append(part.text);
        } else if (part.value == Value::NUMBER) {
            out.append('+');
            out.append(digits);
        } else if (part.value == Value::PARAMETERS) {
            out.append(network.parameters);
        } else {
            appendEscaped(out, textOf(part.value, network));
        }
    }
    return true;
}

} // namespace nphost
