#include "base/loop/thread.h"

#include <utility>

#include "trace/crash/crash_stack.h"

namespace Base {

namespace {

// A plain pointer with a reference of its own: a thread-local handle would be taken down in an
// order that nobody sees.
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
