// DAT::NumberPortability::ExactVector<T>: a vector without spare capacity.
//
// Purpose: holds the history of one number. Millions are held at once and most have one element, so memory counts
// for more than the cost of growth.
// Units and ranges: lengths and positions are unsigned 32-bit.
// Ownership: owns its elements, in one heap array of exactly length() of them (none when empty). References are valid
// until the vector grows or ends. Elements are destroyed from the last to the first. T must move without throwing.
// Threads: none inside; concurrent const use is safe.
// Errors: operator[] throws std::out_of_range at or beyond length(). grow and copying throw std::bad_alloc and
// what T's construction throws; grow then leaves the vector as it was.
// Complexity: grow is linear in the length (every element is moved), the rest constant.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace DAT::NumberPortability {

template <class T>
class ExactVector {
    static_assert(std::is_nothrow_move_assignable_v<T>, "a failed growth must leave the vector as it was");

  public:
    ExactVector() noexcept = default;
    ExactVector(ExactVector const& other) {
        std::unique_ptr<T[]> copy(other.lengthM == 0 ? nullptr : new T[other.lengthM]);
        for (std::uint32_t i = 0; i < other.lengthM; ++i)
            copy[i] = other.elementsM[i];
        elementsM = copy.release();
        lengthM = other.lengthM;
    }
    ExactVector& operator=(ExactVector const&) = delete;
    ~ExactVector() { delete[] elementsM; }

    std::uint32_t length() const noexcept { return lengthM; }
    T& operator[](std::uint32_t position) {
        check(position);
        return elementsM[position];
    }
    T const& operator[](std::uint32_t position) const {
        check(position);
        return elementsM[position];
    }

    // Adds one default-constructed element at the end.
    void grow() {
        std::unique_ptr<T[]> grown(new T[lengthM + 1ULL]);
        for (std::uint32_t i = 0; i < lengthM; ++i)
            grown[i] = std::move(elementsM[i]);
        delete[] elementsM;
        elementsM = grown.release();
        ++lengthM;
    }

  private:
    void check(std::uint32_t position) const {
        if (position >= lengthM)
            throw std::out_of_range("ExactVector: position beyond the length");
    }

    std::uint32_t lengthM = 0;
    T* elementsM = nullptr;
};

} // namespace DAT::NumberPortability
