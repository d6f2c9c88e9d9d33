#include "client/doctor/findings.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include "base/text.h"
#include "client/doctor/advice.h"

void Findings::AddOk(std::string_view check, std::string sentence, nlohmann::json facts) {
  results.push_back({.name = std::string(check),
                     .state = CheckState::Ok,
                     .sentence = std::move(sentence),
                     .facts = std::move(facts),
                     .problem = {}});
}

void Findings::AddProblem(std::string_view check, CheckState state, std::string_view code,
                          std::string sentence, nlohmann::json fields) {
  Support::Error problem(std::string(code), sentence, GetAdvice(code, fields));
  for (auto const& [name, value] : fields.items()) problem.With(name, value);
  results.push_back({.name = std::string(check),
                     .state = state,
                     .sentence = std::move(sentence),
                     .facts = nlohmann::json::object(),
                     .problem = std::move(problem)});
}

void Findings::AddNotChecked(std::string_view check, std::string_view earlierCheck) {
  std::string cause(earlierCheck);
  for (CheckResult const& result : results) {
    bool const isFollower = result.problem && result.problem->GetCode() == "earlier-problem";
    if (result.name == earlierCheck && isFollower)
      cause = result.problem->GetFields().at("check").get<std::string>();
  }
  AddProblem(check, CheckState::NotChecked, "earlier-problem",
             "Not checked, because of the result of the check \"" + cause + "\"",
             {{"check", cause}});
}

void Findings::AddNeedsRoot(std::string_view check, std::string const& what) {
  AddProblem(check, CheckState::NotChecked, "needs-root", "Only root can see " + what);
}

bool Findings::HasProblem(std::string_view check) const {
  auto const result = std::ranges::find(results, check, &CheckResult::name);
  return result == results.end() || result->state != CheckState::Ok;
}

std::string Findings::GetServiceProperty(std::string const& name) const {
  auto const unit = units.find("ktclientd.service");
  if (unit == units.end() || !unit->second.contains(name)) return {};
  return unit->second.at(name);
}

std::string Findings::GetSetting(std::string const& name, std::string_view defaultValue) const {
  if (!settings || !settings->contains(name)) return std::string(defaultValue);
  return settings->at(name);
}

bool Findings::IsSettingTrue(std::string const& name) const {
  if (!settings || !settings->contains(name)) return false;
  std::string const value = Base::LowerCased(settings->at(name));
  return value.empty() || value == "1" || value == "true";
}

std::string GetModeText(mode_t mode) {
  std::array<char, 16> text;
  std::snprintf(text.data(), text.size(), "%04o", static_cast<unsigned>(mode & 07777U));
  return text.data();
}

std::string GetUserName(uid_t uid) {
  passwd entry{};
  passwd* found = nullptr;
  std::array<char, 16384> texts;
  getpwuid_r(uid, &entry, texts.data(), texts.size(), &found);
  return found != nullptr ? found->pw_name : std::to_string(uid);
}

std::string GetGroupName(gid_t gid) {
  group entry{};
  group* found = nullptr;
  std::vector<char> texts(std::size_t{1} << 20U);  // the members of a group can be many
  getgrgid_r(gid, &entry, texts.data(), texts.size(), &found);
  return found != nullptr ? found->gr_name : std::to_string(gid);
}
