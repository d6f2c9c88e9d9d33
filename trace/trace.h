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
// and hands it with one write to each sink that is on: console, file, syslog. The time is UTC. A
// thread's first line pads the milliseconds on the left with zeros (042), its later lines on the
// right (420 for 42 ms): kept as it is, for those who read old and new logs with one program.
//
// Settings, read once, when the log is first used:
//   trace-level      threshold, 0 (FATAL) to 5 (DEBUG), default 4
//   trace-console    console on; levels 0 and 1 go to standard error, the rest to standard output
//   trace-folder, trace-file, logging-file, trace-file-prefix   see trace/sinks.h
//   trace-syslog     syslog on
//   trace-stringptr-maxlen   how much of a NUL-terminated text a field shows, default 64
// For -console and -syslog it is enough to be there: their value is not looked at.
//
// Threads: any. Lines of several threads may follow each other in any order, but a line is whole.
//          No lock is held while a line is built or written to the console or the file.
// Errors:  none reach the caller; what cannot be written is dropped.

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

// Until the log is configured it lets everything through to the slow path, which configures.
inline std::atomic<TraceLevel> currentLevel{std::numeric_limits<TraceLevel>::max()};

bool IsTraceEnabledOnceConfigured(TraceLevel level);

// The calling thread's field text; null while the thread takes down its own thread-local objects.
std::string* GetFieldText();

// Forgets a line that could not be built.
void DropLine() noexcept;

// Never destroyed: a thread may log while the process ends.
Base::Shared<Log> const& MakeModule(char const* name);

}  // namespace Internal

// Configures the log, names the program's log file ("" or null: none of its own), which turns the
// file sink on, writes the banner at INFO and then the settings. Called once, at the start of
// `main`, after the arguments were parsed. `skipCrashHandler` leaves the fault signals alone; the
// first caller's wish counts, and a line that is logged earlier wishes false.
void InitializeTrace(bool skipCrashHandler, char const* logFileName);

// Whether lines of this level are written; configures the log first where that has not been done.
inline bool IsTraceEnabled(TraceLevel level) {
  return level <= Internal::currentLevel.load(std::memory_order_relaxed) &&
         Internal::IsTraceEnabledOnceConfigured(level);
}

// Puts the header into the calling thread's line text; nothing when the level is not enabled.
void WriteTraceHeader(Log const& module, TraceLevel level);

// Sends header, `message` and the thread's field text to the sinks, and clears both texts.
void WriteTrace(Log const& module, TraceLevel level, std::string_view message);

// A whole line; the caller has tested the level.
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

// Formatted lines without fields, for callers that have a format and a module's name at hand. At
// most 511 bytes of the message are written.
void FormatError(char const* module, char const* format, ...) __attribute__((format(printf, 2, 3)));
void FormatWarning(char const* module, char const* format, ...)
    __attribute__((format(printf, 2, 3)));
void FormatInfo(char const* module, char const* format, ...) __attribute__((format(printf, 2, 3)));
void FormatVerbose(char const* module, char const* format, ...)
    __attribute__((format(printf, 2, 3)));
void FormatDebug(char const* module, char const* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace Trace

// Names the trace module of a source file; once, at its top, at namespace level.
#define TRACE_MODULE(name)                                       \
  namespace {                                                    \
  [[maybe_unused]] Base::Shared<Trace::Log> const& traceModule = \
      Trace::Internal::MakeModule(name);                         \
  }                                                              \
  static_assert(true)

// TRACE_ERROR("Failed to add watch", this, fd, Trace::As("events", mask)): a message and up to
// twelve fields. A field's key is the argument as written, or what `Trace::As` names. When the
// level is off that is one comparison, and no argument is evaluated.
#define TRACE_FATAL(...) TRACE_AT(Trace::levelFatal, __VA_ARGS__)
#define TRACE_ERROR(...) TRACE_AT(Trace::levelError, __VA_ARGS__)
#define TRACE_WARNING(...) TRACE_AT(Trace::levelWarning, __VA_ARGS__)
#define TRACE_INFO(...) TRACE_AT(Trace::levelInfo, __VA_ARGS__)
#define TRACE_VERBOSE(...) TRACE_AT(Trace::levelVerbose, __VA_ARGS__)
#define TRACE_DEBUG(...) TRACE_AT(Trace::levelDebug, __VA_ARGS__)

#define TRACE_AT(level, message, ...)                                                         \
  do {                                                                                        \
    if (Trace::IsTraceEnabled(level)) [[unlikely]] {                                          \
      Trace::WriteLine(*traceModule, level, message __VA_OPT__(, TRACE_FIELDS(__VA_ARGS__))); \
    }                                                                                         \
  } while (false)

#define TRACE_FIELD(argument) Trace::MakeField(#argument, argument)
#define TRACE_FIELDS(...)                                                                          \
  TRACE_PICK(__VA_ARGS__, TRACE_EACH_12, TRACE_EACH_11, TRACE_EACH_10, TRACE_EACH_9, TRACE_EACH_8, \
             TRACE_EACH_7, TRACE_EACH_6, TRACE_EACH_5, TRACE_EACH_4, TRACE_EACH_3, TRACE_EACH_2,   \
             TRACE_EACH_1, )                                                                       \
  (__VA_ARGS__)
#define TRACE_PICK(a, b, c, d, e, f, g, h, i, j, k, l, picked, ...) picked
#define TRACE_EACH_1(a) TRACE_FIELD(a)
#define TRACE_EACH_2(a, ...) TRACE_FIELD(a), TRACE_EACH_1(__VA_ARGS__)
#define TRACE_EACH_3(a, ...) TRACE_FIELD(a), TRACE_EACH_2(__VA_ARGS__)
#define TRACE_EACH_4(a, ...) TRACE_FIELD(a), TRACE_EACH_3(__VA_ARGS__)
#define TRACE_EACH_5(a, ...) TRACE_FIELD(a), TRACE_EACH_4(__VA_ARGS__)
#define TRACE_EACH_6(a, ...) TRACE_FIELD(a), TRACE_EACH_5(__VA_ARGS__)
#define TRACE_EACH_7(a, ...) TRACE_FIELD(a), TRACE_EACH_6(__VA_ARGS__)
#define TRACE_EACH_8(a, ...) TRACE_FIELD(a), TRACE_EACH_7(__VA_ARGS__)
#define TRACE_EACH_9(a, ...) TRACE_FIELD(a), TRACE_EACH_8(__VA_ARGS__)
#define TRACE_EACH_10(a, ...) TRACE_FIELD(a), TRACE_EACH_9(__VA_ARGS__)
#define TRACE_EACH_11(a, ...) TRACE_FIELD(a), TRACE_EACH_10(__VA_ARGS__)
#define TRACE_EACH_12(a, ...) TRACE_FIELD(a), TRACE_EACH_11(__VA_ARGS__)
