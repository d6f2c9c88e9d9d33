#pragma once

#include <future>
#include <string>

#include "base/buffer.h"
#include "base/shared.h"
#include "base/stream.h"
#include "net/address.h"
#include "net/socket_linux.h"

// One question to the daemon and its answer, from the connect on.
//
// The server has to be root's or the own user's process, by SO_PEERCRED (for an inherited socket
// that is the process that listened): anybody can take a name in the abstract namespace.
//
// Threads: made and asked on any thread; the rest happens on the IO thread.
class Exchange final : public Base::Shareable {
 public:
  // `request` is the payload of the packet to send.
  Exchange(Net::Address address, std::string request);

  // Starts. The future gets the payload of the answer, or a Base::Exception that says in one line
  // why there is none; nothing for as long as the server keeps silent. Called once.
  std::future<std::string> Start();

 private:
  void Connect(int type);
  void OnConnected(int type, Base::Status const& status);
  void Ask();
  void OnAsked(Base::Status const& status);
  void OnAnswered(Base::Status const& status, Base::ByteBuffer const& packet, bool complete);

  // Runs a step of the exchange; what it throws ends the exchange.
  template <typename Step>
  void Try(Step step);
  void Fail(std::string const& reason);

  Net::Address const _address;
  std::string const _request;
  Base::Shared<Net::SocketLinux> _socket;
  std::promise<std::string> _answer;
  bool _ended = false;
};
