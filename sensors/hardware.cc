#include "sensors/hardware.h"

#include <nlohmann/json.hpp>
#include <string>

#include "process/process_exec_linux.h"
#include "trace/trace.h"

TRACE_MODULE("main");

nlohmann::json AskHardware() {
  std::string serialNumber;
  int const result =
      Process::ExecuteSyncCommand("LC_ALL=C dmidecode -s system-serial-number", serialNumber);
  if (result != 0 || serialNumber.empty()) {
    TRACE_ERROR("Command failed detecting bios serial", result, serialNumber);
    return {{"status", "ErrorGeneric"}};
  }
  TRACE_VERBOSE("Found bios serial", serialNumber);
  return {
      {"status", "Success"},
      {"sensor", {{"hardware", {{"bios_serial_number", serialNumber}}}}},
  };
}
