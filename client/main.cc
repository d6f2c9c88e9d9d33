#include <string>

#include "base/exception.h"
#include "client/command_line.h"
#include "client/deadline.h"
#include "client/doctor/doctor.h"
#include "client/native_host.h"
#include "client/output.h"
#include "client/program.h"
#include "client/report_program.h"
#include "client/request.h"

namespace {

int Run(CommandLine const& commandLine) {
  if (commandLine.command == "doctor") {
    EndCommandsOnSignals();
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
  auto const command = GetCommandName(argc, argv);
  if (command == "report") return ExecuteReportProgram(argv);
  auto const status =
      StartProgram(argc, argv, "ktclientctl", [command] { return GetHelp(command); });
  if (status) return *status;
  CommandLine commandLine;
  try {
    commandLine = ReadCommandLine(argc, argv);
  } catch (Base::Exception const& err) {
    return ExitWithError(ExitStatus::WrongUsage,
                         std::string(err.what()) + " (see ktclientctl --help)");
  }
  return FinishProgram(Run(commandLine));
}
