#include "host/http/Upcoming.h"

#include "host/base/HostError.h"
#include "host/base/Instant.h"
#include "host/base/Text.h"
#include "host/module/LookUpBatch.h"

#include <algorithm>

namespace nphost {

namespace {

// Where a part ended: 14 digits of the instant, a hyphen, the prefix's digits.
std::string cursorOf(UpcomingEntry const& entry) {
    return digitsOf(entry.validFrom) + "-" + entry.prefix;
}

void findNetworksBefore(LoadedPlugIn& plugIn, std::vector<UpcomingEntry>& entries) {
    constexpr std::size_t most = 256; // what the plug-in looks up without letting go of its data
    LookUpBatch batch(plugIn, most);
    for (std::size_t begin = 0; begin < entries.size(); begin += batch.size()) {
        batch.clear();
        for (std::size_t i = begin; i < entries.size() && !batch.isFull(); ++i) {
            batch.nextNumber() = entries[i].prefix;
            // Never below the first second: a record that is to come is later than some instant.
            batch.add(BAS::DateTime::fromSeconds(entries[i].validFrom.seconds() - 1));
        }
        batch.search({});
        for (std::size_t i = 0; i < batch.size(); ++i)
            if (LookUpBatch::Record const* const record = batch.record(i))
                entries[begin + i].before = record->networkIdM.view();
    }
}

} // namespace

bool isCursor(std::string_view text) {
    return text.size() > instantDigitsCM && text[instantDigitsCM] == '-' &&
           parseInstant(text.substr(0, instantDigitsCM)).isValid() &&
           std::all_of(text.begin() + instantDigitsCM + 1, text.end(), isDigit);
}

UpcomingEntries upcoming(LoadedPlugIn& plugIn, UpcomingQuestion const& question) {
    UpcomingEntry last;
    bool const continues = isCursor(question.after);
    if (continues) {
        last.validFrom = parseInstant(std::string_view(question.after).substr(0, instantDigitsCM));
        last.prefix = question.after.substr(instantDigitsCM + 1);
    }
    // A heap of the earliest, the latest of them on top; one more than wanted, to know whether there are more.
    std::size_t const most = question.limit + 1;
    UpcomingEntries result;
    std::vector<UpcomingEntry>& heap = result.entries;
    BAS::DateTime liveSince;
    bool const isWhole =
        plugIn.visitUpcoming(question.from, liveSince, [&](BAS::String const& number, auto const& record) {
            if (question.until.isValid() && !(record.validFromM < question.until))
                return;
            if (heap.size() == most && heap.front().validFrom < record.validFromM)
                return;
            UpcomingEntry entry{record.validFromM, number.str(), std::string(record.networkIdM.view()), {}};
            if (continues && !(last < entry))
                return;
            if (heap.size() == most) {
                if (!(entry < heap.front()))
                    return;
                std::pop_heap(heap.begin(), heap.end());
                heap.pop_back();
            }
            heap.push_back(std::move(entry));
            std::push_heap(heap.begin(), heap.end());
        });
    if (!isWhole)
        throw HostError("the data could not be searched: memory does not suffice, or the daemon stops");
    std::sort(heap.begin(), heap.end());
    if (heap.size() == most) {
        heap.pop_back();
        result.next = cursorOf(heap.back());
    }
    findNetworksBefore(plugIn, heap);
    return result;
}

} // namespace nphost
