// RWTValOrderedVector<T>: values in the order in which they were appended.
//
// Purpose: the list type of the framework's interfaces (words of a line, arguments of a report, strings of a
// message). Positions are 0 to length() - 1.
// Ownership: holds copies. A reference stays valid until the next append or the vector's end.
// Threads: none inside; concurrent const use is safe.
// Errors: operator[] throws std::out_of_range at or beyond length(); append throws when memory runs out.
// Complexity: append amortised constant, the rest constant.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <utility>
#include <vector>

template <class T>
class RWTValOrderedVector {
  public:
    RWTValOrderedVector() = default;
    RWTValOrderedVector(std::initializer_list<T> values) : valuesM(values) {}

    void append(T value) { valuesM.push_back(std::move(value)); }
    std::size_t length() const { return valuesM.size(); }
    T& operator[](std::size_t position) { return valuesM.at(position); }
    T const& operator[](std::size_t position) const { return valuesM.at(position); }
    auto begin() const { return valuesM.begin(); }
    auto end() const { return valuesM.end(); }
    bool operator==(RWTValOrderedVector const&) const = default;

  private:
    std::vector<T> valuesM;
};
