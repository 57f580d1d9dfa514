// nphost::QuestionBatch: gathers questions and answers them in one call of the plug-in.
//
// Purpose: a look-up waits for memory most of its time; the plug-in lets the waits of many look-ups overlap when it is
// asked for all at once. The answers come in the order of the questions, each as its line: number, instant, valid-from
// and network, and if wanted whether the number is ported, separated by tabs; "-" for what is not there, or not known.
// Units and ranges: up to sizeCM questions of one search method at a time. A question that does not fit is answered
// with the next batch: add answers what came before it.
// Ownership: borrows the plug-in and the output; questions are copied. Destruction drops what was not answered.
// Threads: one thread at a time.
// Errors: what the output throws; std::bad_alloc, also when the plug-in runs out of memory: nothing of the batch is
// then answered.
// Complexity: a look-up a question; nothing is allocated for one but what longer numbers and networks than before need.
#pragma once

#include "host/base/Output.h"
#include "host/fields/Numbers.h"
#include "host/module/LookUpBatch.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace nphost {

class QuestionBatch {
  public:
    static constexpr std::size_t sizeCM = 256; // what the plug-in looks up without letting go of its data

    struct Style {
        bool normalise = false; // numbers are brought to stored form first
        bool ported = false;    // the last column, which costs a little more
    };

    // The form is borrowed.
    QuestionBatch(LoadedPlugIn& plugIn, Output& out, NumberForm const& form, Style style);
    QuestionBatch(QuestionBatch const&) = delete;
    QuestionBatch& operator=(QuestionBatch const&) = delete;

    // Without a method the configured one is used. What is no NUMBER is no question: it is not added.
    NumberKind add(std::string_view number, BAS::DateTime at, std::optional<unsigned int> method);

    // Appends the answers to all questions since the last call to the output.
    void answer();

    // The end of an answer when no record holds.
    std::string_view nothingFound() const { return styleM.ported ? "\t-\t-\t-\n" : "\t-\t-\n"; }

    // Whether a record was found for every question answered so far.
    bool allFound() const { return allFoundM; }

    // How many numbers of those not found do not begin as stored ones do, and the first of them.
    std::uint64_t notStored() const { return notStoredM; }
    std::string const& firstNotStored() const { return firstNotStoredM; }

  private:
    static constexpr std::size_t longNumberCM = 1024;

    void write(std::size_t i);
    void countNotFound(std::string_view number);

    Output& outM;
    NumberForm const& formM;
    Style const styleM;
    std::optional<unsigned int> methodM; // of all questions of the batch
    LookUpBatch batchM;
    bool allFoundM = true;
    std::uint64_t notStoredM = 0;
    std::string firstNotStoredM;
};

} // namespace nphost
