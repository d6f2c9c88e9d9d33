#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

#include "base/shared.h"
#include "trace/field.h"

// The trace log: the one diagnostic channel of a process. A call builds one line,
//
//   09:05:33.420Z VERBOSE  socket_linux(4211:4213) - Read succeeded { this:0x7f10 bytesRead:4 }
//   time of day   level    module      pid  tid      message          fields
//
// and writes it to each sink that is on: console, file, syslog. The time is UTC. Deliberate: a
// thread's first line pads the milliseconds with zeros on the left (042 for 42 ms), its later lines
// on the right (420), so that one program can read old and new logs.
//
// Settings, read once, when the log is first used:
//   trace-level      threshold, 0 (FATAL) to 5 (DEBUG), default 4
//   trace-console    console on; levels 0 and 1 go to standard error, the rest to standard output
//   trace-folder, trace-file, logging-file, trace-file-prefix   see trace/sinks.h
//   trace-file-max-size   bytes after which the file is rotated, default 0: no limit
//   trace-syslog     syslog on
//   trace-stringptr-maxlen   how many characters of a NUL-terminated text a field shows, default 64
// Deliberate: trace-console and trace-syslog count with any value, so --trace-console=false turns
// the console on.
//
// Threads: any. Lines of several threads may follow each other in any order; no line mixes with
//          another one. The log holds no lock while it builds or writes a line: each thread has
//          its own texts, and each sink is atomics and one system call a line.
// Waiting: a reader of the console or of syslog that has stopped holds the process up for one
//          second or 100 ms, once, until it reads again. Lines that find no room are dropped. Those
//          of syslog are counted: WARNING "Lines were lost { lines:... }", in every sink, precedes
//          the first line for which there is room again.
// Errors:  none reach the caller. A line that cannot be written is dropped. A trace file that
// cannot
//          be rotated grows on, after a WARNING "Failed to rotate trace file { error:... }".

namespace Trace {

using TraceLevel = std::int32_t;  // lower is more severe

inline constexpr TraceLevel levelFatal = 0;
inline constexpr TraceLevel levelError = 1;
inline constexpr TraceLevel levelWarning = 2;
inline constexpr TraceLevel levelInfo = 3;
inline constexpr TraceLevel levelVerbose = 4;
inline constexpr TraceLevel levelDebug = 5;

// A trace module: the name under which a source file logs.
class Log final : public Base::Shareable {
 public:
  explicit Log(std::string name) : _name(std::move(name)) {}

  std::string const& GetName() const { return _name; }

