// nphost::Timeline: what a number's life looks like, as bands along an axis of time.
//
// Purpose: from all that is stored of a number, a lane for each prefix with a band for each record, a lane of what the
// configured search method answers from instant to instant, and the axis that all share. A period is of the NUMBER's own
// record, PORTED where a shorter prefix says another network at that time, or of a BLOCK, a shorter prefix.
// The axis reaches from the first record to the last one or to now, and is to scale, but: a period that is longer than
// three times all others is drawn as long as these together, and no period is too short to be seen.
// Units and ranges: positions are percent of the axis, 0 to 100. A band without an end has an invalid one.
// Of a long history the newest mostRecordsCM are drawn, of many prefixes the longest mostLanesCM.
// Ownership: refers to the explained number, which must outlive it. Threads: no state. Errors: std::bad_alloc.
// Complexity: linear in the drawn records, but for sorting them.
#pragma once

#include "host/service/Service.h"

#include <string_view>
#include <utility>
#include <vector>

namespace nphost {

class Timeline {
  public:
    static constexpr std::size_t mostRecordsCM = 100;
    static constexpr std::size_t mostLanesCM = 16;

    enum class Kind { NUMBER, PORTED, BLOCK };
    struct Band {
        BAS::DateTime from;
        BAS::DateTime until;
        std::string_view network; // empty: nothing is found, only among the answers
        Kind kind = Kind::NUMBER;
        bool chosen = false; // at the asked instant
    };
    struct Lane {
        std::string_view prefix;
        bool isNumber = false;
        std::vector<Band> bands; // oldest first
        std::size_t olderLeftOut = 0;
    };
    struct Knot {
        std::uint64_t seconds; // BAS::DateTime::seconds()
        double percent;
    };
    struct Tick {
        double percent;
        std::string label;
    };

    Timeline(Explained const& explained, BAS::DateTime now);

    std::vector<Lane> const& lanes() const { return lanesM; } // longest prefix first
    std::size_t lanesLeftOut() const { return lanesLeftOutM; }
    std::vector<Band> const& answers() const { return answersM; } // oldest first
    Band const* answerAt(BAS::DateTime at) const;
    // What a shorter prefix says at the instant of a number that has a record of its own; empty: nothing.
    std::string_view blockAt(BAS::DateTime at) const;

    double percent(BAS::DateTime at) const;
    std::vector<Knot> const& scale() const { return scaleM; } // ascending; between two the axis is even
    bool isToScale() const { return isToScaleM; }
    std::vector<Tick> ticks() const;

  private:
    std::vector<std::uint64_t> beginnings() const;
    void addLane(DAT::NumberPortability::StoredPrefix const& prefix, Explanation::Choice const& chosen);
    void addAnswers(Explanation const& explanation);
    Kind kindOf(Explanation::Choice const& choice, BAS::DateTime at) const;
    void makeScale(BAS::DateTime now);

    Explained const& explainedM;
    std::string digitsM; // of the number: keys are compared with these
    std::vector<Lane> lanesM;
    std::vector<Band> answersM;
    std::size_t lanesLeftOutM = 0;
    std::vector<Knot> scaleM;
    bool isToScaleM = true;
};

} // namespace nphost
