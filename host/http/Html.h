// nphost::Html: text of a page as it is put together.
//
// Purpose: markup goes in as it stands, whatever comes from data, files or people goes in by text(): control characters
// and bytes that are not UTF-8 are shown as host/base/Text.h shows them, a text of more than 200 bytes is cut, and no
// character of it is taken for markup, in an element or in an attribute between quotation marks.
// Ownership: owns its text. Threads: no state but its own. Errors: std::bad_alloc.
// Complexity: linear in what is appended.
#pragma once

#include "framework/BAS/DateTime.h"
#include "host/base/Instant.h"

#include <concepts>
#include <string>
#include <string_view>

namespace nphost {

class Html {
  public:
    Html& raw(std::string_view markup) {
        outM += markup;
        return *this;
    }
    Html& text(std::string_view foreign);
    // Percent-encoded, for the value of a URL's parameter.
    Html& parameter(std::string_view value);
    // With its digits in groups: 1,240,000.
    Html& count(std::unsigned_integral auto number) { return grouped(number); }
    // "12.5%", with two decimals at the most.
    Html& percent(double value);
    // "2026-01-31 12:00:00", which lines break between date and time only.
    Html& instant(BAS::DateTime at) { return raw(at.asString("<span>%Y-%m-%d</span> <span>%H:%M:%S</span>").view()); }

    std::string take() { return std::move(outM); }

  private:
    Html& grouped(std::uint64_t number);

    std::string outM;
};

// "3 days 4 hours", for people: so many units, from the largest that it has.
std::string durationText(std::uint64_t seconds, std::size_t units = 2);

// "in 3 days", "3 days ago", "now".
std::string distanceText(BAS::DateTime at, BAS::DateTime now, std::size_t units = 2);

} // namespace nphost
