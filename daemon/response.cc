#include "daemon/response.h"

#include <cstddef>
#include <exception>
#include <nlohmann/json.hpp>
#include <string_view>
#include <unordered_map>

#include "base/buffer.h"
#include "base/exception.h"
#include "base/loop/io_thread.h"
#include "base/loop/step_budget.h"
#include "base/stream.h"
#include "daemon/packet_backlog.h"
#include "io/native_messaging_host_write_stream.h"
#include "trace/trace.h"

TRACE_MODULE("main");

// Responses on their way to the client. Each connection with a response under way has an
// `Outgoing`:
//
//   none      -> WriteResponse starts the write and creates the `Outgoing`
//   writing   -> WriteResponse appends to the backlog; at the end of the write the next response
//                leaves the backlog, or the `Outgoing` goes when the backlog is empty
//   overflown -> WriteResponse throws: the client leaves more than `maxUnreadLength` unread
//
// The daemon reads the next request without waiting for the response to be written, so a response
// may find another one under way. A backlog is needed because a packet is two writes, header and
// payload: the packets of two responses must not mix.
//
// The end of the stream does not lose responses: `DisconnectSocketWhenWritten` notes the wish, and
// the end of the last write closes the connection. A failed write closes it at once.
//
// A client that always reads would keep the loop busy with a long backlog, so each response takes a
// step of the connection's budget and otherwise waits for the next round of the loop.
//
// The states are in a map by connection and not in the connection itself, because a connection is
// only a socket. The completion of each write holds the socket, so a key of the map is never stale.

namespace {

// The bytes that one client may leave unread, beyond those that the kernel buffers.
constexpr std::size_t maxUnreadLength = std::size_t{1} << 20U;

constexpr unsigned responsesPerRound = 16;

struct Outgoing {
  std::size_t underWay = 0;  // length in bytes of the response that is being written
  PacketBacklog backlog;
  Base::StepBudget budget{Base::GetIOThread(), responsesPerRound};
  bool hasOverflowed = false;
  bool disconnectWhenWritten = false;
};

// Never destroyed: the last tasks of the IO thread may run while static objects are destroyed.
std::unordered_map<Net::Socket const*, Outgoing>& GetOutgoing() {
  static auto& outgoing = *new std::unordered_map<Net::Socket const*, Outgoing>;
  return outgoing;
}

void OnResponseWritten(Base::Shared<Net::Socket> const& socket, Base::Status const& err,
                       Base::ByteBuffer const& buffer);

void StartWriting(Base::Shared<Net::Socket> const& socket, std::string_view text) {
  auto const stream = Base::MakeShared<IO::NativeMessagingHostWriteStream>(
      Base::MakeShared<Net::SocketWriteStream>(socket));
  stream->Write(Base::CopyOfText(text),
                Base::MakeCallback([socket](Base::Status const& err, Base::ByteBuffer buffer) {
                  OnResponseWritten(socket, err, buffer);
                }));
}

void OnWriteFailed(Base::Shared<Net::Socket> const& socket, Base::Status const& err,
                   Base::ByteBuffer const& buffer) {
  TRACE_ERROR("Failed to write packet", buffer, err);
  GetOutgoing().erase(socket.Get());
  DisconnectSocket(socket);
}

void WriteNext(Base::Shared<Net::Socket> const& socket) {
  Outgoing& outgoing = GetOutgoing().at(socket.Get());
  std::string const text = outgoing.backlog.Pop();
  outgoing.underWay = text.size();
  try {
    StartWriting(socket, text);
  } catch (std::exception const& thrown) {
    OnWriteFailed(socket, Base::Exception(thrown.what()), {});
  }
}

void OnResponseWritten(Base::Shared<Net::Socket> const& socket, Base::Status const& err,
                       Base::ByteBuffer const& buffer) {
  if (err) {
    OnWriteFailed(socket, err, buffer);
    return;
  }
  TRACE_VERBOSE("Successfully wrote packet", buffer);
  Outgoing& outgoing = GetOutgoing().at(socket.Get());
  if (!outgoing.backlog.IsEmpty()) {
    outgoing.budget.Run(Base::MakeCallback([socket] { WriteNext(socket); }));
    return;
  }
  bool const disconnect = outgoing.disconnectWhenWritten;
  GetOutgoing().erase(socket.Get());
  if (disconnect) DisconnectSocket(socket);
}

void Send(Base::Shared<Net::Socket> const& socket, std::string const& text) {
  auto const [entry, isFirst] = GetOutgoing().try_emplace(socket.Get());
  Outgoing& outgoing = entry->second;
  if (isFirst) {
    outgoing.underWay = text.size();
    try {
      StartWriting(socket, text);
    } catch (...) {
      GetOutgoing().erase(entry);
      throw;
    }
    return;
  }
  std::size_t const unread = outgoing.underWay + outgoing.backlog.GetLength();
  if (outgoing.hasOverflowed || unread + PacketBacklog::GetPacketLength(text) > maxUnreadLength) {
    TRACE_WARNING("Client leaves too many responses unread", socket, unread, maxUnreadLength);
    // Without this a shorter response, such as that of the error, could still fit.
    outgoing.hasOverflowed = true;
    throw Base::Exception("Too Many Unread Responses");
  }
  outgoing.backlog.Push(text);
}

}  // namespace

void WriteResponse(Base::Shared<Net::Socket> const& socket, nlohmann::json const& response) {
  std::string const text = response.dump();
  TRACE_VERBOSE("Writing response to socket", socket, Trace::As("response.dump()", text));
  Send(socket, text);
}

void WriteErrorResponse(Base::Shared<Net::Socket> const& socket, std::string const& status,
                        std::string const& message) {
  nlohmann::json response{{"status", status}};
  if (!message.empty()) response["error_message"] = message;
  WriteResponse(socket, response);
}

void DisconnectSocket(Base::Shared<Net::Socket> const& socket) {
  TRACE_VERBOSE("Disconnecting socket", socket);
  socket->Disconnect(Base::MakeCallback([socket](Base::Status const& err) {
    if (err) {
      TRACE_ERROR("Failed to disconnect socket", socket);
    } else {
      TRACE_VERBOSE("Successfully disconnected socket", socket);
    }
  }));
}

void DisconnectSocketWhenWritten(Base::Shared<Net::Socket> const& socket) {
  auto const found = GetOutgoing().find(socket.Get());
  if (found == GetOutgoing().end()) {
    DisconnectSocket(socket);
  } else {
    found->second.disconnectWhenWritten = true;
  }
}
