#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string_view>
#include <utility>

#include "base/shared.h"

// What one user holds of the daemon: connections and memory. All connections of a user share one
// account; it exists as long as one of them does.
//
// Threads: the IO thread, and after its end the thread of the shutdown.
class UserAccount final : public Base::Shareable {
 public:
  // The most bytes that the daemon keeps for one user: unread responses and begun packets.
  static constexpr std::size_t maxKeptLength = std::size_t{4} << 20U;

  // Returns the account of `uid`, new when the user has no connection yet.
  static Base::Shared<UserAccount> Get(uid_t uid);

  ~UserAccount() override;

  uid_t GetUid() const { return _uid; }
  unsigned GetConnections() const { return _connections; }
  std::size_t GetKeptLength() const { return _keptLength; }

  // Whether the user may open another connection by the setting "max-connections-per-user", default
  // 64, 0 for no limit. The limit does not bind root. The setting is read once.
  bool MayConnect() const;

  // Returns true once, and again only after a connection of the user has closed. For the log: a
  // client that is refused in a loop causes one line.
  bool ShouldReportRefusal() { return !std::exchange(_isRefusalReported, true); }

 private:
  friend class ConnectionSlot;
  friend class MemoryCharge;

  explicit UserAccount(uid_t uid) : _uid(uid) {}

  uid_t const _uid;
  unsigned _connections = 0;
  std::size_t _keptLength = 0;
  bool _isRefusalReported = false;
};

// Counts one connection in the account for as long as it exists. The socket holds it until the
// descriptor closes, so there are never more open descriptors than the account says.
class ConnectionSlot final : public Base::Shareable {
 public:
  explicit ConnectionSlot(Base::Shared<UserAccount> account);
  ~ConnectionSlot() override;

  Base::Shared<UserAccount> const& GetAccount() const { return _account; }

 private:
  Base::Shared<UserAccount> const _account;
};

// Memory that is kept for one connection, counted in its user's account.
class MemoryCharge {
 public:
  explicit MemoryCharge(Base::Shared<UserAccount> account) : _account(std::move(account)) {}
  MemoryCharge(MemoryCharge const&) = delete;
  MemoryCharge& operator=(MemoryCharge const&) = delete;
  ~MemoryCharge() { Release(); }

  // Charges `length` bytes in place of what was charged before. When the user's account would pass
  // `maxKeptLength`, the charge stays as it was and the call throws Base::Exception "Too Much
  // Memory For User", after a WARNING line.
  void Set(std::size_t length);

  void Release() noexcept;

 private:
  Base::Shared<UserAccount> const _account;
  std::size_t _length = 0;
};
