#pragma once

#include <functional>
#include <optional>
#include <string>

// What `main` of each of the client's programs does first:
//
//   - prints the help or the version if a word of the command line asks for it
//   - opens the missing standard streams, and ignores SIGPIPE and SIGXFSZ: a write then fails
//   - removes the variables of the daemon from the environment (client/options.h)
//   - makes commands of the shell run without complaints in a folder that has been removed
//
// Returns the exit status of a program that has nothing more to do. `name` is what --version
// prints. Call it before there is a second thread.
std::optional<int> StartProgram(int argc, char const* const* argv, std::string const& name,
                                std::function<std::string()> const& getHelp);
