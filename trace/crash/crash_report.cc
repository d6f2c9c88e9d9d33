#include "trace/crash/crash_report.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <limits.h>
#include <link.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

#include "trace/crash/signal_safe_sinks.h"
#include "trace/thread_id.h"

// Takes no lock, unlike dladdr1(3). Weak: glibc has it since 2.35.
// NOLINTBEGIN(readability-identifier-naming,readability-redundant-declaration): the C library's
// names, and its declaration is not weak
#if !__GLIBC_PREREQ(2, 35)
struct dl_find_object {
  unsigned long long dlfo_flags;
  void* dlfo_map_start;
  void* dlfo_map_end;
  link_map* dlfo_link_map;
  void* dlfo_eh_frame;
  std::array<unsigned long long, 7> reserved;
};
#endif
extern "C" [[gnu::weak]] int _dl_find_object(void* address, dl_find_object* result) noexcept;
// NOLINTEND(readability-identifier-naming,readability-redundant-declaration)

namespace Trace {

namespace {

using Line = SignalSafeText;
using Address = std::uintptr_t;

constexpr std::size_t maxFrames = 64;
constexpr int consolePatienceMs = 1000;

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
    case SIGTRAP:
      return "SIGTRAP";
    case SIGABRT:
      return "SIGABRT";
    default:
      return "unknown";
  }
}

void StartLine(Line& line) { StartSignalSafeLine(line, "crash_handler", levelFatal); }

void AppendAddress(Line& line, Address address) {
  if (address != 0) line.append("0x");
  line.AppendNumber(address, 16);
}

void Write(Line& line) { WriteToSignalSafeSinks(line, levelFatal, consolePatienceMs); }

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
  line.AppendNumber(GetThreadId());
  line.append(" }");
  Write(line);
}

// The file whose code `address` is in; null if it is in none.
link_map const* FindFile(void* address) {
  if (&_dl_find_object != nullptr) {
    dl_find_object object{};
    return _dl_find_object(address, &object) == 0 ? object.dlfo_link_map : nullptr;
  }
  // The C library is older than 2.35. This takes the loader's lock: when the crashed thread holds
  // it, the time limit of the report ends the wait.
  Dl_info info{};
  void* file = nullptr;
  return dladdr1(address, &info, &file, RTLD_DL_LINKMAP) != 0 ? static_cast<link_map*>(file)
                                                              : nullptr;
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
