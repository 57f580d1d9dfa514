// nphost::EnumZones: the domains below which numbers are asked for, and what a name in them means.
//
// Purpose: a number's name has its digits as labels, the last one first: 3.2.1.0.0.9.0.0.7.7.4.4.e164.example.
// Ownership: owns what it was made of; what a name means refers to it.
// Threads: constant. Errors: construction throws HostError, std::bad_alloc. Complexity: linear in the name and the apexes.
// Source: RFC 6116; ITU-T E.164 (fifteen digits, no country code begins with 0).
#pragma once

#include "host/dns/EnumSettings.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace nphost {

struct EnumName {
    enum Kind {
        OUTSIDE, // of every apex
        APEX,
        NUMBER, // or the beginning of one
        NEVER,  // nothing that a number could be, nor below it
        EMPTY   // the same, but that another apex is below it
    };

    Kind kind = OUTSIDE;
    EnumApexSettings const* apex = nullptr;
    std::size_t apexAt = 0; // in the name
    std::array<char, 15> bytes{};
    std::size_t count = 0;

    std::string_view digits() const { return {bytes.data(), count}; }
};

class EnumZones {
  public:
    EnumZones(EnumSettings settings, Configuration const& configuration);

    EnumSettings const& settings() const { return settingsM; }
    // Digits before the country code of a number in stored form.
    std::string const& accessCode() const { return accessCodeM; }

    EnumName read(std::string_view name) const;

  private:
    bool isAboveApex(std::string_view name) const;

    EnumSettings settingsM; // apexes with the longest name first
    std::string accessCodeM;
};

} // namespace nphost
