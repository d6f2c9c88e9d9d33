#pragma once

// Replaces this process by `ktclientctl-report`, which has the command `report`, with the same
// arguments. The command has a separate program because it needs libraries that `ktclientctl` does
// not. The program is beside this one, or in its folder of the installation. Returns only after a
// failure: an exit status, after a line on standard error.
int ExecuteReportProgram(char** argv);
