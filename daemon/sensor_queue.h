#pragma once

#include <sys/types.h>

#include <deque>
#include <map>

#include "base/loop/thread_linux.h"
#include "base/shared.h"
#include "daemon/connection.h"
#include "daemon/dispatch.h"

// The requests that wait for a sensor. Sensors block, so they run on a thread of their own, the
// sensor thread, one at a time; the IO thread meanwhile serves everybody else.
//
// The queue is fair between users: it takes one request of each user in turn, and the requests of
// one user in the order in which they came. A request whose client has gone before its turn is
// dropped without starting a tool.
//
// A request may run its commands for "request-timeout" seconds, default 30, 0 for no limit, counted
// from its turn.
//
// Threads: the IO thread, except `Stop`. The queue and the sensor thread share nothing; a request
//          goes there as a task, and its outcome comes back as one.
class SensorQueue {
 public:
  SensorQueue() = default;
  SensorQueue(SensorQueue const&) = delete;
  SensorQueue& operator=(SensorQueue const&) = delete;

  // Queues a request. `connection` gets its `Answer`, or its `FailRequest`, later or from inside
  // this call. Starts the sensor thread on first use.
  void Add(Base::Shared<Connection> connection, Sensor const& sensor);

  // Ends the sensor thread after the sensor that runs; no other one starts. On the thread of the
  // shutdown, while the IO thread still runs.
  void Stop();

 private:
  struct Request {
    Base::Shared<Connection> connection;
    Sensor const* sensor;
  };

  struct Outcome;

  static Outcome Run(Sensor const& sensor);
  void StartNext();
  bool TakeNext(Request& request);
  void Start(Request request);
  void StartThread();
  void OnDone(Outcome const& outcome);
  void Finish(Request const& request, Outcome const& outcome);

  std::map<uid_t, std::deque<Request>> _waiting;  // by user, none of them empty
  std::deque<uid_t> _turns;                       // the users in `_waiting`, next one first
  Request _running{};                             // its connection is empty while no sensor runs
  Base::Shared<Base::ThreadLinux> _thread;
  bool _isStopped = false;
};

// The daemon's queue. Never destroyed.
SensorQueue& GetSensorQueue();
