#pragma once

#include <string>

// The text of `ktclientd --help`: every setting with its environment variable and its default.
std::string GetDaemonUsage();
