#pragma once

#include <mutex>
#include <utility>

#include "base/loop/thread.h"
#include "base/loop/thread_linux.h"
#include "base/loop/thread_pool.h"
#include "base/shared.h"

// The slots of the process-wide threads and pools, for their accessors and their shutdown. Threads
// and pools that need GLib are held by their interfaces, so this folder does not need GLib.

namespace Base {

// Logs an ERROR and throws Exception "ThreadPool has been shutdown".
[[noreturn]] void ThrowShutdown();

// One object for the whole process, created on first use and never again after `Finish`.
//
// Threads: any.
template <typename T>
class ProcessWide {
 public:
  // Returns the object; calls `make` to create it when there is none yet. Throws what `make`
  // throws, and a later call tries again. After `Finish` it throws as `ThrowShutdown` does.
  //
  // Deliberate: `make` runs under the lock, so that no second object is ever created. `make` must
  // not call `Get` of the same object.
  template <typename Make>
  Shared<T> Get(Make make) {
    std::unique_lock lock(_mutex);
    if (!_object && !_isFinished) _object = make();
    Shared<T> object = _object;
    lock.unlock();
    if (!object) ThrowShutdown();
    return object;
  }

  // Forbids a new object; then, if there is an object, calls `end` with it and releases it. `Get`
  // still returns the object while `end` runs.
  template <typename End>
  void Finish(End end) {
    std::unique_lock lock(_mutex);
    _isFinished = true;
    Shared<T> const object = _object;
    lock.unlock();
    if (object) end(*object);
    lock.lock();
    _object = {};  // not the last handle: `object` goes later, without the lock
  }

 private:
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

// Never destroyed: threads may call the accessors until the process has ended.
ProcessThreads& GetProcessThreads();

}  // namespace Base
