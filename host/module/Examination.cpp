#include "host/module/Examination.h"

#include <exception>
#include <utility>

namespace nphost {

bool examine(LoadedPlugIn& plugIn, Log const& log, std::string const& file,
             DAT::NumberPortability::DataSummary& summary, std::function<void(RejectedLine const&)> const& onReject,
             DAT::NumberPortability::GoOn const& goOn) {
    // The module tells a line's reason by its report only, on this thread, just before it calls.
    Log::RejectScope const scope;
    std::exception_ptr failure; // the module would report it as its own
    bool const complete = plugIn.examine(
        BAS::String(file), summary,
        [&](unsigned long number, DAT::NumberPortability::LineOutcome outcome, BAS::String const& line) {
            try {
                onReject({number, outcome, log.lastReject(), line.view()});
            } catch (...) {
                failure = std::current_exception();
                throw; // ends the examination
            }
        },
        goOn);
    // As it was thrown: the module's report would have lost its kind.
    if (failure)
        std::rethrow_exception(failure);
    return complete;
}

LoadFigures figuresOf(DAT::NumberPortability::DataSummary const& summary, std::string first) {
    // What the file says. The live data and the process's memory are for the caller to add.
    LoadFigures figures;
    figures.readToEnd = summary.readToEnd;
    figures.lines = summary.lines;
    figures.records = summary.records;
    figures.rejected = summary.rejected();
    figures.firstReject = std::move(first);
    figures.withoutDigits = summary.withoutDigits;
    figures.firstWithoutDigits = summary.firstWithoutDigits;
    figures.lastLineComplete = summary.lastLineComplete;
    figures.lineBytes = summary.lineBytes;
    figures.longestLine = summary.longestLine;
    figures.treeBytes = summary.treeBytes;
    return figures;
}

std::string inWords(RejectedLine const& line) {
    std::string text = "at line " + grouped(line.number) + ": " + line.reason.detail;
    if (text.ends_with('.')) // it becomes part of a sentence
        text.pop_back();
    return text;
}

} // namespace nphost
