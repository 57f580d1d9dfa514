#include "framework/BAS/String.h"

#include <charconv>
#include <ostream>

namespace BAS {

namespace {
constexpr std::string_view separators = " \t\r\v\f\n";
} // namespace

String const NULL_STRING;

void String::strip(char character) {
    std::size_t const last = textM.find_last_not_of(character);
    textM.erase(last == std::string::npos ? 0 : last + 1);
    textM.erase(0, textM.find_first_not_of(character));
}

String String::upper() const {
    String result(*this);
    for (char& character : result.textM)
        if (character >= 'a' && character <= 'z')
            character = static_cast<char>(character - 'a' + 'A');
    return result;
}

RWTValOrderedVector<String> String::split() const {
    RWTValOrderedVector<String> words;
    split(words, textM.size());
    return words;
}

std::size_t String::split(RWTValOrderedVector<String>& words, std::size_t most) const {
    words.clear();
    std::size_t count = 0;
    std::string_view const text = textM;
    std::size_t begin = text.find_first_not_of(separators);
    for (; begin != std::string_view::npos; ++count) {
        std::size_t const end = text.find_first_of(separators, begin);
        if (count < most)
            words.append(String(text.substr(begin, end - begin)));
        begin = text.find_first_not_of(separators, end);
    }
    return count;
}

bool String::toNum(unsigned int& number) const noexcept {
    char const* const end = textM.data() + textM.size();
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
