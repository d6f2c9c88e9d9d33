#include "sensors/hardware.h"

#include <nlohmann/json.hpp>
#include <string>

#include "base/exception.h"
#include "daemon/response.h"
#include "process/process_exec_linux.h"
#include "trace/trace.h"

TRACE_MODULE("main");

void RunHardwareSensor(Base::Shared<Net::Socket> const& socket) {
  try {
    std::string serialNumber;
    int const result =
        Process::ExecuteSyncCommand("LC_ALL=C dmidecode -s system-serial-number", serialNumber);
    if (result == 0 && !serialNumber.empty()) {
      nlohmann::json const response{
          {"status", "Success"},
          {"sensor", {{"hardware", {{"bios_serial_number", serialNumber}}}}},
      };
      TRACE_VERBOSE("Found bios serial", serialNumber);
      WriteResponse(socket, response);
      return;
    }
    TRACE_ERROR("Command failed detecting bios serial", result, serialNumber);
  } catch (Base::Exception const& err) {
    TRACE_ERROR("Error detecting bios serial", err);
    WriteErrorResponse(socket, "ErrorGeneric", err.what());
    return;
  }
  WriteErrorResponse(socket, "ErrorGeneric", "");
}
