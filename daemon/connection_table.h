#pragma once

#include <cstddef>
#include <unordered_map>

#include "base/callback.h"
#include "base/loop/thread_linux.h"
#include "base/shared.h"
#include "base/stream.h"
#include "base/unique_fd.h"
#include "daemon/connection.h"
#include "net/address.h"
#include "net/socket_linux.h"

// The open connections of the daemon: their limits by user, their deadlines, and their common end.
//
// Threads: constructed anywhere; all else on the IO thread.
class ConnectionTable {
 public:
  // Throws Base::ExceptionPosix when there can be no timer.
  explicit ConnectionTable(Base::Shared<Base::ThreadLinux> ioThread);
  ConnectionTable(ConnectionTable const&) = delete;
  ConnectionTable& operator=(ConnectionTable const&) = delete;

  // Begins to watch deadlines. Called once; from then on the table must live until the loop ends.
  // Throws Base::ExceptionPosix.
  void WatchTimer();

  // The accept callback: gets a new connection, or the failure to accept one. Closes at once a
  // connection beyond its user's limit.
  void OnNewConnection(Base::Status const& err, Net::Address const& address,
                       Base::Shared<Net::SocketLinux> const& socket);

  // Ends every connection after the requests that have arrived by now, and each new one likewise.
  // Calls `onDrained` once, when there is no connection any more; perhaps from inside this call.
  void Drain(Base::Task onDrained);

  // Releases a connection that is closed. For the connection itself.
  void Remove(Connection const& connection);

  // Looks at the deadlines of all connections once a second until none is pending.
  void WatchDeadlines();

 private:
  void OnTick();
  void SetTick(bool isOn);
  void Admit(Net::Address const& address, Base::Shared<Net::SocketLinux> const& socket);
  void FinishDrain();

  Base::Shared<Base::ThreadLinux> const _ioThread;
  Base::UniqueFd _tick;  // one timer for all connections
  bool _isTicking = false;
  std::unordered_map<Connection const*, Base::Shared<Connection>> _connections;
  bool _isDraining = false;
  Base::Task _onDrained;
};
