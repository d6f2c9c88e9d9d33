#pragma once

#include <string>

#include "net/address.h"

// The command `ktclientctl report`: an archive with what the support needs to find out why requests
// fail, without what the support must not have.

struct ReportOptions {
  Net::Address address;
  std::string output;  // the file's path; empty for a name in the current folder
  bool includeAnswers = false;
  bool isRedacted = true;
  std::string rulesFile;  // more rules for the redactor; empty for none
};

// Writes the report and returns its path. The file appears complete, with mode 0600, and replaces
// no other one. Prints its progress on standard error if that is a terminal.
//
// A part that cannot be had, or is late, is missing in the report, whose README says why. A late
// part is abandoned, so the program must end by `FinishProgram` (client/deadline.h).
//
// Throws Support::Error when the rules are wrong or the file cannot be written.
std::string WriteReport(ReportOptions const& options);
