#pragma once

#include <functional>
#include <string>
#include <vector>

#include "client/report/collect.h"
#include "net/address.h"

// The command `ktclientctl report`: an archive with what the support needs to find out why requests
// fail, without what the support must not have.

struct ReportOptions {
  Net::Address address;
  ReportLimits limits;
  std::string output;  // the file's path; empty for a name in the current folder
  bool includeAnswers = false;
  bool isRedacted = true;
  std::string rulesFile;  // more rules for the redactor; empty for none

  // Called when the redactor does not know everything that it has to replace: `unknown` says what,
  // and why. Returns whether to write the report nevertheless.
  std::function<bool(std::vector<std::string> const& unknown)> confirm;
};

struct WrittenReport {
  std::string path;  // empty: `confirm` has returned false, and nothing was written
  // Members that are missing because their redaction took too long. README says it, too.
  std::vector<std::string> missing;
};

// Writes the report. The file appears complete, with mode 0600, and replaces no other one. When
// root runs this by sudo, the file belongs to the user of sudo. Prints its progress on standard
// error if that is a terminal.
//
// A part that cannot be had, or is late, is missing in the report, whose README says why. A late
// part is abandoned, so the program must end by `FinishProgram` (client/deadline.h).
//
// Throws Support::Error when the rules are wrong or the file cannot be written.
WrittenReport WriteReport(ReportOptions const& options);
