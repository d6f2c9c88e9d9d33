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

  struct Outcome {
    bool isAnswer = false;
    std::string text;  // the payload of the answer, or why there is none, in one line
  };

  // Starts. The future gets nothing for as long as the server keeps silent. Called once.
  //
  // A failure arrives as a value: an exception in a future is shared between two threads, and which
  // of them destroys it is not decided before both are done with it.
  std::future<Outcome> Start();

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
  std::promise<Outcome> _outcome;
  bool _ended = false;
};
