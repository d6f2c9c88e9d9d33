#pragma once

#include <string>

// The operating system on which this process runs. The first call of `GetPlatform`,
// `GetPlatformVersion` or `GetPrettyName` reads /etc/os-release (os-release(5)); later calls return
// what it found. Threads: any.

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

// Deliberate: "IGEL" for both generations of IGEL OS. Empty, after a VERBOSE line, for a number
// that is no enumerator.
std::string GetPlatformName(Platform platform);

// `Platform::Linux` when os-release is missing or has a name that this system does not know.
Platform GetPlatform();

// VERSION from os-release; for `Platform::Linux` the kernel's release, as `uname -r` prints it.
std::string GetPlatformVersion();

// PRETTY_NAME from os-release; empty when it has none.
std::string GetPrettyName();

// What `DetectPlatform` finds.
struct PlatformFacts {
  Platform platform = Platform::Linux;
  std::string version;
  std::string prettyName;
};

// Reads an os-release file. A file that is absent or cannot be read leaves `PlatformFacts` as they
// are by default. Case does not matter in a name. Every double quote in a value is removed, and
// then white space at its ends; a name in single quotes is unknown.
PlatformFacts DetectPlatform(std::string const& filename);
