#include "daemon/connection_table.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <utility>
#include <vector>

#include "base/exception.h"
#include "daemon/activity.h"
#include "trace/trace.h"

TRACE_MODULE("main");

ConnectionTable::ConnectionTable(Base::Shared<Base::ThreadLinux> ioThread)
    : _ioThread(std::move(ioThread)),
      _tick(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)) {
  if (!_tick) {
    int const errorNumber = errno;
    TRACE_ERROR("Failed to create connection timer", errorNumber);
    throw Base::ExceptionPosix(errorNumber);
  }
}

void ConnectionTable::WatchTimer() {
  _ioThread->AddWatch(_tick.Get(), EPOLLIN,
                      Base::MakeCallback([this](int /*fd*/, int /*events*/) { OnTick(); }));
}

void ConnectionTable::OnNewConnection(Base::Status const& err, Net::Address const& address,
                                      Base::Shared<Net::SocketLinux> const& socket) {
  StampActivity();
  if (err) {
    TRACE_ERROR("Failure listening for connections", err);
    return;
  }
  try {
    Admit(address, socket);
  } catch (Base::Exception const& thrown) {
    TRACE_ERROR("Failure handling socket", socket, Trace::As("err", thrown));
    DisconnectSocket(socket, {});
  }
}

void ConnectionTable::Admit(Net::Address const& address,
                            Base::Shared<Net::SocketLinux> const& socket) {
  auto const [pid, uid, gid] = socket->GetPeerCredentials();
  auto const account = UserAccount::Get(uid);
  if (!account->MayConnect()) {
    if (account->ShouldReportRefusal()) {
      TRACE_WARNING("Too many connections", Trace::As("uid", uid), Trace::As("pid", pid),
                    Trace::As("connections", account->GetConnections()));
    }
    socket->Close();
    return;
  }
  TRACE_VERBOSE("Received new connection", address, socket, Trace::As("pid", pid),
                Trace::As("uid", uid), Trace::As("gid", gid));
  auto const slot = Base::MakeShared<ConnectionSlot>(account);
  socket->HoldUntilClosed(slot);
  auto const connection = Base::MakeShared<Connection>(*this, socket, slot);
  _connections.emplace(connection.Get(), connection);
  try {
    connection->Start();
  } catch (Base::Exception const& thrown) {
    TRACE_ERROR("Failure handling socket", socket, Trace::As("err", thrown));
    connection->DisconnectSocket();
    return;
  }
  if (_isDraining) connection->Drain();
}

void ConnectionTable::Drain(Base::Task onDrained) {
  _isDraining = true;
  _onDrained = std::move(onDrained);
  for (auto const& [key, connection] : _connections) connection->Drain();
  FinishDrain();
}

void ConnectionTable::Remove(Connection const& connection) {
  _connections.erase(&connection);
  FinishDrain();
}

void ConnectionTable::FinishDrain() {
  if (!_connections.empty()) return;
  if (Base::Task const onDrained = std::exchange(_onDrained, {})) onDrained->Call();
}

void ConnectionTable::WatchDeadlines() {
  if (!_isTicking) SetTick(true);
}

void ConnectionTable::SetTick(bool isOn) {
  time_t const period = isOn ? 1 : 0;  // seconds; 0 disarms
  itimerspec const setting{.it_interval = {period, 0}, .it_value = {period, 0}};
  timerfd_settime(_tick.Get(), 0, &setting, nullptr);
  _isTicking = isOn;
}

void ConnectionTable::OnTick() {
  std::uint64_t expirations = 0;
  static_cast<void>(!read(_tick.Get(), &expirations, sizeof expirations));
  auto const now = Connection::Clock::now();
  // A copy: a connection that is closed here leaves the table.
  std::vector<Base::Shared<Connection>> connections;
  connections.reserve(_connections.size());
  for (auto const& [key, connection] : _connections) connections.push_back(connection);
  bool isPending = false;
  for (auto const& connection : connections) {
    if (connection->CheckDeadlines(now)) isPending = true;
  }
  if (!isPending) SetTick(false);
}
