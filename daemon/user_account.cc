#include "daemon/user_account.h"

#include <map>

#include "base/exception.h"
#include "trace/trace.h"
#include "utilities/arguments/arguments.h"

TRACE_MODULE("main");

namespace {

constexpr int defaultMaxConnections = 64;

// Never destroyed: a socket may close while static objects are destroyed.
std::map<uid_t, UserAccount*>& GetAccounts() {
  static auto& accounts = *new std::map<uid_t, UserAccount*>;
  return accounts;
}

unsigned GetMaxConnections() {
  int const setting = GetIntArgument("max-connections-per-user", defaultMaxConnections);
  return static_cast<unsigned>(setting < 0 ? defaultMaxConnections : setting);
}

}  // namespace

Base::Shared<UserAccount> UserAccount::Get(uid_t uid) {
  auto const found = GetAccounts().find(uid);
  if (found != GetAccounts().end()) return Base::Shared<UserAccount>(found->second);
  Base::Shared<UserAccount> const account(new UserAccount(uid));
  GetAccounts().emplace(uid, account.Get());
  return account;
}

UserAccount::~UserAccount() { GetAccounts().erase(_uid); }

bool UserAccount::MayConnect() const {
  static unsigned const maxConnections = GetMaxConnections();
  return _uid == 0 || maxConnections == 0 || _connections < maxConnections;
}

ConnectionSlot::ConnectionSlot(Base::Shared<UserAccount> account) : _account(std::move(account)) {
  ++_account->_connections;
}

ConnectionSlot::~ConnectionSlot() {
  --_account->_connections;
  _account->_isRefusalReported = false;
}

void MemoryCharge::Set(std::size_t length) {
  std::size_t const others = _account->_keptLength - _length;
  if (length > UserAccount::maxKeptLength - others) {
    TRACE_WARNING("User keeps too much memory", Trace::As("uid", _account->GetUid()),
                  Trace::As("kept", _account->_keptLength),
                  Trace::As("maxKeptLength", UserAccount::maxKeptLength));
    throw Base::Exception("Too Much Memory For User");
  }
  _account->_keptLength = others + length;
  _length = length;
}

void MemoryCharge::Release() noexcept {
  _account->_keptLength -= _length;
  _length = 0;
}
