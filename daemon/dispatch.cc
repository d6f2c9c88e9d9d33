#include "daemon/dispatch.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "base/exception.h"
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

constexpr std::string_view notImplemented = R"({"status":"ErrorNotImplemented"})";

// Finds the sensor that a request names, while the library parses the request. No document is
// built, so a packet that nests deep costs neither nodes nor recursion. When a key occurs twice,
// the last one counts.
class RequestReader final : public nlohmann::json_sax<nlohmann::json> {
 public:
  // Whether the request is an object with the key "sensor".
  bool HasSensorKey() const { return _hasSensorKey; }

  // The first one of `usedSensors` whose key the object "sensor" has; null without one.
  Sensor const* GetSensor() const { return _sensor; }

  bool key(std::string& key) override {
    if (_depth == 1) {
      _isSensorNext = key == "sensor";
      if (!_isSensorNext) return true;
      _hasSensorKey = true;
      _sensor = nullptr;
    } else if (_depth == 2 && _isInSensor) {
      auto const found = std::ranges::find(usedSensors, key, &Sensor::key);
      if (found == usedSensors.end()) return true;
      if (_sensor == nullptr || &*found < _sensor) _sensor = &*found;
    }
    return true;
  }

  bool start_object(std::size_t /*size*/) override {
    if (_depth == 1) _isInSensor = _isSensorNext;
    ++_depth;
    return true;
  }

  bool start_array(std::size_t /*size*/) override {
    if (_depth == 1) _isInSensor = false;
    ++_depth;
    return true;
  }

  bool end_object() override { return End(); }
  bool end_array() override { return End(); }

  bool null() override { return true; }
  bool boolean(bool /*value*/) override { return true; }
  bool number_integer(std::int64_t /*value*/) override { return true; }
  bool number_unsigned(std::uint64_t /*value*/) override { return true; }
  bool number_float(double /*value*/, std::string const& /*text*/) override { return true; }
  bool string(std::string& /*value*/) override { return true; }
  bool binary(nlohmann::json::binary_t& /*value*/) override { return true; }

  // Ends the parsing, which then returns false.
  bool parse_error(std::size_t /*position*/, std::string const& /*lastToken*/,
                   nlohmann::json::exception const& /*err*/) override {
    return false;
  }

 private:
  bool End() {
    --_depth;
    return true;
  }

  std::size_t _depth = 0;      // objects and arrays that are open
  bool _isSensorNext = false;  // the last key of the request is "sensor"
  bool _isInSensor = false;    // the value of the request's last key is an object, and "sensor"
  bool _hasSensorKey = false;
  Sensor const* _sensor = nullptr;
};

}  // namespace

void DispatchRequest(Base::Shared<Connection> const& connection,
                     std::span<unsigned char const> request) {
  RequestReader reader;
  if (!nlohmann::json::sax_parse(request.begin(), request.end(), &reader)) {
    throw Base::Exception("Invalid JSON");
  }
  Net::SocketLinux const* const socket = &connection->GetSocket();
  if (!reader.HasSensorKey()) {
    TRACE_WARNING("Received unexpected request", socket);
    connection->AnswerText(notImplemented);
    return;
  }
  Sensor const* const sensor = reader.GetSensor();
  if (sensor == nullptr) {
    TRACE_WARNING("Received unknown sensor request", socket);
    connection->AnswerText(notImplemented);
    return;
  }
  TRACE_VERBOSE(sensor->requestMessage, socket);
  GetSensorQueue().Add(connection, *sensor);
}

void UseSensors(std::span<Sensor const> sensors) { usedSensors = sensors; }
