#include "trace/crash/signal_safe_line.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>

#include "trace/crash/signal_safe_sinks.h"
#include "trace/level_info.h"
#include "trace/line_header.h"
#include "trace/sinks.h"

namespace Trace {

namespace {

constexpr int patienceMs = 100;

std::atomic<Console*> safeConsole{nullptr};
std::atomic<TraceFile*> safeFile{nullptr};
std::atomic<int> safeSyslog{-1};
static_assert(std::atomic<Console*>::is_always_lock_free && std::atomic<int>::is_always_lock_free,
              "used in a signal handler");

// Sends the datagram that syslog(3) would send, because syslog(3) takes a lock, which the
// interrupted thread may hold. The datagram has no time, because local time takes a lock too; the
// receiver adds its own. Only the first line waits for a receiver whose queue is full.
void WriteToSyslog(int socket, int priority, std::string_view line) {
  sockaddr_un log{};
  log.sun_family = AF_UNIX;
  constexpr std::string_view path = _PATH_LOG;
  path.copy(log.sun_path, sizeof log.sun_path - 1);
  FixedText<256> start;
  start.append("<");
  start.AppendNumber(LOG_USER | priority);
  start.append(">");
  start.append(program_invocation_short_name);
  start.append(": ");
  std::string_view const tag = start.GetText();
  std::array<iovec, 2> parts{{{const_cast<char*>(tag.data()), tag.size()},
                              {const_cast<char*>(line.data()), line.size() - 1}}};
  msghdr message{};
  message.msg_name = &log;
  message.msg_namelen = sizeof log;
  message.msg_iov = parts.data();
  message.msg_iovlen = parts.size();
  static bool isStalled = false;
  int const flags = isStalled ? MSG_DONTWAIT | MSG_NOSIGNAL : MSG_NOSIGNAL;
  if (sendmsg(socket, &message, flags) == -1 && errno == EAGAIN) isStalled = true;
}

}  // namespace

void SetSignalSafeSinks(Console* console, TraceFile* file, bool useSyslog) {
  safeConsole = console;
  safeFile = file;
  if (!useSyslog) return;
  int const syslogSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  timeval const patience{.tv_sec = 0, .tv_usec = patienceMs * 1000};
  setsockopt(syslogSocket, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  safeSyslog = syslogSocket;
}

void StartSignalSafeLine(SignalSafeText& text, std::string_view module, TraceLevel level) noexcept {
  AppendLineHeader(text, {.time = std::chrono::system_clock::now(),
                          .level = GetLevelInfo(level).name,
                          .module = module,
                          .pid = getpid(),
                          .threadId = gettid()});
}

void WriteToSignalSafeSinks(SignalSafeText& text, TraceLevel level,
                            int consolePatienceMs) noexcept {
  std::string_view const line = text.GetLine();
  if (Console* const console = safeConsole.load()) {
    console->Write(level <= levelError, line, consolePatienceMs);
  }
  if (TraceFile* const file = safeFile.load()) file->WriteInSignalHandler(line);
  if (int const socket = safeSyslog.load(); socket != -1) {
    WriteToSyslog(socket, GetLevelInfo(level).syslogPriority, line);
  }
}

void WriteSignalSafeLine(std::string_view module, TraceLevel level, std::string_view message,
                         std::string_view key, std::string_view value) noexcept {
  if (level > Internal::currentLevel.load(std::memory_order_relaxed)) return;
  int const error = errno;
  SignalSafeText text;
  StartSignalSafeLine(text, module, level);
  text.append(message);
  text.append(" { ");
  text.append(key);
  text.append(":\"");
  text.append(value);
  text.append("\" }");
  WriteToSignalSafeSinks(text, level, patienceMs);
  errno = error;
}

}  // namespace Trace
