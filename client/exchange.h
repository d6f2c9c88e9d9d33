#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <string>

#include "base/buffer.h"
#include "base/shared.h"
#include "base/stream.h"
#include "client/condition.h"
#include "net/address.h"
#include "net/socket_linux.h"

// Connects to the daemon, sends one request and reads its response.
//
// When the request cannot be sent, or the connection ends before the first byte of the response,
// the exchange connects again and sends the request again, once. The reason is usually that the
// daemon was idle and exits; systemd starts the next one. A request changes nothing, so a repeat
// is harmless.
//
// Sends nothing unless the server is a process of root or of this user: any user can bind a name in
// the abstract namespace. SO_PEERCRED names the process that called listen() last: systemd, and the
// daemon once it has started.
//
// Threads:  constructed and run on any thread; everything else happens on the IO thread.
// Lifetime: each pending operation holds the exchange.
class Exchange final : public Base::Shareable {
 public:
  // `request` is the payload of the packet.
  Exchange(Net::Address address, std::string request);

  struct Outcome {
    bool isResponse = false;
    std::string text;  // the payload of the response; else the reason why there is none
  };

  // Starts the exchange and waits for its end; call it once, and not on the IO thread. Returns
  // nothing when `limit` is over: the exchange goes on then.
  //
  // A failure is a value and not an exception: two threads would share the exception, and either
  // could be the one that destroys it.
  std::optional<Outcome> Run(std::chrono::milliseconds limit);

 private:
  void Connect();
  void OnConnected(Base::Status const& status);
  void SendRequest();
  void OnRequestSent(Base::Status const& status);
  void OnConnectionLost(std::string const& reason);
  void OnResponse(Base::Status const& status, Base::ByteBuffer const& packet, bool complete);

  // Runs a step of the exchange; an exception of the step ends the exchange with a failure.
  template <typename Step>
  void Try(Step step);
  void Fail(std::string const& reason);
  void SetOutcome(Outcome outcome);

  Net::Address const _address;
  std::string const _request;
  int _type;
  bool _isRepeat = false;  // the first connection was lost
  Base::Shared<Net::SocketLinux> _socket;
  std::mutex _mutex;
  Condition _hasOutcome;
  std::optional<Outcome> _outcome;
  bool _ended = false;
};
