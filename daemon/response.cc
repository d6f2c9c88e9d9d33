#include <exception>
#include <string_view>

#include "base/exception.h"
#include "base/loop/io_thread.h"
#include "daemon/connection.h"
#include "io/native_messaging_host_write_stream.h"
#include "net/socket.h"
#include "trace/trace.h"

TRACE_MODULE("main");

// The writing half of a connection. It is in one of these states:
//
//   idle       `WriteResponse` starts a write
//   writing    `WriteResponse` appends to the backlog; at the end of the write the next response
//              leaves the backlog, or the writer is idle again when the backlog is empty
//   overflown  `WriteResponse` throws: the client leaves more than `maxUnreadLength` unread
//
// The daemon reads the next request once this half has taken the response, so a response may find
// another one under way. A backlog is needed because a packet is two writes, header and payload:
// the packets of two responses must not mix.
//
// The end of the stream does not lose responses: `DisconnectSocketWhenWritten` notes the wish, and
// the end of the last write closes the connection. A failed write closes it at once.
//
// A client that reads as fast as it sends would keep the loop busy with a long backlog, so each
// response takes a step of the connection's budget and otherwise waits for the next round.
//
// Progress is what the kernel takes: a client that reads slowly keeps its connection, a client that
// stops reading loses it. The socket counts the bytes, and the table compares the count once a
// second while a response waits, so a response costs no timer of its own.

namespace {

// The bytes that one client may leave unread, beyond those that the kernel buffers.
constexpr std::size_t maxUnreadLength = std::size_t{1} << 20U;

constexpr unsigned responsesPerRound = 16;

}  // namespace

Connection::Outgoing::Outgoing(Base::Shared<UserAccount> const& account)
    : charge(account), budget(Base::GetIOThread(), responsesPerRound) {}

// Sends a response as one packet, after the responses that are under way. Returns at once; a failed
// write closes the connection. Throws the socket's latched error, and Base::Exception "Too Many
// Unread Responses" when the client leaves more than 1 MiB unread.
void Connection::WriteResponse(std::string_view text) {
  auto const& socket = _socket;
  TRACE_VERBOSE("Writing response to socket", socket, Trace::As("response.dump()", text));
  Send(text);
}

void Connection::Send(std::string_view text) {
  if (!_outgoing.isWriting) {
    _outgoing.charge.Set(text.size());
    _outgoing.underWay = text.size();
    _outgoing.bytesSent = _socket->GetBytesSent();
    _outgoing.progress = Clock::now();
    StartWriting(text);
    _outgoing.isWriting = true;
    UpdateWork();
    return;
  }
  std::size_t const unread = _outgoing.underWay + _outgoing.backlog.GetLength();
  std::size_t const wanted = unread + PacketBacklog::GetPacketLength(text);
  if (_outgoing.hasOverflowed || wanted > maxUnreadLength) {
    auto const& socket = _socket;
    TRACE_WARNING("Client leaves too many responses unread", socket, unread, maxUnreadLength);
    // Without this a shorter response could still fit.
    _outgoing.hasOverflowed = true;
    throw Base::Exception("Too Many Unread Responses");
  }
  _outgoing.charge.Set(wanted);
  _outgoing.backlog.Push(text);
}

void Connection::StartWriting(std::string_view text) {
  auto const stream = Base::MakeShared<IO::NativeMessagingHostWriteStream>(
      Base::MakeShared<Net::SocketWriteStream>(_socket));
  stream->Write(Base::CopyOfText(text),
                Base::MakeCallback(
                    [self = Base::Shared(this)](Base::Status const& err, Base::ByteBuffer buffer) {
                      self->OnResponseWritten(err, buffer);
                    }));
}

void Connection::OnResponseWritten(Base::Status const& err, Base::ByteBuffer const& buffer) {
  if (err) {
    OnWriteFailed(err, buffer);
    return;
  }
  TRACE_VERBOSE("Successfully wrote packet", buffer);
  if (!_outgoing.backlog.IsEmpty()) {
    _outgoing.budget.Run(Base::MakeCallback([self = Base::Shared(this)] { self->WriteNext(); }));
    return;
  }
  _outgoing.isWriting = false;
  _outgoing.charge.Release();
  UpdateWork();
  if (_outgoing.disconnectWhenWritten) DisconnectSocket();
}

void Connection::WriteNext() {
  std::string const text = _outgoing.backlog.Pop();
  _outgoing.underWay = text.size();
  _outgoing.charge.Set(text.size() + _outgoing.backlog.GetLength());
  try {
    StartWriting(text);
  } catch (std::exception const& thrown) {
    OnWriteFailed(Base::Exception(thrown.what()), {});
  }
}

void Connection::OnWriteFailed(Base::Status const& err, Base::ByteBuffer const& buffer) {
  TRACE_ERROR("Failed to write packet", buffer, err);
  _outgoing.isWriting = false;
  _outgoing.charge.Release();
  DisconnectSocket();
}

void Connection::DisconnectSocketWhenWritten() {
  if (_outgoing.isWriting) {
    _outgoing.disconnectWhenWritten = true;
  } else {
    DisconnectSocket();
  }
}

bool Connection::HasStalledResponse(Clock::time_point now) {
  if (!_outgoing.isWriting) return false;
  std::uint64_t const bytesSent = _socket->GetBytesSent();
  if (bytesSent != _outgoing.bytesSent) {
    _outgoing.bytesSent = bytesSent;
    _outgoing.progress = now;
  }
  return now - _outgoing.progress > maxStall;
}
