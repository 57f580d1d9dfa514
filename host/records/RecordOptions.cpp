#include "host/records/RecordOptions.h"

namespace nphost {

void addSeparation(Arguments& arguments, std::optional<std::string>& separator, bool& noHeader, bool& noQuotes) {
    arguments.add("--separator", "C", separator,
                  "What separates fields, one byte; 'tab' for the tab; default: by the name, or a comma");
    arguments.flag("--no-header", noHeader, "The first record names no columns, which are positions");
    arguments.flag("--no-quotes", noQuotes, "Quotation marks are bytes like others");
}

} // namespace nphost
