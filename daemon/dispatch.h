#pragma once

#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string_view>

#include "base/shared.h"
#include "daemon/connection.h"

// One of the questions that the daemon answers.
struct Sensor {
  std::string_view key;  // in the request's "sensor" object
  // Returns the response or throws Base::Exception. Runs on the sensor thread; may block.
  nlohmann::json (*ask)();
  std::string_view requestMessage;  // the trace line of a request
  std::string_view failureMessage;  // the trace line of a thrown exception
};

// Answers `request` at once or queues it for the sensor that it names. Each request gets exactly
// one response, unless its client goes first.
//
//   {"sensor": {"hardware": ...}}   the hardware sensor, also where "igel" stands beside it
//   {"sensor": {"igel": ...}}       the IGEL sensor
//   anything else                   {"status": "ErrorNotImplemented"}, at once
//
// On the IO thread. Throws Base::Exception for what is not JSON.
void DispatchRequest(Base::Shared<Connection> const& connection,
                     std::span<unsigned char const> request);

// Replaces the daemon's own sensors, for tests: a request with several of the keys goes to the
// first one. `sensors` must outlive the IO thread.
void UseSensors(std::span<Sensor const> sensors);
