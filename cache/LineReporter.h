// DAT::NumberPortability::LineReporter: makes the reports of lines that are not stored.
//
// Purpose: turns what RecordParser or a tree has found into a report on the plug-in, which names line and file.
// Units and ranges: lines are numbered from 1, as they stand in the file.
// Ownership: borrows the plug-in, the codes' texts and the reader, whose file name is all that is used of it.
// Threads: the thread that loads; none may hold the tree lock. Errors: std::bad_alloc, and what a log throws.
// Complexity: linear in the line.
#pragma once

#include "cache/RecordParser.h"
#include "framework/BAS/Status.h"
#include "framework/STR/FileIoTurbo.h"

namespace DAT::NumberPortability {

class PlugIn;

class LineReporter {
  public:
    LineReporter(PlugIn& plugIn, DiallingCodes const& codes, STR::FileIoTurbo const& reader)
        : plugInM(plugIn), codesM(codes), readerM(reader) {}

    // Of a line that is no record; nothing is reported of one that is.
    void report(LineFault const& fault, std::string_view line, unsigned long number) const;
    // Of a record that its number has already, by the number in stored form.
    void reportDuplicate(std::string_view storedNumber, BAS::DateTime validFrom, unsigned long number) const;

  private:
    void make(char const* identifier, BAS::Status::Arguments const& arguments) const;
    BAS::String at(char const* prefix, unsigned long number) const;

    PlugIn& plugInM;
    DiallingCodes codesM;
    STR::FileIoTurbo const& readerM;
};

} // namespace DAT::NumberPortability
