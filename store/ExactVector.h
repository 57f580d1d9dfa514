// DAT::NumberPortability::ExactVector<T>: a vector without spare capacity.
//
// Purpose: holds the history of one number. Millions are held at once and most are short, so memory counts for more
// than the cost of growth.
// Units and ranges: lengths and positions are unsigned 32-bit.
// Ownership: owns its elements, in one array of exactly length() of them (none when empty). References are valid until
// the vector grows or ends. Elements are destroyed from the last to the first. T must move without throwing. The array
// is the general heap's, or, for a vector that lies in a block of a BlockPool itself and is told so, that pool's: the
// pool may then be cleared instead of ending the vector, if its elements own nothing.
// Threads: none inside; concurrent const use is safe.
// Errors: operator[] throws std::out_of_range at or beyond length(). grow and copying throw std::bad_alloc and
// what T's construction throws; grow then leaves the vector as it was.
// Complexity: grow is linear in the length (every element is moved), the rest constant.
#pragma once

#include "store/BlockPool.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace DAT::NumberPortability {

template <class T>
class ExactVector {
    static_assert(std::is_nothrow_move_constructible_v<T> && std::is_nothrow_move_assignable_v<T> &&
                      std::is_nothrow_default_constructible_v<T>,
                  "a failed growth must leave the vector as it was");
    static_assert(sizeof(T) % BlockPool::unitCM == 0 && alignof(T) <= BlockPool::unitCM);

  public:
    enum class Memory : std::uint32_t { HEAP, POOL };

    ExactVector() noexcept = default;
    // POOL: the vector lies in a block of a pool, and stays there.
    explicit ExactVector(Memory memory) noexcept : memoryM(memory) {}
    ExactVector(ExactVector const& other) : ExactVector(other, Memory::HEAP) {}
    ExactVector(ExactVector const& other, Memory memory) : memoryM(memory) {
        if (other.lengthM == 0)
            return;
        elementsM = allocate(other.lengthM);
        lengthM = other.lengthM;
        try {
            std::copy_n(other.elementsM, lengthM, elementsM);
        } catch (...) {
            freeElements();
            throw;
        }
    }
    ExactVector& operator=(ExactVector const&) = delete;
    ~ExactVector() { freeElements(); }

    std::uint32_t length() const noexcept { return lengthM; }
    T& operator[](std::uint32_t position) {
        check(position);
        return elementsM[position];
    }
    T const& operator[](std::uint32_t position) const {
        check(position);
        return elementsM[position];
    }

    [[gnu::always_inline]] void prefetch() const noexcept { __builtin_prefetch(elementsM); }

    // Adds one default-constructed element at the end.
    void grow() {
        T* const grown = allocate(lengthM + 1ULL);
        for (std::uint32_t i = 0; i < lengthM; ++i)
            grown[i] = std::move(elementsM[i]);
        freeElements();
        elementsM = grown;
        ++lengthM;
    }

  private:
    void check(std::uint32_t position) const {
        if (position >= lengthM)
            throw std::out_of_range("ExactVector: position beyond the length");
    }
    T* allocate(std::size_t length) {
        if (memoryM == Memory::HEAP)
            return new T[length];
        T* const elements = static_cast<T*>(BlockPool::of(this).allocate(length * sizeof(T)));
        std::uninitialized_default_construct_n(elements, length);
        return elements;
    }
    void freeElements() noexcept {
        if (memoryM == Memory::HEAP) {
            delete[] elementsM;
        } else if (elementsM != nullptr) {
            for (std::uint32_t i = lengthM; i-- > 0;)
                elementsM[i].~T();
            BlockPool::of(this).release(elementsM, lengthM * sizeof(T));
        }
    }

    std::uint32_t lengthM = 0;
    Memory memoryM = Memory::HEAP;
    T* elementsM = nullptr;
};

} // namespace DAT::NumberPortability
