// DNS messages as people read them: the form of zone files.
//
// Purpose: what `nphost enum` shows, and what a test says that an answer is.
// Threads: no state. Errors: std::bad_alloc. Complexity: linear in the message.
// Source: RFC 1035, section 5; RFC 3597 for types without a name.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace nphost {

// A name that lies on the wire, with a dot at its end; what is no plain character is escaped.
std::string dnsNameText(std::string_view name);

// "NAPTR", or "TYPE64000".
std::string dnsTypeText(std::uint16_t type);
// Names of some types in any case, TYPE and a number, or a number.
std::optional<std::uint16_t> dnsTypeOf(std::string_view text);

// A line of comment with the question and the answer's status, then a line a record. None when the message is no
// answer, or has records of other types than this server's.
std::optional<std::string> zoneText(std::string_view answer);

} // namespace nphost
