#pragma once

#include <mutex>
#include <utility>

#include "base/shared.h"
#include "base/thread.h"
#include "base/thread_linux.h"
#include "base/thread_pool.h"

// Where the process-wide threads and pools are kept, for their accessors and their shutdown. By
// their interfaces, so that a program that never asks for those that need GLib does without it.

namespace Base {

// Logs and throws what a user gets who comes too late: Exception "ThreadPool has been shutdown".
[[noreturn]] void ThrowShutdown();

// One object for the whole process, made on first use. Once ended it does not come back.
template <typename T>
class ProcessWide {
 public:
  // Returns the object. Where there is none, `make` makes it: without a lock, so that threads that
  // ask at the same time may make several; `discard` gets those that are not the one. Throws what
  // `make` throws, and as `ThrowShutdown` when the object has been ended.
  template <typename Make, typename Discard>
  Shared<T> Get(Make make, Discard discard) {
    Shared<T> object = Find();
    if (!object && !IsFinished()) {
      Shared<T> const candidate = make();
      object = Designate(candidate);
      if (object != candidate) discard(*candidate);
    }
    if (!object) ThrowShutdown();
    return object;
  }

  // Returns the object; empty when there is none.
  Shared<T> Find() {
    std::lock_guard const lock(_mutex);
    return _object;
  }

  // From now on none is made. Calls `end` with the object, if there is one, then lets go of it:
  // until then others still find it.
  template <typename End>
  void Finish(End end) {
    {
      std::lock_guard const lock(_mutex);
      _isFinished = true;
    }
    if (Shared<T> const object = Find()) end(*object);
    Shared<T> released;
    std::lock_guard const lock(_mutex);
    std::swap(released, _object);
  }

 private:
  bool IsFinished() {
    std::lock_guard const lock(_mutex);
    return _isFinished;
  }

  // Makes `candidate` the object where there is none yet; returns the one that there is then. Empty
  // for a candidate that comes too late.
  Shared<T> Designate(Shared<T> const& candidate) {
    std::lock_guard const lock(_mutex);
    if (!_object && !_isFinished) _object = candidate;
    return _object;
  }

  std::mutex _mutex;
  Shared<T> _object;         // under _mutex
  bool _isFinished = false;  // under _mutex
};

struct ProcessThreads {
  ProcessWide<ThreadLinux> ioThread;
  ProcessWide<Thread> glibThread;
  ProcessWide<ThreadPool> pool;
  ProcessWide<ThreadPool> exclusivePool;
};

// Never destroyed: it is asked until the process is gone.
ProcessThreads& GetProcessThreads();

}  // namespace Base
