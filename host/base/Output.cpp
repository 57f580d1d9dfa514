#include "host/base/Output.h"

#include "host/base/HostError.h"
#include "host/base/Waiting.h"

#include <system_error>

namespace nphost {

void Output::flush() {
    std::size_t const used = usedM;
    usedM = 0; // also when the write fails, so that nothing is written twice
    writeAll({bufferM.data(), used});
}

// What is in the buffer comes first. A text that is larger than the buffer would gain nothing by it.
void Output::appendLarge(std::string_view text) {
    flush();
    if (text.size() > sizeCM)
        return writeAll(text);
    append(text);
}

void Output::writeAll(std::string_view text) const {
    // A reader that has gone is no error here: writeWaiting throws Interrupted for it.
    if (int const error = writeWaiting(descriptorM, text); error != 0)
        throw HostError("cannot write the output: " + std::system_category().message(error));
}

} // namespace nphost
