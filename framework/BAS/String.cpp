#include "framework/BAS/String.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <emmintrin.h>
#include <ostream>

namespace BAS {

namespace {
// The same six characters as the C locale's, without asking a locale: a data file must not depend on one.
constexpr std::string_view separators = " \t\r\v\f\n";

constexpr std::size_t blockLength = 64; // of a text whose bytes have a bit each of a word

bool isSeparator(char character) {
    return separators.find(character) != std::string_view::npos;
}

// Bit i tells whether byte i of the sixteen belongs to a word.
std::uint64_t wordBitsOf16(char const* text) {
    __m128i const bytes = _mm_loadu_si128(reinterpret_cast<__m128i const*>(text));
    __m128i const blanks = _mm_cmpeq_epi8(bytes, _mm_set1_epi8(' '));
    __m128i const fromTab = _mm_sub_epi8(bytes, _mm_set1_epi8('\t')); // tab to carriage return: 0 to 4
    __m128i const controls = _mm_cmpeq_epi8(_mm_min_epu8(fromTab, _mm_set1_epi8('\r' - '\t')), fromTab);
    return static_cast<std::uint64_t>(~_mm_movemask_epi8(_mm_or_si128(blanks, controls)) & 0xFFFF);
}

// The same of a whole block or what is left of the text; no bit is set beyond its end.
std::uint64_t wordBits(std::string_view text) {
    std::size_t const length = std::min(text.size(), blockLength);
    std::uint64_t bits = 0;
    // A register takes sixteen bytes, and beyond a short text there may be none to read.
    if (length < 16) {
        for (std::size_t i = 0; i < length; ++i)
            bits |= static_cast<std::uint64_t>(!isSeparator(text[i])) << i;
        return bits;
    }
    for (std::size_t i = 0; i + 16 < length; i += 16)
        bits |= wordBitsOf16(text.data() + i) << i;
    return bits | wordBitsOf16(text.data() + length - 16) << (length - 16); // may overlap the one before
}

} // namespace

String const NULL_STRING;

void String::strip(char character) {
    std::size_t const last = textM.find_last_not_of(character);
    // The end first: what is erased in front is then moved once, and shorter.
    textM.erase(last == std::string::npos ? 0 : last + 1);
    textM.erase(0, textM.find_first_not_of(character));
}

String String::upper() const {
    String result(*this);
    for (char& character : result.textM)
        // Not std::toupper, which asks the locale.
        if (character >= 'a' && character <= 'z')
            character = static_cast<char>(character - 'a' + 'A');
    return result;
}

RWTValOrderedVector<String> String::split() const {
    RWTValOrderedVector<String> words;
    std::string_view const text = textM;
    for (std::size_t begin = text.find_first_not_of(separators); begin != std::string_view::npos;) {
        std::size_t const end = text.find_first_of(separators, begin);
        words.append(String(text.substr(begin, end - begin)));
        begin = text.find_first_not_of(separators, end);
    }
    return words;
}

// No branch depends on where words begin and end, only on how many there are.
std::size_t String::splitViews(std::string_view line, std::span<std::string_view> words) noexcept {
    std::size_t begun = 0, ended = 0;
    std::uint64_t before = 0; // whether the byte before the block belongs to a word
    for (std::size_t at = 0; at < line.size(); at += blockLength) {
        // A word may go across blocks: only its first byte begins it, and what ends it may come in the next block.
        std::uint64_t const bits = wordBits(line.substr(at));
        std::uint64_t const bitsBefore = bits << 1 | before;
        std::uint64_t begins = bits & ~bitsBefore;
        for (; begins != 0 && begun < words.size(); begins &= begins - 1)
            words[begun++] = line.substr(at + static_cast<std::size_t>(std::countr_zero(begins)));
        begun += static_cast<std::size_t>(std::popcount(begins));
        for (std::uint64_t ends = ~bits & bitsBefore; ends != 0 && ended < words.size(); ends &= ends - 1, ++ended)
            words[ended].remove_suffix(line.size() - at - static_cast<std::size_t>(std::countr_zero(ends)));
        before = bits >> (blockLength - 1);
    }
    return begun;
}

bool String::toNum(unsigned int& number) const noexcept {
    char const* const end = textM.data() + textM.size();
    // Into a number of its own, for the caller's stays when the text is none.
    unsigned int parsed = 0; // from_chars takes no sign and no blank for an unsigned number
    auto const [stop, error] = std::from_chars(textM.data(), end, parsed, 10);
    if (error != std::errc() || stop != end)
        return false;
    number = parsed;
    return true;
}

String String::convert(unsigned long number) {
    return String(std::to_string(number));
}

std::ostream& operator<<(std::ostream& out, String const& text) {
    return out << text.view();
}

} // namespace BAS
