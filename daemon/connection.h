#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "base/buffer.h"
#include "base/callback.h"
#include "base/loop/step_budget.h"
#include "base/shared.h"
#include "base/stream.h"
#include "daemon/packet_backlog.h"
#include "daemon/user_account.h"
#include "net/socket_linux.h"

class ConnectionTable;

// Closes a client's socket and then calls `onDisconnected`, as a task, whether that succeeds or
// not.
void DisconnectSocket(Base::Shared<Net::SocketLinux> const& socket,
                      Base::Callback<> onDisconnected);

// One client's connection, from its acceptance to its end: everything that the daemon knows of it.
//
// The daemon reads one packet, answers it, and reads the next packet once the response has been
// handed to the writer. So at most one request is under way, responses keep the order of their
// requests, and the kernel's buffer holds back a client that sends ahead.
//
// A connection ends at the end of the stream, after the responses that are under way: a client that
// has shut down its sending side may still read. It ends at once on any failure, when it passes a
// limit, and when a deadline passes.
//
// Threads:  the IO thread.
// Lifetime: the table owns the connection until it is closed. Each pending operation holds it, too.
class Connection final : public Base::Shareable {
 public:
  using Clock = std::chrono::steady_clock;

  // The time in which a packet that has begun must be whole, and in which a response that waits
  // must make progress.
  static constexpr std::chrono::seconds maxStall{30};

  Connection(ConnectionTable& table, Base::Shared<Net::SocketLinux> socket,
             Base::Shared<ConnectionSlot> slot);

  Net::SocketLinux& GetSocket() const { return *_socket; }
  uid_t GetUid() const { return _account->GetUid(); }

  // Reads the first packet. Throws the socket's latched error.
  void Start();

  // Writes the response to the request under way and reads the next packet. A failure closes the
  // connection, also text in `response` that is not UTF-8.
  void Answer(nlohmann::json const& response);

  // The same for a response that is a constant: its text, in compact JSON. To build and serialise
  // it would be most of the work for such a request.
  void AnswerText(std::string_view response);

  // The request under way can have no response: closes the connection.
  void FailRequest();

  // The client went before its request's turn: closes the connection.
  void DropRequest();

  // Closes the connection. Responses that are not written yet are lost.
  void DisconnectSocket();

  // Ends the reading side: the client's next send fails, so the client knows that the daemon has
  // not taken the request. What has arrived before is still read and answered; then the connection
  // ends.
  void Drain();

  // Closes the connection when one of its deadlines has passed. Returns whether one is pending.
  bool CheckDeadlines(Clock::time_point now);

 private:
  // The responses on their way to the client.
  struct Outgoing {
    explicit Outgoing(Base::Shared<UserAccount> const& account);

    bool isWriting = false;
    std::size_t underWay = 0;  // length in bytes of the response that is being written
    PacketBacklog backlog;     // the responses after it
    MemoryCharge charge;       // of both
    Base::StepBudget budget;
    bool hasOverflowed = false;
    bool disconnectWhenWritten = false;
    std::uint64_t bytesSent = 0;  // of the socket, when the writer last made progress
    Clock::time_point progress{};
  };

  void StartReading(unsigned readsThisRound);
  void OnPacketBegun(std::uint32_t length);
  void ReadFromSocket(Base::Status const& err, Base::ByteBuffer const& buffer, bool complete);
  void ProcessPacket(Base::ByteBuffer const& buffer);
  void DisconnectSocketWhenWritten();
  void WriteResponse(std::string_view text);
  void Send(std::string_view text);
  void StartWriting(std::string_view text);
  void WriteNext();
  void OnResponseWritten(Base::Status const& err, Base::ByteBuffer const& buffer);
  void OnWriteFailed(Base::Status const& err, Base::ByteBuffer const& buffer);
  bool HasStalledResponse(Clock::time_point now);
  void UpdateWork();

  ConnectionTable& _table;
  Base::Shared<Net::SocketLinux> const _socket;
  // Besides the socket's: a waiting request counts until its turn, also when its client has gone.
  Base::Shared<ConnectionSlot> const _slot;
  Base::Shared<UserAccount> const _account;
  bool _hasRequest = false;                      // it waits for a sensor or runs in one
  std::optional<Clock::time_point> _packetTime;  // when the packet began that is not whole yet
  MemoryCharge _packetCharge;
  Outgoing _outgoing;
  bool _isDraining = false;
  bool _isClosed = false;
  bool _isAtWork = false;  // as the activity counts it
};
