#include "daemon/connection.h"

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>

#include "base/exception.h"
#include "daemon/activity.h"
#include "daemon/budget_read_stream.h"
#include "daemon/dispatch.h"
#include "daemon/response.h"
#include "io/native_messaging_host_read_stream.h"
#include "trace/trace.h"

TRACE_MODULE("main");

namespace {

constexpr std::size_t readSize = 2048;
constexpr std::uint32_t maxPacketSize = 131072;

}  // namespace

void OnNewConnection(Base::Status const& err, Net::Address const& address,
                     Base::Shared<Net::SocketLinux> const& socket) {
  StampLastRead();
  if (err) {
    TRACE_ERROR("Failure listening for connections", err);
    return;
  }
  try {
    auto const [pid, uid, gid] = socket->GetPeerCredentials();
    TRACE_VERBOSE("Received new connection", address, socket, Trace::As("pid", pid),
                  Trace::As("uid", uid), Trace::As("gid", gid));
    StartReading(socket);
  } catch (Base::Exception const& thrown) {
    TRACE_ERROR("Failure handling socket", socket, Trace::As("err", thrown));
    DisconnectSocket(socket);
  }
}

void StartReading(Base::Shared<Net::Socket> const& socket) {
  auto const stream = Base::MakeShared<IO::NativeMessagingHostReadStream>(
      Base::MakeShared<BudgetReadStream>(Base::MakeShared<Net::SocketReadStream>(socket, readSize)),
      maxPacketSize);
  stream->Read(
      Base::MakeCallback([socket](Base::Status const& err, Base::ByteBuffer buffer, bool complete) {
        ReadFromSocket(socket, err, buffer, complete);
      }));
}

void ReadFromSocket(Base::Shared<Net::Socket> const& socket, Base::Status const& err,
                    Base::ByteBuffer const& buffer, bool complete) {
  StampLastRead();
  if (err) {
    TRACE_ERROR("Read packet from socket failed", socket, err);
    DisconnectSocket(socket);
    return;
  }
  if (complete) {
    TRACE_VERBOSE("Socket is complete", socket, buffer);
    DisconnectSocketWhenWritten(socket);
    return;
  }
  try {
    TRACE_VERBOSE("Received packet from socket", socket, buffer);
    auto const packet = buffer.GetSpan();
    DispatchRequest(socket, nlohmann::json::parse(packet.begin(), packet.end()));
    StartReading(socket);
  } catch (...) {
    // Deliberate: the line has no text of the exception, which would quote the client.
    TRACE_ERROR("Failed to process request", socket);
    DisconnectSocket(socket);
  }
}
