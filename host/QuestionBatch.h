// nphost::QuestionBatch: gathers questions and answers them in one call of the plug-in.
//
// Purpose: a look-up waits for memory most of its time; the plug-in lets the waits of many look-ups overlap when it is
// asked for all at once. The answers come in the order of the questions, each as its line: number, instant, valid-from
// and network, separated by tabs; "-" for the last two when no record holds.
// Units and ranges: up to sizeCM questions of one search method at a time. A question that does not fit is answered
// with the next batch: add answers what came before it.
// Ownership: borrows the plug-in and the output; questions are copied. Destruction drops what was not answered.
// Threads: one thread at a time.
// Errors: what the output throws; std::bad_alloc. When the plug-in runs out of memory, its log tells, and what could
// not be looked up is answered as not found.
// Complexity: a look-up a question; nothing is allocated for one but what longer numbers and networks than before need.
#pragma once

#include "host/LookUpBatch.h"
#include "host/Output.h"

#include <optional>
#include <string_view>

namespace nphost {

// The end of an answer when no record holds.
constexpr std::string_view nothingFoundCM = "\t-\t-\n";

class QuestionBatch {
  public:
    static constexpr std::size_t sizeCM = 256; // what the plug-in looks up without letting go of its data

    // With `normalise`, numbers are brought to stored form first.
    QuestionBatch(LoadedPlugIn& plugIn, Output& out, bool normalise);
    QuestionBatch(QuestionBatch const&) = delete;
    QuestionBatch& operator=(QuestionBatch const&) = delete;

    // Without a method the configured one is used.
    void add(std::string_view number, BAS::DateTime at, std::optional<unsigned int> method);

    // Appends the answers to all questions since the last call to the output.
    void answer();

    // Whether a record was found for every question answered so far.
    bool allFound() const { return allFoundM; }

  private:
    static constexpr std::size_t longNumberCM = 1024;

    void write(std::size_t i);
    void writeInstant(BAS::DateTime at);

    LoadedPlugIn& plugInM;
    Output& outM;
    bool normaliseM;
    std::optional<unsigned int> methodM; // of all questions of the batch
    LookUpBatch batchM;
    bool allFoundM = true;
};

} // namespace nphost
