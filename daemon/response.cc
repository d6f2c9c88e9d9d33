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

// A connection's requests are read without waiting for its responses to be written, so a response
// may find another one under way. It then waits in that connection's backlog: the packets of two
// responses must not mix.

namespace {

// What one connection may leave unread on top of what the kernel holds for it.
constexpr std::size_t maxUnreadLength = std::size_t{1} << 20U;

constexpr unsigned responsesPerRound = 16;

struct Outgoing {
  std::size_t underWay = 0;  // the length of the response that is being written
  PacketBacklog backlog;
  Base::StepBudget budget{Base::GetIOThread(), responsesPerRound};
  bool hasOverflowed = false;
  bool disconnectWhenWritten = false;
};

// By connection, those with a response under way; its completion holds the connection. Never
// destroyed: the IO thread's last tasks may come late.
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
    // A shorter one, of the error for instance, may still fit, but the connection is to end.
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
