#include "client/report_program.h"

#include <unistd.h>

#include <filesystem>
#include <string>
#include <system_error>

#include "client/output.h"

int ExecuteReportProgram(char** argv) {
  std::error_code error;
  auto const folder = std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
  for (char const* place : {"ktclientctl-report", KTCLIENTD_REPORT_PROGRAM}) {
    // Never a program of the current folder, whose owner can be anybody.
    if (folder.is_absolute()) execv((folder / place).c_str(), argv);
  }
  return ExitWithError(ExitStatus::WrongUsage,
                       "The program ktclientctl-report is not installed: it is in the package "
                       "ktclientd-support");
}
