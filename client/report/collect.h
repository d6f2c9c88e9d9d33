#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "client/doctor/findings.h"
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
  // Secrets that could not be had, and why, such as "the local users: it took longer than 20 s":
  // they may stand in the report in clear.
  std::vector<std::string> unknown;
  // What else could not be had, why, and what the user can do about it.
  std::vector<Support::Error> gaps;
};

// How long the parts of the work may take; all are at least one second.
struct ReportLimits {
  std::chrono::seconds answer{30};      // of the daemon
  std::chrono::seconds command{10};     // also a check, and a look at some files
  std::chrono::seconds redaction{120};  // of one member
};

struct ReportContext {
  Net::Address address;
  ReportLimits limits;
  bool includeAnswers = false;  // the answers of the sensors are members, too
  // The daemon as the checks of `ktclientctl doctor` find it.
  std::shared_ptr<Findings const> daemon = std::make_shared<Findings>();
};

// A part of the work. It blocks, and its thread may be abandoned (client/deadline.h).
struct ReportStep {
  std::string what;  // for people: "the journal"
  std::chrono::seconds limit;
  std::function<ReportFindings()> run;
};

// The steps that find the members of a report, in the order of the members.
std::vector<ReportStep> GetMemberSteps(ReportContext const& context);

// Asks the daemon for the sensor `name` and returns the response, which is JSON as the daemon has
// written it. Throws Support::Error "no-answer".
std::string AskSensor(ReportContext const& context, std::string const& name);

// What an ordinary user can do about a lack of permission; empty for root.
std::string GetPermissionAdvice();

// PATH of this process, the folders that have administrators' commands such as dmidecode, and those
// in which the daemon and its client are installed.
std::string GetCommandPath();
