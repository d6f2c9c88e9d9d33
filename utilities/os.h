#pragma once

#include <string>

// Which operating system this process runs on, told from /etc/os-release (os-release(5)) once a
// process, at the first question. Threads: any.

enum class Platform : int {
  Windows = 0,
  Linux = 1,
  MacOS = 2,
  IOS = 3,
  ELux = 4,
  Igel11 = 5,
  Igel12 = 6,
  NoTouch = 7,
  Rangee = 8,
};

// Two generations of IGEL OS share one name. Empty for a value that is none of the enumerators.
std::string GetPlatformName(Platform platform);

// `Platform::Linux` for all that are not known by name.
Platform GetPlatform();

// The version from os-release; for `Platform::Linux` the kernel's release.
std::string GetPlatformVersion();

// The name for people from os-release, which may be empty.
std::string GetPrettyName();

// What `DetectPlatform` finds.
struct PlatformFacts {
  Platform platform = Platform::Linux;
  std::string version;
  std::string prettyName;
};

// Reads the file, which may be absent or unreadable: a platform of no known name, then. Names are
// compared without regard to case. Only double quotes are taken off a value, so one in single
// quotes is not recognised.
PlatformFacts DetectPlatform(std::string const& filename);
