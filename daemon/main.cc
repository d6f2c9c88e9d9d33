#include <malloc.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>

#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "base/exception.h"
#include "base/loop/io_thread.h"
#include "base/loop/run_and_wait.h"
#include "base/loop/thread_linux.h"
#include "base/loop/thread_pool.h"
#include "base/shared.h"
#include "base/standard_streams.h"
#include "base/unique_fd.h"
#include "daemon/connection.h"
#include "daemon/idle_shutdown.h"
#include "daemon/signal_relay.h"
#include "daemon/socket_file.h"
#include "daemon/usage.h"
#include "net/address.h"
#include "net/socket_linux.h"
#include "trace/trace.h"
#include "utilities/arguments/arguments.h"

TRACE_MODULE("main");

// The process's first thread starts everything, then runs the loop of the "main thread", on which
// nothing happens but signals and the idle check, and shuts everything down. Connections live on
// the IO thread.

namespace {

constexpr int backlog = 32;
constexpr int activatedFd = SD_LISTEN_FDS_START;
constexpr int loopEnded = 3;  // what the end of the loop passes for a signal

// Emptied by the shutdown, also by that of a failed start: nothing of it is left to the destructors
// of static objects.
struct Daemon {
  Base::Shared<Net::SocketLinux> listenSocket;
  Base::Shared<Base::ThreadLinux> mainThread;
  std::optional<SocketFile> socketFile;  // where this process bound a path
  Base::UniqueFd folderLock;             // until it listens there
  std::once_flag shutdown;
};

Daemon& GetDaemon() {
  static Daemon& daemon = *new Daemon;
  return daemon;
}

// Packets get pages of their own, which go back when they are done: one of the largest size must
// not grow the heap, nor its announcement alone take memory that an earlier one has touched.
void LimitHeap() {
  mallopt(M_MMAP_THRESHOLD, 32768);
  mallopt(M_ARENA_MAX, 1);
}

void UseActivatedSocket() {
  int const listenSocketCount = sd_listen_fds(0);
  if (listenSocketCount > 1) {
    TRACE_ERROR("Unexpected socket listen count", listenSocketCount);
    throw Base::Exception("Unexpected socket listen count");
  }
  if (listenSocketCount != 1) return;
  Daemon& daemon = GetDaemon();
  daemon.listenSocket =
      Base::MakeShared<Net::SocketLinux>(Base::UniqueFd(activatedFd), Base::GetIOThread());
  daemon.mainThread = Base::MakeShared<Base::ThreadLinux>();
  StartIdleShutdown(*daemon.mainThread);
}

void BindOwnSocket(std::string const& socketText) {
  Daemon& daemon = GetDaemon();
  daemon.mainThread = Base::MakeShared<Base::ThreadLinux>();
  daemon.listenSocket =
      Base::MakeShared<Net::SocketLinux>(AF_UNIX, SOCK_SEQPACKET, 0, Base::GetIOThread());
  Net::Address const address = Net::Address::FromUnixText(socketText);
  bool const isPath = socketText.find('/') != std::string::npos;
  if (isPath) daemon.folderLock = SocketFile::RemoveStale(socketText);
  daemon.listenSocket->Bind(address);
  if (isPath) daemon.socketFile.emplace(socketText);
}

void Listen() {
  Base::RunAndWait(*Base::GetIOThread(), [listenSocket = GetDaemon().listenSocket] {
    listenSocket->Listen(backlog,
                         Base::MakeCallback([](Base::Status const& err, Net::Address address,
                                               Base::Shared<Net::SocketLinux> socket) {
                           OnNewConnection(err, address, socket);
                         }));
  });
}

void CloseListenSocket(Base::Shared<Net::SocketLinux> const& listenSocket) {
  try {
    Base::RunAndWait(*Base::GetIOThread(), [&listenSocket] { listenSocket->Close(); });
  } catch (Base::Exception const& err) {
    // The shutdown goes on without it.
    TRACE_WARNING("Failed to close listen socket", err);
  }
}

// Where one asked to be told (sd_notify(3)).
void TellServiceManager(char const* state) {
  int const result = sd_notify(0, state);
  if (result < 0)
    TRACE_WARNING("Failed to notify service manager", state, Trace::As("error", -result));
}

void Shutdown() {
  Daemon& daemon = GetDaemon();
  TRACE_VERBOSE("Shutting down daemon...");
  TellServiceManager("STOPPING=1");
  if (daemon.listenSocket) {
    TRACE_VERBOSE("Shutting down listen socket");
    // The file first: once nobody listens any more, the next daemon may put its own there.
    daemon.socketFile.reset();
    CloseListenSocket(std::exchange(daemon.listenSocket, {}));
  }
  if (daemon.mainThread) {
    TRACE_VERBOSE("Shutting down main thread");
    std::exchange(daemon.mainThread, {})->Stop();
  }
  Base::ShutdownThreadPools();
  TRACE_VERBOSE("Daemon shutdown complete.");
}

// Runs on the first thread: for a signal in the loop, and once after it.
void OnSignal(int signalNumber) {
  TRACE_VERBOSE("Received signal", Trace::As("signal", signalNumber));
  std::call_once(GetDaemon().shutdown, &Shutdown);
}

// What a failed start leaves: no thread may outlive `main`.
void AbandonStart() {
  Daemon& daemon = GetDaemon();
  daemon.socketFile.reset();
  daemon.folderLock.Reset();
  Base::ShutdownThreadPools();
  daemon.listenSocket.Reset();
  daemon.mainThread.Reset();
}

void RunDaemon(int argc, char const* const* argv) {
  ParseArguments(argc, argv);
  Trace::InitializeTrace(false, "ktclientd.log");
  std::string const socketText = GetArgument("socket", "com.norvel.kestrel");
  if (GetBoolArgument("activated", false)) {
    UseActivatedSocket();
  } else {
    BindOwnSocket(socketText);
  }
  Daemon const& daemon = GetDaemon();
  if (!daemon.listenSocket) {
    TRACE_VERBOSE("Shutting down with nothing to do");
    return;
  }
  RelayTermination(*daemon.mainThread, Base::Callback<int>(&OnSignal));
  Listen();
  GetDaemon().folderLock.Reset();
  UnblockTermination();
  TellServiceManager("READY=1");
  // A handle of its own: the shutdown empties the daemon's while the loop still runs.
  Base::Shared<Base::ThreadLinux> const mainThread = daemon.mainThread;
  mainThread->Run();
  OnSignal(loopEnded);
}

}  // namespace

int main(int argc, char** argv) {
  if (IsWordOfCommandLine(argc, argv, "--help")) {
    return std::fputs(GetUsage().c_str(), stdout) == EOF || std::fflush(stdout) == EOF ? 1 : 0;
  }
  if (IsWordOfCommandLine(argc, argv, "--version")) {
    return std::puts("ktclientd " KTCLIENTD_VERSION) == EOF || std::fflush(stdout) == EOF ? 1 : 0;
  }
  BlockTermination();
  Base::OpenMissingStandardStreams();
  LimitHeap();
  try {
    SurviveBrokenPipes();
    RunDaemon(argc, argv);
    return 0;
  } catch (Base::Exception const& err) {
    TRACE_ERROR("Failed running client daemon", err);
  }
  AbandonStart();
  return 1;
}
