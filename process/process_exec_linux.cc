#include "process/process_exec_linux.h"

#include <sys/wait.h>

#include <string>
#include <system_error>

#include "base/shell_command.h"
#include "base/text.h"
#include "trace/trace.h"

TRACE_MODULE("process_exec_linux");

namespace Process {

int ExecuteSyncCommand(std::string const& commandLine, std::string& output) {
  output.clear();
  Base::ShellResult const result = Base::RunInShell(commandLine);
  if (result.errorCode != 0) {
    int const errorCode = result.errorCode;
    std::string const errorMessage = std::generic_category().message(errorCode);
    TRACE_VERBOSE("Sync command failed", commandLine, errorCode, errorMessage);
    return 1;
  }
  if (result.wasCut) return 1;
  int const status = result.status;
  // For a command that a signal ended these bits are 0: kept as it is.
  int const exitCode = WEXITSTATUS(status);
  output = std::string(Base::TrimWhiteSpace(result.output));
  TRACE_VERBOSE("Sync command executed", commandLine, status, exitCode, output);
  return exitCode;
}

}  // namespace Process
