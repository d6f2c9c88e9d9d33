#include "base/loop/thread.h"

#include <utility>

#include "trace/crash/crash_stack.h"

namespace Base {

namespace {

// A plain pointer that owns a reference. A handle would have a destructor, which would run at the
// thread's end in no certain order with the other thread-local destructors.
thread_local Thread* current = nullptr;

}  // namespace

Shared<Thread> Thread::GetCurrent() { return Shared<Thread>(current); }

Thread::CurrentScope::CurrentScope(Shared<Thread> thread) : _outer(current) {
  Trace::EnsureCrashStack();
  current = thread.Detach();
}

Thread::CurrentScope::~CurrentScope() {
  Thread* const last = std::exchange(current, _outer);
  if (last->ReleaseReference() == 0) delete last;
}

}  // namespace Base
