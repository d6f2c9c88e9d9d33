#include "base/loop/thread_handle.h"

#include <system_error>
#include <utility>

namespace Base {

int ThreadHandle::Start(std::function<void()> entry) {
  try {
    std::thread thread(std::move(entry));
    std::lock_guard const lock(_mutex);
    _thread = std::move(thread);
    return 0;
  } catch (std::system_error const& err) {
    return err.code().value();
  }
}

void ThreadHandle::End() {
  std::thread thread;
  {
    std::lock_guard const lock(_mutex);
    thread = std::move(_thread);
  }
  if (!thread.joinable()) return;
  if (thread.get_id() == std::this_thread::get_id()) {
    thread.detach();
  } else {
    thread.join();
  }
}

}  // namespace Base
