#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "net/address.h"
#include "support/error.h"

// What a report is made of. Nothing here is redacted.

struct ReportMember {
  std::string path;  // within the report, such as "versions.txt"
  std::string text;
};

// A value that must not be in a redacted report, wherever it stands.
struct ReportSecret {
  std::string rule;  // under which the redactor counts it
  std::string value;
};

struct ReportFindings {
  std::vector<ReportMember> members;
  std::vector<ReportSecret> secrets;
  // What could not be had, why, and what the user can do about it.
  std::vector<Support::Error> gaps;
};

// A part of the work. It blocks, and its thread may be abandoned (client/deadline.h).
struct ReportStep {
  std::string what;  // for people: "the journal"
  std::chrono::seconds limit;
  std::function<ReportFindings()> run;
};

// The steps that find the members of a report, in the order of the members. With `includeAnswers`
// the answers of the sensors are members, too.
std::vector<ReportStep> GetMemberSteps(Net::Address const& address, bool includeAnswers);

// Asks the daemon for the sensor `name` and returns the response, which is JSON as the daemon has
// written it. Throws Support::Error "no-answer".
std::string AskSensor(Net::Address const& address, std::string const& name);

// What an ordinary user can do about a lack of permission; empty for root.
std::string GetPermissionAdvice();

// PATH of this process, the folders that have administrators' commands such as dmidecode, and those
// in which the daemon and its client are installed.
std::string GetCommandPath();