 private:
  std::string _name;
};

namespace Internal {

// Before the log is configured, the level is the highest number there is. It lets every level
// through to the function below, which configures the log.
inline constexpr TraceLevel unconfigured = std::numeric_limits<TraceLevel>::max();
inline std::atomic<TraceLevel> currentLevel{unconfigured};

bool IsTraceEnabledOnceConfigured(TraceLevel level);

// The calling thread's field text; null once the thread has destroyed it on its way to its end.
std::string* GetFieldText();

// Clears the calling thread's texts after a line that could not be built.
void DropLine() noexcept;

// A module that is never destroyed: a thread may log while the process ends.
Base::Shared<Log> const& MakeModule(char const* name);

}  // namespace Internal

// Configures the log, then logs the banner at INFO and the settings at VERBOSE. Call it once, at
// the start of `main`, after `ParseArguments`. A `logFileName` other than null and "" turns the
// file sink on. `skipCrashHandler` leaves the fault signals alone. A line that is logged before
// this call configures the log with the crash handler and without the file name; the lines from
// this call on then go to the file of that name.
void InitializeTrace(bool skipCrashHandler, char const* logFileName);

// Whether lines of this level are written. The first call configures the log.
inline bool IsTraceEnabled(TraceLevel level) {
  // Acquire: who sees the level also sees the sinks that were set up before it was stored.
  TraceLevel const current = Internal::currentLevel.load(std::memory_order_acquire);
  if (level > current) return false;
  return current != Internal::unconfigured || Internal::IsTraceEnabledOnceConfigured(level);
}

// Appends the header to the calling thread's line text, unless the level is off.
void WriteTraceHeader(Log const& module, TraceLevel level);

// Writes the calling thread's line text, `message` and the thread's field text to the sinks as one
// line, and clears both texts.
void WriteTrace(Log const& module, TraceLevel level, std::string_view message);

// Writes a whole line. The caller has tested the level.
template <typename... Fields>
void WriteLine(Log const& module, TraceLevel level, std::string_view message,
               Fields const&... fields) noexcept {
  try {
    std::string* const text = Internal::GetFieldText();
    if (text == nullptr) return;
    WriteTraceHeader(module, level);
    if constexpr (sizeof...(fields) > 0) {
      text->append(" {");
      (AppendField(*text, fields), ...);
      text->append(" }");
    }
    WriteTrace(module, level, message);
  } catch (...) {
    Internal::DropLine();
  }
}

// A formatted line without fields, for a caller that has a printf(3) format and the name of a
// module at hand: `Format<levelInfo>("main", "%d left", 7)`. Writes at most 511 bytes of the
// message. Exists for levelError to levelDebug.
template <TraceLevel level>
void Format(char const* module, char const* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace Trace

// Names the trace module of a source file. Stands once, at the top of the file, in no namespace.
#define TRACE_MODULE(name)                                       \
  namespace {                                                    \
  [[maybe_unused]] Base::Shared<Trace::Log> const& traceModule = \
      Trace::Internal::MakeModule(name);                         \
  }                                                              \
  static_assert(true)

// TRACE_ERROR("Failed to add watch", this, fd, Trace::As("events", mask)): a message and up to 22
// fields. A field's key is the argument as written, or what `Trace::As` names. When the level is
// off, the call costs one comparison and evaluates no argument.
#define TRACE_FATAL(...) TRACE_TO(*traceModule, Trace::levelFatal, __VA_ARGS__)
#define TRACE_ERROR(...) TRACE_TO(*traceModule, Trace::levelError, __VA_ARGS__)
#define TRACE_WARNING(...) TRACE_TO(*traceModule, Trace::levelWarning, __VA_ARGS__)
#define TRACE_INFO(...) TRACE_TO(*traceModule, Trace::levelInfo, __VA_ARGS__)
#define TRACE_VERBOSE(...) TRACE_TO(*traceModule, Trace::levelVerbose, __VA_ARGS__)
#define TRACE_DEBUG(...) TRACE_TO(*traceModule, Trace::levelDebug, __VA_ARGS__)

// The same, logged as the module `log`, where a base class logs as its derived class:
// TRACE_TO(*_log, Trace::levelError, "Failed to start thread", this, error).
#define TRACE_TO(log, level, message, ...)                                           \
  do {                                                                               \
    if (Trace::IsTraceEnabled(level)) [[unlikely]] {                                 \
      Trace::WriteLine(log, level, message __VA_OPT__(, TRACE_FIELDS(__VA_ARGS__))); \
    }                                                                                \
  } while (false)

// A macro does not expand inside its own expansion. TRACE_NEXT therefore leaves the fields after
// its first one as "TRACE_NEXT_LATER () (fields)", which the next pass of TRACE_PASSES expands.
#define TRACE_FIELDS(...) TRACE_PASSES(TRACE_NEXT(__VA_ARGS__))
#define TRACE_NEXT(argument, ...) \
  Trace::MakeField(#argument, argument) __VA_OPT__(, TRACE_NEXT_LATER TRACE_EMPTY_LIST(__VA_ARGS__))
#define TRACE_NEXT_LATER() TRACE_NEXT
#define TRACE_EMPTY_LIST ()
#define TRACE_PASSES(...) TRACE_FEW(TRACE_FEW(TRACE_FEW(TRACE_FEW(__VA_ARGS__))))
#define TRACE_FEW(...) TRACE_ONE(TRACE_ONE(TRACE_ONE(TRACE_ONE(__VA_ARGS__))))
#define TRACE_ONE(...) __VA_ARGS__
