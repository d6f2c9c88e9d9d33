#include "daemon/daemon.h"

#include <sys/socket.h>
#ifdef KTCLIENTD_LIBSYSTEMD
#include <systemd/sd-daemon.h>
#endif

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "base/exception.h"
#include "base/loop/io_thread.h"
#include "base/loop/run_and_wait.h"
#include "base/loop/thread_linux.h"
#include "base/loop/thread_pool.h"
#include "base/shared.h"
#include "base/unique_fd.h"
#include "daemon/connection_table.h"
#include "daemon/idle_shutdown.h"
#include "daemon/sensor_queue.h"
#include "daemon/service_protocol.h"
#include "daemon/signal_thread.h"
#include "daemon/socket_file.h"
#include "net/address.h"
#include "net/socket_linux.h"
#include "trace/trace.h"
#include "utilities/arguments/arguments.h"
#include "utilities/os.h"

TRACE_MODULE("main");

// Four threads. The first one runs `main`: it starts everything, runs the loop of the "main
// thread", on which only signals and the idle check happen, and shuts everything down. Connections
// live on the IO thread, sensors block a thread of their own (daemon/sensor_queue.h), and a thread
// takes the signals and watches the end (daemon/signal_thread.h).
//
// The order of a start; what can fail comes before the first client can connect:
//   1. the listening socket: passed by systemd, or created and bound here
//   2. timers and signals
//   3. the platform, which never changes while the daemon runs
//   4. listen(2) on the IO thread; from here on clients are served
//   5. READY=1 to the service manager, and the loop
//
// A daemon that is idle leaves so that no request is lost. The IO thread stops accepting: the
// service manager keeps the listening socket and the clients that wait there. It shuts down the
// reading side of every connection, so that a send fails from then on, and answers what had arrived
// before. When the last connection has ended, it stops the loop of the main thread.
//
// The shutdown runs once, whichever comes first: a signal, or the end of the loop. It removes the
// socket file before it closes the socket: once nobody listens, the next daemon may bind a file of
// its own there. Each of its steps waits for a thread, and the deadline of the end watches it.

