#include "client/doctor/doctor.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>

#include "base/exception.h"
#include "base/text.h"
#include "client/deadline.h"
#include "client/doctor/checks.h"
#include "client/output.h"

// The checks run one after the other, each as a step with a deadline (client/deadline.h) on a copy
// of the findings. A check that is late leaves the findings as they were, with a result that says
// so; the checks after it are made nevertheless.
//
// The order is that of a request: socket, connection, server, question. The question comes early,
// because it starts the daemon, whose process and settings the other checks look at, and because a
// serial number in the response makes a look at the firmware needless.

namespace {

struct Row {
  std::string_view name;  // of the result
  std::string_view what;  // for the progress line
  Findings (*check)(Findings);
};

constexpr auto checks = std::to_array<Row>({
    {"platform", "the platform", CheckPlatform},
    {"socket", "the socket", CheckSocket},
    {"connection", "the connection", CheckConnection},
    {"server", "the server", CheckServer},
    {"question", "a question to the daemon", CheckQuestion},
    {"socket-unit", "the unit of the socket", CheckSocketUnit},
    {"service-unit", "the unit of the service", CheckServiceUnit},
    {"daemon", "the daemon", FindDaemon},
    {"dmidecode", "dmidecode", CheckDmidecode},
    {"serial-number", "the serial number", CheckSerialNumber},
    {"trust-store", "the trust store", CheckTrustStore},
    {"openssl", "openssl and the certificates", CheckOpenssl},
    {"version", "the versions", CheckVersion},
    {"descriptors", "the descriptors", CheckDescriptors},
    {"trace-file", "the trace file", CheckTraceFile},
});

// A command and the question have the whole time-out; its check ends later than they do.
constexpr std::chrono::seconds margin{2};

std::optional<Findings> Run(Row const& row, Findings const& findings,
                            DoctorProgress const& onProgress) {
  return RunWithDeadline<Findings>([check = row.check, findings] { return check(findings); },
                                   findings.options.timeout + margin,
                                   [&] {
                                     if (onProgress) onProgress(row.what);
                                   });
}

struct Appearance {
  std::string_view word;
  std::string_view mark;
  std::string_view colour;
};

constexpr auto appearances = std::to_array<Appearance>({
    {"ok", "\u2713", "\x1b[32m"},
    {"warning", "!", "\x1b[33m"},
    {"failed", "\u2717", "\x1b[31m"},
    {"not checked", "-", "\x1b[2m"},
});

std::size_t GetNumber(CheckState state) { return static_cast<std::size_t>(state); }

constexpr std::size_t wordWidth = 13;
constexpr std::size_t nameWidth = 15;

std::string GetMark(CheckState state, bool isColoured) {
  Appearance const& appearance = appearances.at(GetNumber(state));
  if (isColoured) return std::string(appearance.colour) + std::string(appearance.mark) + "\x1b[0m ";
  return std::string(appearance.word) + std::string(wordWidth - appearance.word.size(), ' ');
}

std::string GetSummary(std::vector<CheckResult> const& results) {
  std::string text;
  for (std::size_t i = 0; i < appearances.size(); ++i) {
    auto const count = std::ranges::count_if(
        results, [i](CheckResult const& result) { return GetNumber(result.state) == i; });
    if (count == 0) continue;
    text += (text.empty() ? "" : ", ") + std::to_string(count) + " " +
            std::string(appearances.at(i).word);
  }
  return text + "\n";
}

// Before there are other threads.
bool HasEnvironment(char const* name) {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody changes the environment
  char const* const value = getenv(name);
  return value != nullptr && *value != '\0';
}

}  // namespace

std::vector<CheckResult> RunChecks(DoctorOptions const& options, DoctorProgress const& onProgress) {
  Findings findings;
  findings.options = options;
  for (Row const& row : checks) {
    if (onProgress) onProgress(row.what);
    try {
      if (auto result = Run(row, findings, onProgress)) {
        findings = std::move(*result);
      } else {
        findings.AddProblem(row.name, CheckState::Warning, "check-late",
                            "The check of " + std::string(row.what) + " has not ended in time");
      }
    } catch (Support::Error const& err) {
      findings.AddProblem(row.name, CheckState::Warning, "check-unfinished",
                          "Could not check " + std::string(row.what) + ": " + err.what());
      findings.results.back().problem->Because(err);
    }
  }
  return std::move(findings.results);
}

int GetExitStatus(std::vector<CheckResult> const& results) {
  auto const has = [&results](CheckState state) {
    return std::ranges::find(results, state, &CheckResult::state) != results.end();
  };
  return has(CheckState::Failed) ? 2 : has(CheckState::Warning) ? 1 : 0;
}

nlohmann::json ToJson(DoctorOptions const& options, std::vector<CheckResult> const& results) {
  constexpr auto states = std::to_array({CheckState::Ok, CheckState::Warning, CheckState::Failed});
  nlohmann::json list = nlohmann::json::array();
  for (CheckResult const& result : results) list.push_back(ToJson(result));
  return {{"version", KTCLIENTD_VERSION},
          {"address", options.address.ToText()},
          {"state", GetStateName(states.at(static_cast<std::size_t>(GetExitStatus(results))))},
          {"checks", list}};
}

std::string ToText(std::vector<CheckResult> const& results, bool isColoured) {
  std::string text;
  for (CheckResult const& result : results) {
    // No colon after the name: a report's redactor replaces what follows "serial-number:".
    std::string name = result.name;
    name.resize(nameWidth, ' ');
    text += GetMark(result.state, isColoured) + name + EscapeToOneLine(result.sentence) + "\n";
    // The sentence says it already.
    bool const isFollower = result.problem && result.problem->GetCode() == "earlier-problem";
    if (result.problem && !isFollower) {
      text += std::string(isColoured ? 2 : wordWidth, ' ') +
              EscapeToOneLine(result.problem->GetAdvice()) + "\n";
    }
  }
  return text + GetSummary(results);
}

int RunDoctor(DoctorOptions const& options) {
  bool const isColoured = IsTerminal(STDOUT_FILENO) && !HasEnvironment("NO_COLOR");
  std::vector<CheckResult> results;
  {
    ProgressLine line;
    results = RunChecks(
        options, [&line](std::string_view what) { line.Show("Checking " + std::string(what)); });
  }
  std::string text;
  if (options.json) {
    // Bytes of a path that are no UTF-8 become U+FFFD.
    constexpr auto onError = nlohmann::json::error_handler_t::replace;
    int const indent = options.compact ? -1 : 2;
    text = EscapeControls(ToJson(options, results).dump(indent, ' ', false, onError)) + "\n";
  } else {
    text = ToText(results, isColoured);
  }
  int const status = Print(text);
  return status == 0 ? GetExitStatus(results) : status;
}
