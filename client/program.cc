#include "client/program.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>

#include "base/standard_streams.h"
#include "client/options.h"
#include "client/output.h"
#include "utilities/arguments/arguments.h"

namespace {

// A shell complains on the standard error of this process when it cannot find the name of its
// folder, and it believes a PWD that leads there.
void NameRemovedFolder() {
  std::error_code error;
  static_cast<void>(std::filesystem::current_path(error));
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the process has only this thread so far
  if (error) setenv("PWD", "/proc/self/cwd", 1);
}

}  // namespace

std::optional<int> StartProgram(int argc, char const* const* argv, std::string const& name,
                                std::function<std::string()> const& getHelp) {
  if (IsWordOfCommandLine(argc, argv, "--help")) return Print(getHelp());
  if (IsWordOfCommandLine(argc, argv, "--version")) return Print(name + " " KTCLIENTD_VERSION "\n");
  bool const canPrint = fcntl(STDOUT_FILENO, F_GETFD) != -1;
  Base::OpenMissingStandardStreams();
  if (!canPrint) return ExitWithError(ExitStatus::NoResponse, "Standard output is closed");
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);
  UnsetDaemonSettings();
  NameRemovedFolder();
  return {};
}
