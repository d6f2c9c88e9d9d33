#include "trace/crash/crash_stack.h"

#include <signal.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>

namespace Trace {

namespace {

// Several times what the handler and the unwinder use.
constexpr std::size_t handlerSize = 65536;

class CrashStack {
 public:
  CrashStack() noexcept {
    stack_t current{};
    if (sigaltstack(nullptr, &current) == -1 || (current.ss_flags & SS_DISABLE) == 0) return;
    // The kernel saves the registers on the stack; their size depends on the processor.
    std::size_t const pageSize = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    std::size_t const registers = getauxval(AT_MINSIGSTKSZ);
    std::size_t const size = (handlerSize + registers + pageSize - 1) / pageSize * pageSize;
    void* const memory = mmap(nullptr, pageSize + size, PROT_NONE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) return;
    _memory = memory;
    _size = pageSize + size;
    // The lowest page stays inaccessible, so that an overflow of this stack hits nothing else.
    stack_t own{};
    own.ss_sp = static_cast<std::byte*>(memory) + pageSize;
    own.ss_size = size;
    bool const isUsed =
        mprotect(own.ss_sp, size, PROT_READ | PROT_WRITE) == 0 && sigaltstack(&own, nullptr) == 0;
    if (!isUsed) Unmap();
  }

  CrashStack(CrashStack const&) = delete;
  CrashStack& operator=(CrashStack const&) = delete;

  ~CrashStack() {
    if (_memory == nullptr) return;
    stack_t none{};
    none.ss_flags = SS_DISABLE;
    sigaltstack(&none, nullptr);
    Unmap();
  }

 private:
  void Unmap() noexcept {
    munmap(_memory, _size);
    _memory = nullptr;
  }

  void* _memory = nullptr;
  std::size_t _size = 0;
};

}  // namespace

void EnsureCrashStack() noexcept { static thread_local CrashStack const stack; }

}  // namespace Trace
