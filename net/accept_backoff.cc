#include "net/accept_backoff.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <limits>
#include <utility>

#include "base/exception.h"
#include "trace/trace.h"

TRACE_MODULE("socket_linux");

namespace Net {

namespace {

constexpr long resourceCheckNs = 100'000'000;
constexpr time_t otherBackoffSeconds = 1;

bool IsOutOfResources(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

// A margin for the descriptors that the process opens besides its connections.
constexpr int otherDescriptors = 32;

// Whether this process and the system have `count` descriptors to spare.
bool HasFreeDescriptors(int count) {
  if (count == 0) return true;
  Base::UniqueFd const probe(eventfd(0, EFD_CLOEXEC));
  return probe && HasFreeDescriptors(count - 1);
}

int GetMaxDescriptors() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  return static_cast<int>(std::min<rlim_t>(limit.rlim_cur, std::numeric_limits<int>::max()));
}

}  // namespace

// A descriptor, and not a scheduled task: one that becomes due while the loop is busy would not end
// the loop's next wait.
AcceptBackoff::AcceptBackoff(Base::Shared<Base::ThreadLinux> loop, int reservedDescriptors)
    : _loop(std::move(loop)),
      _timer(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)),
      _reservedDescriptors(reservedDescriptors),
      _maxDescriptors(GetMaxDescriptors()) {
  if (!_timer) {
    int const error = errno;
    TRACE_ERROR("Failed to create rest timer", this, error);
    throw Base::ExceptionPosix(error);
  }
}

bool AcceptBackoff::IsNeededAfter(int error) { return error != ECONNABORTED && error != EINTR; }

bool AcceptBackoff::MayAccept() {
  if (_reservedDescriptors == 0) return true;
  // A new descriptor has the lowest free number, so as long as no high number has been seen, not
  // many are open. Only near the limit they are worth counting.
  if (_highestFd < _maxDescriptors - _reservedDescriptors - otherDescriptors) return true;
  if (HasFreeDescriptors(_reservedDescriptors + 1)) {
    _highestFd = 0;  // the next connection's number tells whether many are still open
    return true;
  }
  TRACE_WARNING("Accepting no connections, too few descriptors are left", _reservedDescriptors);
  Start(EMFILE);
  return false;
}

void AcceptBackoff::Watch(Base::Task const& onEnd) {
  // The watch holds `onEnd`, and the backoff does not: `onEnd` holds the socket, which holds the
  // backoff.
  _loop->AddWatch(
      _timer.Get(), EPOLLIN,
      Base::MakeCallback([self = Base::Shared(this), onEnd](int /*fd*/, int /*events*/) {
        if (self->HasEnded()) onEnd->Call();
      }));
}

void AcceptBackoff::Start(int error) {
  _isOutOfResources = IsOutOfResources(error);
  itimerspec duration{};
  if (_isOutOfResources) {
    duration.it_value.tv_nsec = resourceCheckNs;
    duration.it_interval = duration.it_value;
  } else {
    duration.it_value.tv_sec = otherBackoffSeconds;
  }
  timerfd_settime(_timer.Get(), 0, &duration, nullptr);
}

bool AcceptBackoff::HasEnded() {
  std::uint64_t expirations = 0;
  // The event was found before the backoff closed or the timer was set anew.
  if (!_timer || read(_timer.Get(), &expirations, sizeof expirations) == -1) return false;
  if (_isOutOfResources && !HasFreeDescriptors(_reservedDescriptors + 1)) return false;
  itimerspec const off{};
  timerfd_settime(_timer.Get(), 0, &off, nullptr);
  return true;
}

void AcceptBackoff::Close() {
  if (Base::UniqueFd const timer = std::move(_timer)) _loop->RemoveWatch(timer.Get());
}

}  // namespace Net
