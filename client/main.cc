#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "base/exception.h"
#include "base/standard_streams.h"
#include "client/command_line.h"
#include "client/deadline.h"
#include "client/doctor/doctor.h"
#include "client/native_host.h"
#include "client/output.h"
#include "client/report_program.h"
#include "client/request.h"
#include "utilities/arguments/arguments.h"

namespace {

// The KESTREL_ variables are settings of the daemon. KESTREL_TRACE_CONSOLE, for example, would put
// a trace between the lines of the response. Only KESTREL_SOCKET is for both programs.
void UnsetDaemonSettings() {
  ParseArguments();
  for (Argument const& argument : GetArguments()) {
    if (NormaliseArgumentName(argument.name) == "socket") continue;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the process has only this thread so far
    unsetenv(argument.text.substr(0, argument.text.find('=')).c_str());
  }
}

int Run(CommandLine const& commandLine) {
  if (commandLine.command == "doctor") {
    return RunDoctor({.address = commandLine.address,
                      .timeout = commandLine.timeout,
                      .json = commandLine.json});
  }
  if (commandLine.command == "native-host") return RunNativeHost(commandLine);
  return RunRequest(commandLine);
}

}  // namespace

int main(int argc, char** argv) {
  if (GetCommandName(argc, argv) == "report") return ExecuteReportProgram(argv);
  if (IsWordOfCommandLine(argc, argv, "--help")) return Print(GetHelp());
  if (IsWordOfCommandLine(argc, argv, "--version"))
    return Print("ktclientctl " KTCLIENTD_VERSION "\n");
  bool const canPrint = fcntl(STDOUT_FILENO, F_GETFD) != -1;
  Base::OpenMissingStandardStreams();
  if (!canPrint) return ExitWithError(ExitStatus::NoResponse, "Standard output is closed");
  // When the daemon or the reader of standard output is gone, the write fails with EPIPE.
  signal(SIGPIPE, SIG_IGN);
  UnsetDaemonSettings();
  CommandLine commandLine;
  try {
    commandLine = ReadCommandLine(argc, argv);
  } catch (Base::Exception const& err) {
    return ExitWithError(ExitStatus::WrongUsage,
                         std::string(err.what()) + " (see ktclientctl --help)");
  }
  return FinishProgram(Run(commandLine));
}
