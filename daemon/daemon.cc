#include "daemon/daemon.h"

#include <sys/socket.h>
#include <systemd/sd-daemon.h>

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
#include "base/unique_fd.h"
#include "daemon/connection.h"
#include "daemon/idle_shutdown.h"
#include "daemon/signal_relay.h"
#include "daemon/socket_file.h"
#include "net/address.h"
#include "net/socket_linux.h"
#include "trace/trace.h"
#include "utilities/arguments/arguments.h"

TRACE_MODULE("main");

// The first thread runs `main`: it starts everything, runs the loop of the "main thread", on which
// only signals and the idle check happen, and shuts everything down. Connections live on the IO
// thread.
//
// The order of a start:
//   1. the listening socket: passed by systemd, or created and bound here
//   2. the signal relay, so that SIGTERM ends even a start in order; `main` has blocked SIGTERM
//      until then, and a SIGTERM that came earlier is delivered after step 3
//   3. listen(2) on the IO thread; from here on clients are served
//   4. READY=1 to the service manager, and the loop
//
// The shutdown runs once, whichever comes first: a signal, or the end of the loop. It removes the
// socket file before it closes the socket: once nobody listens, the next daemon may bind a file of
// its own there. It closes the socket on the IO thread, which owns it, and waits for that. Then it
// stops the loop and ends the process-wide threads.

namespace {

constexpr int backlog = 32;
constexpr int activatedFd = SD_LISTEN_FDS_START;
constexpr int loopEnded = 3;  // Deliberate: the end of the loop is logged as this signal number.

// The shutdown empties it, also after a failed start, so the destructors of static objects find
// nothing to do.
struct Daemon {
  Base::Shared<Net::SocketLinux> listenSocket;
  Base::Shared<Base::ThreadLinux> mainThread;
  std::optional<SocketFile> socketFile;  // set when this process has bound a path
  Base::UniqueFd folderLock;             // held until this process listens there
  std::once_flag shutdown;
};

Daemon& GetDaemon() {
  static Daemon& daemon = *new Daemon;
  return daemon;
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
    // The shutdown goes on: the process's end closes the socket.
    TRACE_WARNING("Failed to close listen socket", err);
  }
}

// Does nothing when no service manager has asked for notifications (sd_notify(3)).
void NotifyServiceManager(char const* state) {
  int const result = sd_notify(0, state);
  if (result < 0)
    TRACE_WARNING("Failed to notify service manager", state, Trace::As("error", -result));
}

void Shutdown() {
  Daemon& daemon = GetDaemon();
  TRACE_VERBOSE("Shutting down daemon...");
  NotifyServiceManager("STOPPING=1");
  if (daemon.listenSocket) {
    TRACE_VERBOSE("Shutting down listen socket");
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

// Runs on the first thread: in the loop for each signal, and once after the loop.
void OnSignal(int signalNumber) {
  TRACE_VERBOSE("Received signal", Trace::As("signal", signalNumber));
  std::call_once(GetDaemon().shutdown, &Shutdown);
}

}  // namespace

void RunDaemon() {
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
  NotifyServiceManager("READY=1");
  // A second handle: the shutdown empties the first one while the loop still runs.
  Base::Shared<Base::ThreadLinux> const mainThread = daemon.mainThread;
  mainThread->Run();
  OnSignal(loopEnded);
}

void AbandonStart() {
  Daemon& daemon = GetDaemon();
  daemon.socketFile.reset();
  daemon.folderLock.Reset();
  Base::ShutdownThreadPools();
  daemon.listenSocket.Reset();
  daemon.mainThread.Reset();
}
