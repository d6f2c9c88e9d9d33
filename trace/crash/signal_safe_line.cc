#include "trace/crash/signal_safe_line.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>

#include "trace/crash/signal_safe_sinks.h"
#include "trace/level_info.h"
#include "trace/line_header.h"
#include "trace/sinks.h"
#include "trace/thread_id.h"

namespace Trace {

namespace {

constexpr int patienceMs = 100;

std::atomic<Console*> safeConsole{nullptr};
std::atomic<TraceFile*> safeFile{nullptr};
std::atomic<Syslog*> safeSyslog{nullptr};
static_assert(std::atomic<Console*>::is_always_lock_free, "used in a signal handler");

}  // namespace

void SetSignalSafeSinks(Console* console, TraceFile* file, Syslog* syslog) {
  safeConsole = console;
  safeFile = file;
  safeSyslog = syslog;
}

void StartSignalSafeLine(SignalSafeText& text, std::string_view module, TraceLevel level) noexcept {
  IdText const ids = MakeIdText(getpid(), GetThreadId());
  AppendLineHeader(text, {.time = std::chrono::system_clock::now(),
                          .level = GetLevelInfo(level).name,
                          .module = module,
                          .ids = ids.GetText()});
}

void WriteToSignalSafeSinks(SignalSafeText& text, TraceLevel level,
                            int consolePatienceMs) noexcept {
  std::string_view const line = text.GetLine();
  if (Console* const console = safeConsole.load()) {
    console->Write(level <= levelError, line, consolePatienceMs);
  }
  if (TraceFile* const file = safeFile.load()) file->WriteInSignalHandler(line);
  if (Syslog* const syslog = safeSyslog.load()) {
    syslog->Write(GetLevelInfo(level).syslogPriority, line);
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
