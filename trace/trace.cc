// The log has two states. It starts unconfigured, and the first call of `IsTraceEnabled` or of
// `InitializeTrace` configures it for good. Only the level tells the states apart: unconfigured, it
// is the highest number there is, so every call reaches `IsTraceEnabledOnceConfigured`, whose
// `call_once` makes other threads wait until `Configure` is done. `Configure` stores the level
// last. From then on, a call whose level is off costs one load and one comparison.
//
// The order of a call whose level is on, all of it on the calling thread:
//   1. WriteTraceHeader  appends time, level, module, process and thread to the line text.
//   2. AppendField       appends each field to the field text.
//   3. WriteTrace        appends message, field text and line feed to the line text, writes that to
//                        console, file and syslog, in this order, and clears both texts.
// The fields have a text of their own because they stand behind the message, which comes last.
//
// Each thread has its two texts and keeps their memory. So building a line takes no lock and, after
// the first lines, allocates nothing. A destructor of another thread-local object may log after the
// texts are destroyed: that line is dropped. Each sink takes a line in one call, the file with
// O_APPEND, so lines do not mix. A lock would add nothing, and a child that is forked while
// another thread holds the lock could never log.
//
// A child may log between fork(2) and exec(2). `OnForkedChild` has it look up its own process and
// thread id.
//
// The log's own lines about its sinks ("Lines were lost", "Failed to rotate trace file") come up
// while a thread has a line under way. They have a text of their own, on the stack.
//
// State and modules are never destroyed: other threads may log until the process has ended.

#include "trace/trace.h"

#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "trace/crash/crash_handler.h"
#include "trace/crash/signal_safe_sinks.h"
#include "trace/level_info.h"
#include "trace/line_header.h"
#include "trace/sinks.h"
#include "trace/thread_id.h"
#include "trace/trace_arguments.h"
#include "utilities/arguments/arguments.h"

namespace Trace {

namespace {

struct State {
  std::once_flag configured;
  std::optional<TraceFile> firstFile;
  std::optional<TraceFile> namedFile;  // of an `InitializeTrace` that found the log configured
  std::atomic<TraceFile*> file{nullptr};
  std::optional<Console> console;
  std::optional<Syslog> syslog;
  std::atomic<int> pid{0};
};

State& GetState() {
  static State& state = *new State;
  return state;
}

struct ThreadText {
  std::string line;
  std::string fields;

