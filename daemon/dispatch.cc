#include "daemon/dispatch.h"

#include <nlohmann/json.hpp>

#include "daemon/response.h"
#include "sensors/hardware.h"
#include "sensors/igel.h"
#include "trace/trace.h"

TRACE_MODULE("main");

void DispatchRequest(Base::Shared<Net::Socket> const& socket, nlohmann::json const& request) {
  // Of a value that is no object, contains() is false.
  if (!request.contains("sensor")) {
    TRACE_WARNING("Received unexpected request", socket);
    WriteErrorResponse(socket, "ErrorNotImplemented", "");
    return;
  }
  nlohmann::json const& sensor = request["sensor"];
  if (sensor.contains("hardware")) {
    TRACE_VERBOSE("Received hardware sensor request", socket);
    RunHardwareSensor(socket);
  } else if (sensor.contains("igel")) {
    TRACE_VERBOSE("Received IGEL sensor request", socket);
    RunIgelSensor(socket);
  } else {
    TRACE_WARNING("Received unknown sensor request", socket);
    WriteErrorResponse(socket, "ErrorNotImplemented", "");
  }
}
