#include "daemon/sensor_queue.h"

#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>

#include "base/exception.h"
#include "base/loop/io_thread.h"
#include "base/loop/run_and_wait.h"
#include "daemon/activity.h"
#include "process/command_budget.h"
#include "trace/trace.h"
#include "utilities/arguments/arguments.h"

TRACE_MODULE("main");

// The queue lives on the IO thread. A request crosses to the sensor thread as a task that holds
// only the sensor, and its outcome comes back as a task with the response. Everything else, the
// connection and the accounts of users above all, stays on the IO thread, so nothing needs a lock.

namespace {

constexpr int defaultRequestTimeout = 30;  // seconds

std::chrono::seconds GetRequestTimeout() {
  int const setting = GetIntArgument("request-timeout", defaultRequestTimeout);
  return std::chrono::seconds(setting < 0 ? defaultRequestTimeout : setting);
}

}  // namespace

// Neither: the sensor has thrown something other than a Base::Exception.
struct SensorQueue::Outcome {
  std::optional<nlohmann::json> response;
  std::optional<std::string> error;  // the text of a Base::Exception
};

void SensorQueue::Add(Base::Shared<Connection> connection, Sensor const& sensor) {
  uid_t const uid = connection->GetUid();
  auto const [requests, isNew] = _waiting.try_emplace(uid);
  if (isNew) _turns.push_back(uid);
  requests->second.push_back({std::move(connection), &sensor});
  StartNext();
}

void SensorQueue::StartNext() {
  Request request{};
  while (!_running.connection && !_isStopped && TakeNext(request)) Start(std::move(request));
}

bool SensorQueue::TakeNext(Request& request) {
  if (_turns.empty()) return false;
  uid_t const uid = _turns.front();
  _turns.pop_front();
  auto const user = _waiting.find(uid);
  request = std::move(user->second.front());
  user->second.pop_front();
  if (user->second.empty()) {
    _waiting.erase(user);
  } else {
    _turns.push_back(uid);
  }
  return true;
}

void SensorQueue::Start(Request request) {
  if (request.connection->GetSocket().HasPeerGone()) {
    request.connection->DropRequest();
    return;
  }
  try {
    if (!_thread) StartThread();
  } catch (Base::Exception const& err) {
    Finish(request, {.response = {}, .error = err.what()});
    return;
  }
  _running = std::move(request);
  BeginWork();  // of its own: the sensor goes on when the client goes
  // The sensor thread never holds the connection, which could otherwise end there.
  _thread->PostTask(
      Base::MakeCallback([this, &sensor = *_running.sensor, ioThread = Base::GetIOThread()] {
        ioThread->PostTask(Base::MakeCallback([this, outcome = Run(sensor)] { OnDone(outcome); }));
      }));
}

void SensorQueue::StartThread() {
  auto const thread = Base::MakeShared<Base::ThreadLinux>();
  thread->Start();
  _thread = thread;
}

SensorQueue::Outcome SensorQueue::Run(Sensor const& sensor) {
  Process::CommandBudget budget(GetRequestTimeout());
  try {
    return {.response = sensor.ask(), .error = {}};
  } catch (Base::Exception const& err) {
    return {.response = {}, .error = err.what()};
  } catch (...) {
    return {};
  }
}

void SensorQueue::OnDone(Outcome const& outcome) {
  Request const request = std::exchange(_running, {});
  EndWork();
  StartNext();
  Finish(request, outcome);
}

void SensorQueue::Finish(Request const& request, Outcome const& outcome) {
  if (outcome.response) {
    request.connection->Answer(*outcome.response);
  } else if (outcome.error) {
    TRACE_ERROR(request.sensor->failureMessage, Trace::As("err", *outcome.error));
    if (outcome.error->empty()) {
      request.connection->AnswerText(R"({"status":"ErrorGeneric"})");
    } else {
      request.connection->Answer({{"status", "ErrorGeneric"}, {"error_message", *outcome.error}});
    }
  } else {
    request.connection->FailRequest();
  }
}

void SensorQueue::Stop() {
  Base::Shared<Base::ThreadLinux> thread;
  Base::RunAndWait(*Base::GetIOThread(), [this, &thread] {
    _isStopped = true;
    thread = _thread;
  });
  if (thread) thread->Stop();
}

SensorQueue& GetSensorQueue() {
  static auto& queue = *new SensorQueue;
  return queue;
}