  ~ThreadText();
};

thread_local bool isThreadTextGone = false;
thread_local IdText idText;  // empty until the thread's first line

ThreadText::~ThreadText() { isThreadTextGone = true; }

ThreadText* GetThreadText() {
  if (isThreadTextGone) return nullptr;
  thread_local ThreadText text;
  return &text;
}

void Clear(std::string& text) {
  constexpr std::size_t maxKept = 16384;  // one long line must not cost its memory for ever
  text.clear();
  if (text.capacity() > maxKept) text.shrink_to_fit();
}

void OnForkedChild() {
  GetState().pid.store(getpid(), std::memory_order_relaxed);
  idText = IdText();
}

void SetSinksForSignalHandlers(State& state) {
  SetSignalSafeSinks(state.console ? &*state.console : nullptr, state.file,
                     state.syslog ? &*state.syslog : nullptr);
}

void Configure(bool skipCrashHandler, std::string const& logFileName) {
  State& state = GetState();
  if (!skipCrashHandler) InstallCrashHandler();
  TraceLevel const level = GetIntArgument("trace-level", levelVerbose);
  if (HasArgument("trace-console")) state.console.emplace();
  if (!logFileName.empty() || HasArgument("trace-folder")) {
    state.file = &state.firstFile.emplace(logFileName);
  }
  if (HasArgument("trace-syslog")) state.syslog.emplace();
  state.pid.store(getpid());
  if (level >= levelFatal) SetSinksForSignalHandlers(state);
  pthread_atfork(nullptr, nullptr, &OnForkedChild);
  Internal::currentLevel.store(level);
}

// Returns whether this call has configured the log.
bool ConfigureOnce(bool skipCrashHandler, std::string const& logFileName) {
  bool isFirst = false;
  std::call_once(GetState().configured, [&] {
    Configure(skipCrashHandler, logFileName);
    isFirst = true;
  });
  return isFirst;
}

// The log has been configured without the program's log file name. A file that is open already and
// has the same path stays open: opening it again would empty it.
void UseLogFileName(std::string const& logFileName) {
  State& state = GetState();
  if (state.namedFile) return;
  if (state.file != nullptr && GetTraceFilePath("") == GetTraceFilePath(logFileName)) return;
  state.file = &state.namedFile.emplace(logFileName);
  if (Internal::currentLevel >= levelFatal) SetSinksForSignalHandlers(state);
}

// A line of the log about one of its sinks.
SignalSafeText MakeSinkWarning(std::string_view message, std::string_view key,
                               std::uint64_t value) {
  SignalSafeText text;
  StartSignalSafeLine(text, "trace", levelWarning);
  text.append(message);
  text.append(" { ");
  text.append(key);
  text.append(":");
  text.AppendNumber(value);
  text.append(" }");
  return text;
}

void WriteToConsoleAndFile(TraceLevel level, std::string_view line) {
  State& state = GetState();
  if (state.console) state.console->Write(level <= levelError, line);
  if (TraceFile* const file = GetTraceFileStream()) file->Write(line);
}

// Before the first line for which syslog has room again, so that the report is where the gap is.
void ReportLostLines(Syslog& syslog) {
  if (!syslog.HasLostLines() || !IsTraceEnabled(levelWarning)) return;
  std::uint64_t const lost = syslog.TakeLostLines();
  if (lost == 0) return;
  SignalSafeText text = MakeSinkWarning("Lines were lost", "lines", lost);
  if (syslog.WriteAtOnce(LOG_WARNING, text.GetLine())) {
    WriteToConsoleAndFile(levelWarning, text.GetLine());
  } else {
    syslog.AddLostLines(lost);
  }
}

void ReportFailedRotation() {
  State& state = GetState();
  TraceFile* const file = state.file;
  int const error = file != nullptr ? file->TakeRotationError() : 0;
  if (error == 0 || !IsTraceEnabled(levelWarning)) return;
  SignalSafeText text =
      MakeSinkWarning("Failed to rotate trace file", "error", static_cast<std::uint64_t>(error));
  WriteToConsoleAndFile(levelWarning, text.GetLine());
  if (state.syslog) state.syslog->Write(LOG_WARNING, text.GetLine());
}

void WriteBanner() {
  std::string const file = GetTraceModuleFile();
  std::unique_ptr<char, decltype(&std::free)> const path(realpath(file.c_str(), nullptr),
                                                         &std::free);
  if (path != nullptr) {
    Format<levelInfo>("trace",
                      "Process [%s] module [%s] resolved to path [%s] built on [%s] at [%s]",
                      program_invocation_short_name, file.c_str(), path.get(), __DATE__, __TIME__);
  } else {
    Format<levelInfo>("trace", "Process [%s] module [%s] built on [%s] at [%s]",
                      program_invocation_short_name, file.c_str(), __DATE__, __TIME__);
  }
}

void FormatLine(char const* module, TraceLevel level, char const* format, std::va_list arguments) {
  if (!IsTraceEnabled(level)) return;
  std::array<char, 512> message;
  int const length = std::vsnprintf(message.data(), message.size(), format, arguments);
  if (length < 0) return;
  auto const kept = std::min(static_cast<std::size_t>(length), message.size() - 1);
  Base::Shared<Log> const log = Base::MakeShared<Log>(module);
  WriteLine(*log, level, std::string_view(message.data(), kept));
}

}  // namespace

namespace Internal {

bool IsTraceEnabledOnceConfigured(TraceLevel level) {
  ConfigureOnce(false, {});
  return level <= currentLevel.load(std::memory_order_relaxed);
}

std::string* GetFieldText() {
  ThreadText* const text = GetThreadText();
  return text != nullptr ? &text->fields : nullptr;
}

void DropLine() noexcept {
  ThreadText* const text = GetThreadText();
  if (text == nullptr) return;
  text->line.clear();
  text->fields.clear();
}

Base::Shared<Log> const& MakeModule(char const* name) {
  static auto& modules = *new std::deque<Base::Shared<Log>>;
  return modules.emplace_back(Base::MakeShared<Log>(name));
}

}  // namespace Internal

void InitializeTrace(bool skipCrashHandler, char const* logFileName) {
  std::string const name = logFileName != nullptr ? logFileName : "";
  if (!ConfigureOnce(skipCrashHandler, name) && !name.empty()) UseLogFileName(name);
  WriteBanner();
  TraceArguments();
}

TraceFile* GetTraceFileStream() {
  TraceFile* const file = GetState().file.load(std::memory_order_acquire);
  if (file != nullptr) file->EnsureOpen();
  return file;
}

void WriteTraceHeader(Log const& module, TraceLevel level) {
  if (!IsTraceEnabled(level)) return;
  ThreadText* const text = GetThreadText();
  if (text == nullptr) return;
  if (idText.GetText().empty()) {
    idText = MakeIdText(GetState().pid.load(std::memory_order_relaxed), GetThreadId());
  }
  AppendLineHeader(text->line, {.time = std::chrono::system_clock::now(),
                                .level = GetLevelInfo(level).name,
                                .module = module.GetName(),
                                .ids = idText.GetText()});
}

void WriteTrace(Log const& /*module*/, TraceLevel level, std::string_view message) {
  ThreadText* const text = GetThreadText();
  if (text == nullptr) return;
  State& state = GetState();
  std::string& line = text->line;
  line.append(message).append(text->fields).push_back('\n');
  if (state.syslog) ReportLostLines(*state.syslog);
  if (IsTraceEnabled(level)) WriteToConsoleAndFile(level, line);
  if (state.syslog) state.syslog->Write(GetLevelInfo(level).syslogPriority, line);
  ReportFailedRotation();
  Clear(line);
  Clear(text->fields);
}

template <TraceLevel level>
void Format(char const* module, char const* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  FormatLine(module, level, format, arguments);
  va_end(arguments);
}

template void Format<levelError>(char const*, char const*, ...);
template void Format<levelWarning>(char const*, char const*, ...);
template void Format<levelInfo>(char const*, char const*, ...);
template void Format<levelVerbose>(char const*, char const*, ...);
template void Format<levelDebug>(char const*, char const*, ...);

}  // namespace Trace
