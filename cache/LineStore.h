// DAT::NumberPortability::LineStore: lines of a file kept in memory, one buffer for all.
//
// Purpose: a reload keeps the lines it read so that the second tree can be filled from them.
// Ownership: owns the text. Threads: none inside. Errors: append throws std::bad_alloc, after which the object may
// only be destroyed. Complexity: append amortised linear in the line.
#pragma once

#include "framework/BAS/String.h"

#include <cstddef>
#include <string>
#include <vector>

namespace DAT::NumberPortability {

class LineStore {
  public:
    void append(BAS::String const& line) {
        bytesM.append(line.view());
        endsM.push_back(bytesM.size());
    }

    // Drops the lines and their memory.
    void clear() {
        bytesM = std::string();
        endsM = std::vector<std::size_t>();
    }

    // Calls visitor(BAS::String const& line, unsigned long number) for every line in order, numbered from 1.
    template <class Visitor>
    void visit(Visitor&& visitor) const {
        BAS::String line;
        std::size_t begin = 0;
        unsigned long number = 0;
        for (std::size_t const end : endsM) {
            line.assign(bytesM.data() + begin, end - begin);
            visitor(line, ++number);
            begin = end;
        }
    }

  private:
    std::string bytesM;
    std::vector<std::size_t> endsM;
};

} // namespace DAT::NumberPortability
