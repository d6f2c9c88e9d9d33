// The log has two states. It starts unconfigured, and the first call of `IsTraceEnabled` or of
// `InitializeTrace` configures it for good. Only the level tells the states apart: unconfigured, it
// is the highest number there is, so every call reaches `IsTraceEnabledOnceConfigured`, whose
// `call_once` makes other threads wait until `Configure` is done. `Configure` stores the level
// last. From then on, a call whose level is off costs one relaxed load and one comparison.
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
// texts are destroyed: that line is dropped. Console and file take a line in one write(2), the file
// with O_APPEND, so lines do not mix. A lock would add nothing, and a child that is forked while
// another thread holds the lock could never log.
//
// A child may log between fork(2) and exec(2). `OnForkedChild` has it look up its own process and
// thread id, and turns syslog off for it, because another thread of the parent may have held the
// lock of syslog(3) at the fork.
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
#include "trace/trace_arguments.h"
#include "utilities/arguments/arguments.h"

namespace Trace {

namespace {

struct State {
  std::once_flag configured;
  std::string logFileName;
  std::optional<TraceFile> file;
  std::optional<Console> console;
  std::atomic<bool> syslog{false};
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
thread_local int threadId = 0;

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
  threadId = 0;
  GetState().syslog.store(false, std::memory_order_relaxed);
}

void Configure(bool skipCrashHandler) {
  State& state = GetState();
  if (!skipCrashHandler) InstallCrashHandler();
  TraceLevel const level = GetIntArgument("trace-level", levelVerbose);
  if (HasArgument("trace-console")) state.console.emplace();
  if (!state.logFileName.empty() || HasArgument("trace-folder")) {
    state.file.emplace(state.logFileName);
  }
  state.syslog.store(HasArgument("trace-syslog"));
  state.pid.store(getpid());
  if (level >= levelFatal) {
    SetSignalSafeSinks(state.console ? &*state.console : nullptr,
                       state.file ? &*state.file : nullptr, state.syslog);
  }
  pthread_atfork(nullptr, nullptr, &OnForkedChild);
  Internal::currentLevel.store(level);
}

void ConfigureOnce(bool skipCrashHandler) {
  std::call_once(GetState().configured, &Configure, skipCrashHandler);
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
  ConfigureOnce(false);
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
  if (logFileName != nullptr) GetState().logFileName = logFileName;
  ConfigureOnce(skipCrashHandler);
  WriteBanner();
  TraceArguments();
}

TraceFile* GetTraceFileStream() {
  auto& file = GetState().file;
  if (!file) return nullptr;
  file->EnsureOpen();
  return &*file;
}

void WriteTraceHeader(Log const& module, TraceLevel level) {
  if (!IsTraceEnabled(level)) return;
  ThreadText* const text = GetThreadText();
  if (text == nullptr) return;
  auto const now = std::chrono::system_clock::now();
  if (threadId == 0) threadId = gettid();
  AppendLineHeader(text->line, {.time = now,
                                .level = GetLevelInfo(level).name,
                                .module = module.GetName(),
                                .pid = GetState().pid.load(std::memory_order_relaxed),
                                .threadId = threadId});
}

void WriteTrace(Log const& /*module*/, TraceLevel level, std::string_view message) {
  ThreadText* const text = GetThreadText();
  if (text == nullptr) return;
  State& state = GetState();
  std::string& line = text->line;
  line.append(message).append(text->fields).append("\n");
  if (IsTraceEnabled(level)) {
    if (state.console) state.console->Write(level <= levelError, line);
    if (TraceFile* const file = GetTraceFileStream()) file->Write(line);
  }
  if (state.syslog.load(std::memory_order_relaxed)) {
    line.pop_back();
    syslog(GetLevelInfo(level).syslogPriority, "%s", line.c_str());
  }
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
