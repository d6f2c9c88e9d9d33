#include "trace/crash/crash_report.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <limits.h>
#include <link.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <syslog.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

#include "trace/fixed_text.h"
#include "trace/line_header.h"
#include "trace/sinks.h"

namespace Trace {

namespace {

using Line = FixedText<1024>;
using Address = std::uintptr_t;

constexpr std::size_t maxFrames = 64;

std::atomic<Console*> crashConsole{nullptr};
std::atomic<TraceFile*> crashFile{nullptr};
std::atomic<int> crashSyslog{-1};
static_assert(std::atomic<Console*>::is_always_lock_free && std::atomic<int>::is_always_lock_free,
              "used in a signal handler");

// The loader's name for the program's own file is empty, so the path is looked up beforehand.
std::array<char, PATH_MAX> programPath{};
std::size_t programPathLength = 0;

std::string_view GetSignalName(int signal) {
  switch (signal) {
    case SIGFPE:
      return "SIGFPE";
    case SIGSEGV:
      return "SIGSEGV";
    case SIGILL:
      return "SIGILL";
    case SIGBUS:
      return "SIGBUS";
    case SIGABRT:
      return "SIGABRT";
    default:
      return "unknown";
  }
}

void StartLine(Line& line) {
  AppendLineHeader(line, {.time = std::chrono::system_clock::now(),
                          .level = "FATAL",
                          .module = "crash_handler",
                          .pid = getpid(),
                          .threadId = gettid()});
}

void AppendAddress(Line& line, Address address) {
  if (address != 0) line.append("0x");
  line.AppendNumber(address, 16);
}

// Sends the datagram that syslog(3) would send, because syslog(3) takes a lock, which the crashed
// thread may hold. The datagram has no time, because local time takes a lock too; the receiver adds
// its own. Only the first line waits for a receiver whose queue is full.
void WriteToSyslog(int socket, std::string_view line) {
  sockaddr_un log{};
  log.sun_family = AF_UNIX;
  constexpr std::string_view path = _PATH_LOG;
  path.copy(log.sun_path, sizeof log.sun_path - 1);
  FixedText<256> start;
  start.append("<");
  start.AppendNumber(LOG_USER | LOG_CRIT);
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

void Write(Line& text) {
  std::string_view const line = text.GetLine();
  if (Console* const console = crashConsole.load()) console->Write(true, line);
  if (TraceFile* const file = crashFile.load()) file->WriteInSignalHandler(line);
  if (int const socket = crashSyslog.load(); socket != -1) WriteToSyslog(socket, line);
}

void WriteSignal(siginfo_t const& info) {
  // A signal that was sent has the sender's ids in the place of the address.
  bool const isFault = info.si_code > 0;
  Line line;
  StartLine(line);
  line.append("Received fatal signal { signal:\"");
  line.append(GetSignalName(info.si_signo));
  line.append("\" code:");
  line.AppendNumber(info.si_code);
  line.append(" address:");
  AppendAddress(line, isFault ? reinterpret_cast<Address>(info.si_addr) : 0);
  line.append(" thread:");
  line.AppendNumber(gettid());
  line.append(" }");
  Write(line);
}

// The file whose code `address` is in; null if it is in none. Takes no lock, unlike dladdr(3).
link_map const* FindFile(void* address) {
  dl_find_object object{};
  return _dl_find_object(address, &object) == 0 ? object.dlfo_link_map : nullptr;
}

void WriteFrame(std::size_t index, void* address) {
  Line line;
  StartLine(line);
  line.append("Frame { index:");
  line.AppendNumber(index);
  line.append(" address:");
  AppendAddress(line, reinterpret_cast<Address>(address));
  if (link_map const* const file = FindFile(address)) {
    std::string_view name = file->l_name;
    if (name.empty()) name = {programPath.data(), programPathLength};
    line.append(" file:\"");
    line.append(name);
    line.append("\" offset:");
    AppendAddress(line, reinterpret_cast<Address>(address) - file->l_addr);
  }
  line.append(" }");
  Write(line);
}

// The registers of the thread where the signal hit it. A change of them changes the frames: the
// unwinder reads them from the same place.
class Registers {
 public:
  explicit Registers(void* context) : _machine(static_cast<ucontext_t*>(context)->uc_mcontext) {}

  // NOLINTBEGIN(performance-no-int-to-ptr): registers hold numbers
#if defined(__x86_64__)
  void* GetProgramCounter() const { return reinterpret_cast<void*>(_machine.gregs[REG_RIP]); }

  // Returns from a function that has been called and has not yet run.
  void StepOut() {
    auto const* const top = reinterpret_cast<greg_t const*>(_machine.gregs[REG_RSP]);
    _machine.gregs[REG_RIP] = *top;
    _machine.gregs[REG_RSP] += static_cast<greg_t>(sizeof *top);
  }
#elif defined(__aarch64__)
  void* GetProgramCounter() const { return reinterpret_cast<void*>(_machine.pc); }
  void StepOut() { _machine.pc = _machine.regs[30]; }
#else
  // Another processor: the first frame has the address 0, and the handler's own frames come before
  // those of the thread.
  void* GetProgramCounter() const { return nullptr; }
  void StepOut() {}
#endif
  // NOLINTEND(performance-no-int-to-ptr)

  mcontext_t Save() const { return _machine; }
  void Restore(mcontext_t const& saved) { _machine = saved; }

 private:
  mcontext_t& _machine;
};

}  // namespace

void SetCrashSinks(Console* console, TraceFile* file, bool useSyslog) {
  crashConsole = console;
  crashFile = file;
  if (!useSyslog) return;
  int const syslogSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  timeval const patience{.tv_sec = 1, .tv_usec = 0};
  setsockopt(syslogSocket, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  crashSyslog = syslogSocket;
}

void PrepareCrashReport() {
  ssize_t const length = readlink("/proc/self/exe", programPath.data(), programPath.size());
  programPathLength = length > 0 ? static_cast<std::size_t>(length) : 0;
  // The first call of backtrace(3) loads the unwinder, which allocates.
  void* frame = nullptr;
  backtrace(&frame, 1);
}

void ReportCrash(siginfo_t const& info, void* context) noexcept {
  WriteSignal(info);
  Registers registers(context);
  mcontext_t const saved = registers.Save();
  // Frame 0 needs the registers alone; the unwinder may crash on an overwritten stack.
  WriteFrame(0, registers.GetProgramCounter());
  std::ptrdiff_t written = 1;
  if (FindFile(registers.GetProgramCounter()) == nullptr) {
    // A call through a wild pointer: the unwinder can start only at the place of the call.
    registers.StepOut();
    written = 0;
  }
  std::array<void*, maxFrames> storage;
  auto const count = backtrace(storage.data(), static_cast<int>(storage.size()));
  auto const frames = std::span(storage).first(static_cast<std::size_t>(count));
  // The handler's own frames come first and are left out.
  auto const hit = std::ranges::find(frames, registers.GetProgramCounter());
  auto const first = hit == frames.end() ? frames.begin() : hit + written;
  std::size_t index = 0;
  for (void* const address : std::span(first, frames.end())) WriteFrame(++index, address);
  registers.Restore(saved);
}

}  // namespace Trace
