#pragma once

#include <string>

// What `ktclientd --help` prints: every setting with its environment name and its default.
std::string GetUsage();
