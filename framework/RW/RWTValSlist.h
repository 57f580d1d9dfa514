// RWTValSlist<T>: a list that grows and shrinks at its front only, and RWTStack<T, List>, a stack upon it.
//
// Purpose: collects the histories along a number's digits during a best-match look-up. The first
// inlineLengthCM elements lie in the object itself, so that a look-up of a number of up to 32 digits (33 prefixes
// with the empty one) allocates nothing; longer numbers move on to the heap.
// Ownership: holds copies of trivially copyable values (pointers); owns nothing that they point to.
// Threads: none inside; an object belongs to one thread.
// Errors: prepend throws std::bad_alloc beyond the inline elements; removeFirst of an empty list is the caller's
// error and undefined.
// Complexity: every operation constant (prepend amortised); construction does not touch the inline elements.
#pragma once

#include <cstddef>
#include <memory>
#include <type_traits>
#include <vector>

template <class T>
class RWTValSlist {
    static_assert(std::is_trivially_copyable_v<T>, "the inline elements are left uninitialised");

  public:
    static constexpr std::size_t inlineLengthCM = 33;

    // Not "= default": value-initialisation would then clear the inline elements, for every look-up.
    RWTValSlist() {} // NOLINT(modernize-use-equals-default)
    RWTValSlist(RWTValSlist const&) = delete;
    RWTValSlist& operator=(RWTValSlist const&) = delete;

    bool isEmpty() const { return lengthM == 0; }
    void prepend(T value) {
        if (lengthM < inlineLengthCM)
            inlineM[lengthM] = value;
        else
            overflow(value);
        ++lengthM;
    }
    T removeFirst() {
        --lengthM;
        if (lengthM < inlineLengthCM)
            return inlineM[lengthM];
        T const value = overflowM->back();
        overflowM->pop_back();
        return value;
    }

  private:
    void overflow(T value) {
        if (overflowM == nullptr)
            overflowM = std::make_unique<std::vector<T>>();
        overflowM->push_back(value);
    }

    std::size_t lengthM = 0;
    T inlineM[inlineLengthCM];
    std::unique_ptr<std::vector<T>> overflowM; // hardly ever there
};

// Last in, first out; push and pop at the list's front.
template <class T, class List>
class RWTStack {
  public:
    bool isEmpty() const { return listM.isEmpty(); }
    void push(T value) { listM.prepend(value); }
    T pop() { return listM.removeFirst(); }

  private:
    List listM;
};
