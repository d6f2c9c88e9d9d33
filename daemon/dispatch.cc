#include "daemon/dispatch.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "daemon/sensor_queue.h"
#include "sensors/hardware.h"
#include "sensors/igel.h"
#include "trace/trace.h"

TRACE_MODULE("main");

namespace {

constexpr auto daemonSensors = std::to_array<Sensor>({
    {"hardware", &AskHardware, "Received hardware sensor request", "Error detecting bios serial"},
    {"igel", &AskIgel, "Received IGEL sensor request",
     "Error detecting igel management certificates"},
});

std::span<Sensor const> usedSensors = daemonSensors;

}  // namespace

void DispatchRequest(Base::Shared<Connection> const& connection, nlohmann::json const& request) {
  Net::SocketLinux const* const socket = &connection->GetSocket();
  // contains() is false for a value that is not an object.
  if (!request.contains("sensor")) {
    TRACE_WARNING("Received unexpected request", socket);
    connection->AnswerStatus("ErrorNotImplemented");
    return;
  }
  // By reference: a packet can nest deep, and the library copies recursively.
  nlohmann::json const& wanted = request["sensor"];
  auto const sensor = std::ranges::find_if(
      usedSensors, [&wanted](Sensor const& candidate) { return wanted.contains(candidate.key); });
  if (sensor == usedSensors.end()) {
    TRACE_WARNING("Received unknown sensor request", socket);
    connection->AnswerStatus("ErrorNotImplemented");
    return;
  }
  TRACE_VERBOSE(sensor->requestMessage, socket);
  GetSensorQueue().Add(connection, *sensor);
}

void UseSensors(std::span<Sensor const> sensors) { usedSensors = sensors; }
