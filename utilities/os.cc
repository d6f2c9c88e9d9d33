#include "utilities/os.h"

#include <sys/utsname.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "base/exception.h"
#include "base/text.h"
#include "trace/trace.h"
#include "utilities/ini_reader.h"

TRACE_MODULE("os");

namespace {

constexpr char const* osReleaseFile = "/etc/os-release";

constexpr auto platformNames = std::to_array<std::string_view>(
    {"Windows", "Linux", "macOS", "iOS", "eLux", "IGEL", "IGEL", "NoTouch", "Rangee"});
static_assert(platformNames.size() == static_cast<std::size_t>(Platform::Rangee) + 1);

struct KnownPlatform {
  std::string_view name;  // in os-release
  Platform platform;
  std::string_view message;
};

constexpr auto knownPlatforms = std::to_array<KnownPlatform>({
    {"eLux", Platform::ELux, "Detected platform as eLux"},
    {"IGEL OS 12", Platform::Igel12, "Detected platform as IGEL OS 12"},
    // Deliberate: IGEL OS 11 logs the message of IGEL OS 12; `platformName` tells them apart.
    {"IGEL OS 11", Platform::Igel11, "Detected platform as IGEL OS 12"},
    {"NoTouch", Platform::NoTouch, "Detected platform as NoTouch"},
    {"Rangee", Platform::Rangee, "Detected platform as Rangee"},
});

std::string GetUnquoted(IniReader const& file, std::string_view key) {
  std::string value = file.GetValue("", key);
  std::erase(value, '"');
  return std::string(Base::TrimWhiteSpace(value));
}

PlatformFacts const& GetFacts() {
  static PlatformFacts const facts = DetectPlatform(osReleaseFile);
  return facts;
}

}  // namespace

PlatformFacts DetectPlatform(std::string const& filename) {
  PlatformFacts facts;
  std::error_code error;
  if (!std::filesystem::exists(filename, error)) return facts;
  try {
    IniReader const file(filename);
    std::string const platformName = GetUnquoted(file, "NAME");
    std::string const platformVersion = GetUnquoted(file, "VERSION");
    facts.prettyName = GetUnquoted(file, "PRETTY_NAME");
    auto const* const known = std::ranges::find_if(knownPlatforms, [&](auto const& row) {
      return Base::EqualsIgnoringCase(platformName, row.name);
    });
    if (known != knownPlatforms.end()) {
      facts.platform = known->platform;
      facts.version = platformVersion;
      TRACE_VERBOSE(known->message, platformName, platformVersion);
    }
  } catch (Base::Exception const&) {
    // `IniReader` has logged the failure; the platform stays `Platform::Linux`.
  }
  return facts;
}

std::string GetPlatformName(Platform platform) {
  auto const number = static_cast<int>(platform);
  if (number >= 0 && static_cast<std::size_t>(number) < platformNames.size()) {
    return std::string(platformNames[static_cast<std::size_t>(number)]);
  }
  TRACE_VERBOSE("Unhandled platform", Trace::As("platform", number));
  return {};
}

Platform GetPlatform() { return GetFacts().platform; }

std::string GetPlatformVersion() {
  utsname system{};
  if (GetPlatform() == Platform::Linux && uname(&system) == 0) return system.release;
  return GetFacts().version;
}

std::string GetPrettyName() { return GetFacts().prettyName; }
