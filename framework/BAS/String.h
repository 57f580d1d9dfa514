// BAS::String: the framework's text type.
//
// Purpose: every number, dialling code, registry key and value, file name and report argument is one. A string is a
// sequence of bytes; NUL and bytes above 127 are ordinary characters. Nothing here depends on the locale.
// Ownership: owns its bytes. data() and view() stay valid until the string changes or ends.
// Threads: none inside; concurrent const use is safe.
// Errors: operations that build text throw std::bad_alloc when memory runs out and then change nothing.
// Complexity: linear in the length where text is read or built, else constant.
#pragma once

#include "framework/RW/RWTValOrderedVector.h"

#include <compare>
#include <cstddef>
#include <iosfwd>
#include <span>
#include <string>
#include <string_view>

namespace BAS {

class String {
  public:
    String() noexcept = default;
    // Not from a null pointer.
    String(char const* text) : textM(text) {}                     // NOLINT(google-explicit-constructor)
    String(std::string text) noexcept : textM(std::move(text)) {} // NOLINT(google-explicit-constructor)
    explicit String(std::string_view text) : textM(text) {}

    std::size_t length() const noexcept { return textM.size(); }
    bool empty() const noexcept { return textM.empty(); }
    char const* data() const noexcept { return textM.c_str(); } // NUL-terminated
    std::string_view view() const noexcept { return textM; }
    std::string const& str() const noexcept { return textM; }

    // Replaces the content, keeping the storage where it suffices.
    void assign(char const* bytes, std::size_t length) { textM.assign(bytes, length); }

    // Removes `character` at both ends.
    void strip(char character);

    // ASCII letters in upper case; every other byte stays.
    String upper() const;

    // The words between separators: blank, tab, carriage return, vertical tab, form feed and newline. Separators at
    // either end and runs of them give no empty words.
    RWTValOrderedVector<String> split() const;

    // The same words of `line` as views of it, the first words.size() of them; returns how many there are. Allocates
    // nothing.
    static std::size_t splitViews(std::string_view line, std::span<std::string_view> words) noexcept;

    // The text as an unsigned decimal number: one digit or more, nothing else (no sign, no blank), at most
    // 4294967295. False, and `number` unchanged, for any other text.
    bool toNum(unsigned int& number) const noexcept;

    // Decimal text without leading zeros.
    static String convert(unsigned long number);

    String& operator+=(String const& other) {
        textM += other.textM;
        return *this;
    }
    friend String operator+(String left, String const& right) {
        left += right;
        return left;
    }
    friend bool operator==(String const&, String const&) noexcept = default;
    friend std::strong_ordering operator<=>(String const& left, String const& right) noexcept {
        return left.textM <=> right.textM;
    }

  private:
    std::string textM;
};

std::ostream& operator<<(std::ostream& out, String const& text);

// The empty string; as the target of a print it stands for the console.
extern String const NULL_STRING;

} // namespace BAS
