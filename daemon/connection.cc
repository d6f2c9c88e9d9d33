#include "daemon/connection.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "base/exception.h"
#include "base/loop/io_thread.h"
#include "daemon/activity.h"
#include "daemon/connection_table.h"
#include "daemon/dispatch.h"
#include "io/native_messaging_host_read_stream.h"
#include "net/socket.h"
#include "trace/trace.h"

TRACE_MODULE("main");

// The reading half of a connection; the writing half is in response.cc. The steps of one request:
//
//   StartReading     arms one read of one packet, on streams made for this packet
//   OnPacketBegun    the header has come: the memory of the payload is charged to the user, the
//                    deadline of the packet begins
//   ReadFromSocket   the packet is whole, or the stream has ended or failed
//   DispatchRequest  answers at once, or queues the request for a sensor
//   Answer           writes the response and starts reading again
//
// Between ReadFromSocket and Answer no read is pending. A client that goes meanwhile may close the
// socket by its hang-up, but the connection stays, and counts for its user, until its request's
// turn or until the write of its response.

namespace {

constexpr std::size_t readSize = 2048;
constexpr std::uint32_t maxPacketSize = 131072;

// Enough for the header and the payload of a packet, and for a payload in a few pieces.
constexpr unsigned readsPerRound = 8;

}  // namespace

void DisconnectSocket(Base::Shared<Net::SocketLinux> const& socket,
                      Base::Callback<> onDisconnected) {
  TRACE_VERBOSE("Disconnecting socket", socket);
  socket->Disconnect(Base::MakeCallback(
      [socket, onDisconnected = std::move(onDisconnected)](Base::Status const& err) {
        if (err) {
          TRACE_ERROR("Failed to disconnect socket", socket);
        } else {
          TRACE_VERBOSE("Successfully disconnected socket", socket);
        }
        onDisconnected.Call();
      }));
}

Connection::Connection(ConnectionTable& table, Base::Shared<Net::SocketLinux> socket,
                       Base::Shared<ConnectionSlot> slot)
    : _table(table),
      _socket(std::move(socket)),
      _slot(std::move(slot)),
      _account(_slot->GetAccount()),
      _packetCharge(_account),
      _outgoing(_account) {}

// A round accepts one connection, so the first packet need not wait for the next round.
void Connection::Start() { StartReading(readsPerRound); }

void Connection::StartReading(unsigned readsThisRound) {
  _socket->LimitReads(readsPerRound, readsThisRound);
  auto const stream = Base::MakeShared<IO::NativeMessagingHostReadStream>(
      Base::MakeShared<Net::SocketReadStream>(_socket, readSize), maxPacketSize,
      Base::MakeCallback([self = Base::Shared(this)](std::uint32_t packetSize) {
        self->OnPacketBegun(packetSize);
      }));
  stream->Read(Base::MakeCallback(
      [self = Base::Shared(this)](Base::Status const& err, Base::ByteBuffer buffer, bool complete) {
        self->ReadFromSocket(err, buffer, complete);
      }));
}

void Connection::OnPacketBegun(std::uint32_t length) {
  _packetCharge.Set(length);
  _packetTime = Clock::now();
  UpdateWork();
}

void Connection::ReadFromSocket(Base::Status const& err, Base::ByteBuffer const& buffer,
                                bool complete) {
  StampActivity();
  _packetTime.reset();
  _packetCharge.Release();
  auto const& socket = _socket;
  if (err) {
    TRACE_ERROR("Read packet from socket failed", socket, err);
    // The drain itself may have ended a packet that had begun. The client sent its earlier requests
    // in time, so it still gets their responses.
    if (_isDraining) {
      DisconnectSocketWhenWritten();
    } else {
      DisconnectSocket();
    }
  } else if (complete) {
    TRACE_VERBOSE("Socket is complete", socket, buffer);
    DisconnectSocketWhenWritten();
  } else {
    ProcessPacket(buffer);
  }
  UpdateWork();
}

void Connection::ProcessPacket(Base::ByteBuffer const& buffer) {
  auto const& socket = _socket;
  try {
    TRACE_VERBOSE("Received packet from socket", socket, buffer);
    _hasRequest = true;
    DispatchRequest(Base::Shared(this), buffer.GetSpan());
  } catch (...) {
    FailRequest();
  }
}

void Connection::Answer(nlohmann::json const& response) {
  std::string text;
  try {
    text = response.dump();
  } catch (...) {
    FailRequest();
    return;
  }
  AnswerText(text);
}

void Connection::AnswerText(std::string_view response) {
  try {
    WriteResponse(response);
    _hasRequest = false;
    // The next packet waits until the loop has polled: many small packets gain a client nothing.
    StartReading(0);
  } catch (...) {
    FailRequest();
  }
  UpdateWork();
}

void Connection::FailRequest() {
  auto const& socket = _socket;
  // Deliberate: the line has no text of the exception, which would quote the client.
  TRACE_ERROR("Failed to process request", socket);
  _hasRequest = false;
  DisconnectSocket();
}

void Connection::DropRequest() {
  auto const& socket = _socket;
  TRACE_VERBOSE("Dropping request of a client that has gone", socket);
  _hasRequest = false;
  DisconnectSocket();
}

void Connection::DisconnectSocket() {
  _isClosed = true;
  UpdateWork();
  ::DisconnectSocket(_socket, [self = Base::Shared(this)] { self->_table.Remove(*self); });
}

void Connection::Drain() {
  _isDraining = true;
  _socket->ShutdownReading();
}

bool Connection::CheckDeadlines(Clock::time_point now) {
  auto const& socket = _socket;
  if (_packetTime && now - *_packetTime > maxStall) {
    TRACE_WARNING("Packet took too long", socket);
    DisconnectSocket();
  } else if (HasStalledResponse(now)) {
    TRACE_WARNING("Response took too long", socket);
    DisconnectSocket();
  }
  return !_isClosed && (_packetTime || _outgoing.isWriting);
}

void Connection::UpdateWork() {
  bool const hasDeadline = !_isClosed && (_packetTime || _outgoing.isWriting);
  bool const isAtWork = hasDeadline || (!_isClosed && _hasRequest);
  if (hasDeadline) _table.WatchDeadlines();
  if (isAtWork == std::exchange(_isAtWork, isAtWork)) return;
  if (isAtWork) {
    BeginWork();
  } else {
    EndWork();
  }
}
