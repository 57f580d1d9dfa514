// nphost::LookUpBatch: look-ups that are gathered and made in one call of the plug-in.
//
// Purpose: a look-up waits for memory most of its time; the plug-in lets the waits of many overlap when it is asked for
// all at once.
// Units and ranges: up to `capacity` look-ups, one at least, all by one search method; without one by the configured
// one.
// Ownership: borrows the plug-in; numbers and records are the batch's, valid until clear, their storage used again.
// Threads: a batch a thread; several may use one plug-in.
// Errors: std::bad_alloc, also from the plug-in; what a search then found means nothing.
// Complexity: a look-up each; nothing is allocated but what longer numbers and networks than before need.
#pragma once

#include "host/module/LoadedModule.h"

#include <memory>
#include <optional>
#include <vector>

namespace nphost {

class LookUpBatch {
  public:
    using Record = DAT::NumberPortability::NumberPortabilityData;
    using Detail = DAT::NumberPortability::LookUpDetail;

    LookUpBatch(LoadedPlugIn& plugIn, std::size_t capacity);

    std::size_t size() const { return countM; }
    bool isFull() const { return countM == numbersM.size(); }

    // Where the number of the next look-up goes; add makes it one, and says its place in the batch. Not when full.
    BAS::String& nextNumber() { return numbersM[countM]; }
    std::size_t add(BAS::DateTime at) {
        instantsM[countM] = at;
        holdsLongM = holdsLongM || numbersM[countM].length() > longNumberCM;
        return countM++;
    }

    void search(std::optional<unsigned int> method);
    // The other way to make the look-ups: with what there is to know around them.
    void describe(std::optional<unsigned int> method);
    void clear();

    BAS::String const& number(std::size_t i) const { return numbersM[i]; }
    BAS::DateTime instant(std::size_t i) const { return instantsM[i]; }
    // After either: null when no record holds.
    Record const* record(std::size_t i) const {
        if (describedM)
            return detailsM[i].found() ? &detailsM[i].record : nullptr;
        return foundM[i] ? &recordsM[i] : nullptr;
    }
    // After describe.
    Detail const& detail(std::size_t i) const { return detailsM[i]; }

  private:
    static constexpr std::size_t longNumberCM = 1024; // the storage of longer ones is not kept

    void searchTogether(std::optional<unsigned int> method);
    bool searchOne(std::size_t i, std::optional<unsigned int> method);
    void describeSome(std::size_t begin, std::size_t count, std::optional<unsigned int> method);

    LoadedPlugIn& plugInM;
    std::size_t countM = 0;
    bool holdsLongM = false;
    bool describedM = false;           // not searched
    std::vector<BAS::String> numbersM; // these four of the capacity's length
    std::vector<BAS::DateTime> instantsM;
    std::vector<Record> recordsM;
    std::unique_ptr<bool[]> foundM;
    std::vector<Detail> detailsM; // of that length from the first describe on
};

} // namespace nphost
