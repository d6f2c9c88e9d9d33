#pragma once

#include <string>

// How reading a whole file ended.
enum class ReadOutcome { Complete, NotOpened, Failed };

// Appends all bytes of a file to `bytes`. The descriptor is close-on-exec from the start; one of
// std::ifstream is not, and a command that another thread starts would inherit it.
ReadOutcome AppendFileBytes(std::string const& filename, std::string& bytes);
