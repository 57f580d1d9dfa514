#include "host/records/LineInput.h"

#include "host/base/HostError.h"
#include "host/base/Waiting.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <system_error>
#include <unistd.h>

namespace nphost {

bool LineInput::next(std::string_view& line) {
    for (;;) {
        auto const* const newline =
            static_cast<char const*>(std::memchr(bufferM.data() + searchedM, '\n', endM - searchedM));
        if (newline != nullptr) {
            auto const length = static_cast<std::size_t>(newline - (bufferM.data() + beginM));
            line = take(length, length + 1);
            return true;
        }
        // A long line is not searched again from its beginning each time that more of it has come.
        searchedM = endM;
        if (fill())
            continue;
        if (beginM == endM)
            return false;
        line = take(endM - beginM, endM - beginM);
        return true;
    }
}

std::string_view LineInput::take(std::size_t length, std::size_t withEnd) {
    std::string_view line(bufferM.data() + beginM, length);
    beginM += withEnd;
    searchedM = beginM;
    if (line.ends_with('\r'))
        line.remove_suffix(1);
    return line;
}

// Moves the rest of a line to the front, makes room and reads on. False at the end of the input.
bool LineInput::fill() {
    if (atEndM)
        return false;
    std::memmove(bufferM.data(), bufferM.data() + beginM, endM - beginM);
    endM -= beginM;
    searchedM -= beginM;
    beginM = 0;
    // Only a line that is longer than the buffer makes it grow, twofold, so that each byte is moved a few times at
    // most.
    if (endM == bufferM.size())
        bufferM.resize(bufferM.size() * 2);
    // Only now, when all lines that have come are taken: whoever asks may wait for their answers.
    beforeReadM();
    for (;;) {
        ssize_t const count = ::read(descriptorM, bufferM.data() + endM, bufferM.size() - endM);
        if (count < 0 && errno == EINTR)
            continue;
        // Somebody else made the descriptor non-blocking, which it shares with the program.
        if (count < 0 && errno == EAGAIN) {
            becomesReady(descriptorM, POLLIN);
            continue;
        }
        if (count < 0)
            throw HostError("cannot read standard input: " + std::system_category().message(errno));
        endM += static_cast<std::size_t>(count);
        atEndM = count == 0;
        return !atEndM;
    }
}

} // namespace nphost
