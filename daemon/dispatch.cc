#include "daemon/dispatch.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <string_view>

#include "base/exception.h"
#include "daemon/response.h"
#include "sensors/hardware.h"
#include "sensors/igel.h"
#include "trace/trace.h"

TRACE_MODULE("main");

namespace {

struct Sensor {
  std::string_view key;  // in the request's "sensor" object
  nlohmann::json (*ask)();
  std::string_view requestMessage;
  std::string_view failureMessage;
};

// A request with several of the keys goes to the first sensor in this order.
constexpr auto sensors = std::to_array<Sensor>({
    {"hardware", &AskHardware, "Received hardware sensor request", "Error detecting bios serial"},
    {"igel", &AskIgel, "Received IGEL sensor request",
     "Error detecting igel management certificates"},
});

void Answer(Base::Shared<Net::Socket> const& socket, Sensor const& sensor) {
  TRACE_VERBOSE(sensor.requestMessage, socket);
  try {
    WriteResponse(socket, sensor.ask());
  } catch (Base::Exception const& err) {
    TRACE_ERROR(sensor.failureMessage, err);
    WriteErrorResponse(socket, "ErrorGeneric", err.what());
  }
}

}  // namespace

void DispatchRequest(Base::Shared<Net::Socket> const& socket, nlohmann::json const& request) {
  // contains() is false for a value that is not an object.
  if (!request.contains("sensor")) {
    TRACE_WARNING("Received unexpected request", socket);
    WriteErrorResponse(socket, "ErrorNotImplemented", "");
    return;
  }
  // By reference: a packet can nest deep, and the library copies recursively.
  nlohmann::json const& wanted = request["sensor"];
  auto const sensor = std::ranges::find_if(
      sensors, [&wanted](Sensor const& candidate) { return wanted.contains(candidate.key); });
  if (sensor == sensors.end()) {
    TRACE_WARNING("Received unknown sensor request", socket);
    WriteErrorResponse(socket, "ErrorNotImplemented", "");
    return;
  }
  Answer(socket, *sensor);
}
