// nphost::UriTemplate: what a tel: URI of a number looks like, with gaps for what is known of its network.
//
// Purpose: a template is a tel: URI with names in braces: {number}, a plus and digits, and of the network {network}, its
// identifier, {rn}, {rn-context}, {spn}, {mcc}, {mnc} and {parameters} (fields/NetworkTable.h). A part in square brackets
// is left out where a value in it is not known: "tel:{number};npdi;rn={rn}[;rn-context={rn-context}]".
// Values other than parameters, which are URI text already, have their bytes escaped as URIs need it.
// Ownership: owns its parts. Threads: constant. Errors: HostError for a text that is no template; std::bad_alloc.
// Complexity: linear in the text; writing allocates nothing.
// Source: RFC 3966, RFC 4694.
#pragma once

#include "host/fields/NetworkTable.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace nphost {

// A text of bounded length, in a place of its own.
template <std::size_t most>
class BoundedText {
  public:
    void append(char c) {
        if (sizeM < most)
            bytesM[sizeM] = c;
        ++sizeM;
    }
    void append(std::string_view text) {
        for (char const c : text)
            append(c);
    }
    void clear() { sizeM = 0; }
    bool fits() const { return sizeM <= most; }
    std::string_view view() const { return {bytesM, fits() ? sizeM : 0}; }

  private:
    char bytesM[most];
    std::size_t sizeM = 0; // of what there would be
};

class UriTemplate {
  public:
    static constexpr std::size_t mostUriBytesCM = 255;
    using Uri = BoundedText<mostUriBytesCM>;

    UriTemplate() = default;
    explicit UriTemplate(std::string_view text);

    // Whether it can be written of a network of which nothing is known.
    bool needsNothing() const;
    // Whether all is known that stands outside of brackets. Otherwise nothing is written.
    bool write(std::string_view digits, Network const& network, Uri& out) const;

  private:
    enum class Value { NONE, NUMBER, NETWORK, RN, RN_CONTEXT, SPN, MCC, MNC, PARAMETERS };
    struct Part {
        std::string text; // of no value
        Value value = Value::NONE;
        unsigned optional = 0; // which brackets it is in; 0: none
    };

    static Value valueOf(std::string_view name);
    static std::string_view textOf(Value value, Network const& network);
    static bool isKnown(Part const& part, Network const& network);
    bool isLeftOut(unsigned optional, Network const& network) const;

    std::vector<Part> partsM;
};

} // namespace nphost
