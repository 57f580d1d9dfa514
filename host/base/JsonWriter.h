// nphost::JsonWriter: appends JSON to a text, piece by piece, on one line.
//
// Purpose: for whatever writes JSON and reads none, without a tree of it in memory (RFC 8259).
//
//     JsonWriter(out).beginObject().member("found", true).key("numbers").beginArray().value(1).endArray().endObject();
//     {"found":true,"numbers":[1]}
//
// Members stand in the order of the calls; most of our outputs have them sorted by their keys. The calls must make up
// whole values: nobody checks that. A writer may also begin in a container that the text has just opened, and end it.
// Ownership: borrows the text.
// Threads: no state but its own.
// Errors: std::bad_alloc, and the text ends anywhere.
// Complexity: linear in what is appended.
#pragma once

#include <concepts>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace nphost {

// Appends the text between quotation marks; each byte that is not UTF-8 becomes U+FFFD.
void appendJsonText(std::string& out, std::string_view text);

class JsonWriter {
  public:
    explicit JsonWriter(std::string& out) : outM(out) {}

    JsonWriter& beginObject() { return begin('{'); }
    JsonWriter& endObject() { return end('}'); }
    JsonWriter& beginArray() { return begin('['); }
    JsonWriter& endArray() { return end(']'); }

    // A member's value comes next.
    JsonWriter& key(std::string_view name);

    JsonWriter& value(std::string_view text);
    JsonWriter& value(std::nullptr_t /*null*/) { return append("null"); }
    // In the fewest digits that are read back as the same number, and never as a whole one: 2.0, 0.001, 1e+20. What is
    // not finite has no form in JSON and is null.
    JsonWriter& value(double number);
    // A whole number, or true or false. A template, so that no pointer becomes a bool.
    template <std::integral Number>
    JsonWriter& value(Number number) {
        if constexpr (std::same_as<Number, bool>)
            return append(number ? "true" : "false");
        else
            return append(std::to_string(number));
    }
    // One that is not there is null.
    template <class Value>
    JsonWriter& value(std::optional<Value> const& some) {
        return some ? value(*some) : value(nullptr);
    }
    // As an array.
    template <class Value>
    JsonWriter& value(std::vector<Value> const& values) {
        beginArray();
        for (Value const& each : values)
            value(each);
        return endArray();
    }
    // As an object.
    template <class Key, class Value>
    JsonWriter& value(std::map<Key, Value> const& members) {
        beginObject();
        for (auto const& [name, each] : members)
            member(name, each);
        return endObject();
    }

    template <class Value>
    JsonWriter& member(std::string_view name, Value const& its) {
        return key(name).value(its);
    }

  private:
    void separate();
    JsonWriter& begin(char bracket);
    JsonWriter& end(char bracket);
    JsonWriter& append(std::string_view token);

    std::string& outM;
    bool followsM = false; // a member or an element stands before what comes next
};

} // namespace nphost