namespace {

#ifdef KTCLIENTD_LIBSYSTEMD
int ListenFds() { return sd_listen_fds(0); }
int Notify(char const* state) { return sd_notify(0, state); }
#else
using ServiceProtocol::ListenFds;
using ServiceProtocol::Notify;
#endif

constexpr int firstPassedFd = 3;
constexpr int backlog = 32;
// What the daemon itself needs at a time: a shell command's pipe, pidfd and spawn, a certificate
// folder, the trace file.
constexpr int reservedDescriptors = 8;
constexpr int loopEnded = 3;  // Deliberate: the end of the loop is logged as this signal number.

// The shutdown, or `AbandonStart`, releases what it holds.
struct Daemon {
  Base::Shared<Net::SocketLinux> listenSocket;
  Base::Shared<Base::ThreadLinux> mainThread;
  std::optional<SocketFile> socketFile;    // set when this process has bound a path
  Base::UniqueFd folderLock;               // held until this process listens there
  ConnectionTable* connections = nullptr;  // never destroyed: late tasks of the IO thread use it
  std::once_flag shutdown;
};

Daemon& GetDaemon() {
  static Daemon& daemon = *new Daemon;
  return daemon;
}

// Does nothing when no service manager has asked for notifications (sd_notify(3)).
void NotifyServiceManager(char const* state) {
  int const result = Notify(state);
  if (result < 0)
    TRACE_WARNING("Failed to notify service manager", state, Trace::As("error", -result));
}

void Drain(Base::Shared<Net::SocketLinux> const& listenSocket,
           Base::Shared<Base::Thread> const& mainThread, ConnectionTable& connections) {
  try {
    listenSocket->StopListening();
  } catch (std::exception const& err) {
    TRACE_WARNING("Failed to stop listening", err);
  }
  // As a task: connections that have been accepted are on their way to the table as tasks, too, and
  // come before it.
  Base::GetIOThread()->PostTask(Base::MakeCallback([mainThread, &connections] {
    connections.Drain(Base::MakeCallback([mainThread] { Base::PostStop(mainThread); }));
  }));
}

// Runs on the first thread. The task gets handles of its own: a signal may empty the daemon's while
// the task runs.
void LeaveWhenDrained() {
  Daemon const& daemon = GetDaemon();
  if (!daemon.listenSocket) return;  // the shutdown has begun
  Base::GetIOThread()->PostTask(Base::MakeCallback(
      [listenSocket = daemon.listenSocket,
       mainThread = Base::Shared<Base::Thread>(daemon.mainThread),
       &connections = *daemon.connections] { Drain(listenSocket, mainThread, connections); }));
}

void UseActivatedSocket(PassedSockets const& passed) {
  if (passed.error != 0) {
    int const error = passed.error;
    TRACE_ERROR("Failed to take passed sockets", error);
    throw Base::ExceptionPosix("Failed to take passed sockets", error);
  }
  int const listenSocketCount = passed.count;
  if (listenSocketCount > 1) {
    TRACE_ERROR("Unexpected socket listen count", listenSocketCount);
    throw Base::Exception("Unexpected socket listen count");
  }
  if (listenSocketCount != 1) return;
  Daemon& daemon = GetDaemon();
  daemon.listenSocket =
      Base::MakeShared<Net::SocketLinux>(Base::UniqueFd(firstPassedFd), Base::GetIOThread());
  daemon.mainThread = Base::MakeShared<Base::ThreadLinux>();
  StartIdleShutdown(*daemon.mainThread, Base::Callback<>(&LeaveWhenDrained));
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

// Throws when listen(2) fails: such a socket reports the failure to its callback and otherwise
// behaves as if it listened.
void Listen() {
  Base::RunAndWait(*Base::GetIOThread(), [&daemon = GetDaemon()] {
    auto connections = std::make_unique<ConnectionTable>(Base::GetIOThread());
    connections->WatchTimer();
    daemon.connections = connections.release();
    daemon.listenSocket->KeepDescriptorsFree(reservedDescriptors);
    daemon.listenSocket->Listen(
        backlog, Base::MakeCallback([&connections = *daemon.connections](
                                        Base::Status const& err, Net::Address address,
                                        Base::Shared<Net::SocketLinux> socket) {
          connections.OnNewConnection(err, address, socket);
        }));
    if (!daemon.listenSocket->IsListening()) throw Base::Exception("Failed to listen");
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

void Shutdown() {
  Daemon& daemon = GetDaemon();
  BeginEndDeadline();
  SetEndStage("service manager");
  TRACE_VERBOSE("Shutting down daemon...");
  NotifyServiceManager("STOPPING=1");
  if (daemon.listenSocket) {
    TRACE_VERBOSE("Shutting down listen socket");
    SetEndStage("IO thread");
    daemon.socketFile.reset();
    CloseListenSocket(std::exchange(daemon.listenSocket, {}));
  }
  SetEndStage("sensor thread");
  GetSensorQueue().Stop();
  if (daemon.mainThread) {
    TRACE_VERBOSE("Shutting down main thread");
    std::exchange(daemon.mainThread, {})->Stop();
  }
  SetEndStage("IO thread");
  Base::ShutdownThreadPools();
  SetEndStage("trace log");
  TRACE_VERBOSE("Daemon shutdown complete.");
}

// Runs on the first thread: in the loop for each signal, and once after the loop.
void OnSignal(int signalNumber) {
  TRACE_VERBOSE("Received signal", Trace::As("signal", signalNumber));
  std::call_once(GetDaemon().shutdown, &Shutdown);
}

}  // namespace

PassedSockets TakePassedSockets() {
  int const count = ListenFds();
  if (count >= 0) return {.count = count};
  // The library counts a number of 0 as an error, but it says clearly that there is none.
  char const* const text = std::getenv("LISTEN_FDS");  // NOLINT(concurrency-mt-unsafe): one thread
  if (count == -EINVAL && text != nullptr && std::string_view(text) == "0") return {};
  return {.error = -count};
}

void RunDaemon(PassedSockets const& passed) {
  std::string const socketText = GetArgument("socket", "com.norvel.kestrel");
  if (GetBoolArgument("activated", false)) {
    UseActivatedSocket(passed);
  } else {
    BindOwnSocket(socketText);
  }
  Daemon const& daemon = GetDaemon();
  if (!daemon.listenSocket) {
    TRACE_VERBOSE("Shutting down with nothing to do");
    return;
  }
  RelayTermination(*daemon.mainThread, Base::Callback<int>(&OnSignal));
  GetPlatform();
  Listen();
  GetDaemon().folderLock.Reset();
  NotifyServiceManager("READY=1");
  SetEndStage("main thread");
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
