#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <string>

#include "base/exception.h"
#include "base/standard_streams.h"
#include "client/command_line.h"
#include "client/deadline.h"
#include "client/doctor/doctor.h"
#include "client/native_host.h"
#include "client/options.h"
#include "client/output.h"
#include "client/report_program.h"
#include "client/request.h"
#include "utilities/arguments/arguments.h"

namespace {

int Run(CommandLine const& commandLine) {
  if (commandLine.command == "doctor") {
    return RunDoctor({.address = commandLine.address,
                      .timeout = commandLine.timeout,
                      .json = commandLine.json,
                      .compact = commandLine.compact});
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
  signal(SIGXFSZ, SIG_IGN);
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
