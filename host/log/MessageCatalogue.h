// nphost::MessageCatalogue: the readable texts behind the identifiers of the log.
//
// Purpose: the file is TOML with one key an identifier; %1 to %9 in a text stand for the report's arguments, %% for a
// percent sign. An operator may change or translate the texts; identifiers and arguments are what programs read.
// Ownership: owns the texts.
// Threads: const use from any thread.
// Errors: construction throws ConfigurationError when the file cannot be read, is no TOML or holds anything but texts;
// std::bad_alloc. An identifier without a text is shown by its arguments.
// Complexity: a search tree.
#pragma once

#include "framework/BAS/Status.h"

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace nphost {

class MessageCatalogue {
  public:
    explicit MessageCatalogue(std::filesystem::path const& file);

    // Appends the text on one line, with arguments that are fit to be shown; adds nothing else.
    void append(std::string& out, BAS::String const& identifier, BAS::Status::Arguments const& arguments) const;

  private:
    std::map<std::string, std::string, std::less<>> textsM;
};

} // namespace nphost
