// Asks the daemon on the socket argv[1] and prints the payload of its response.

#include <sys/socket.h>

#include <cstddef>
#include <cstdio>
#include <future>
#include <string>

#include "base/loop/io_thread.h"
#include "base/loop/thread_pool.h"
#include "io/native_messaging_host_read_stream.h"
#include "io/native_messaging_host_write_stream.h"
#include "net/socket.h"
#include "net/socket_linux.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  std::promise<std::string> response;
  auto const thread = Base::GetIOThread();
  auto const socket = Base::MakeShared<Net::SocketLinux>(AF_UNIX, SOCK_SEQPACKET, 0, thread);
  auto const reader = Base::MakeShared<IO::NativeMessagingHostReadStream>(
      Base::MakeShared<Net::SocketReadStream>(socket, std::size_t{2048}), 65536U);
  auto const writer = Base::MakeShared<IO::NativeMessagingHostWriteStream>(
      Base::MakeShared<Net::SocketWriteStream>(socket));
  auto onRead = [&](Base::Status const&, Base::ByteBuffer packet, bool) {
    auto const bytes = packet.GetSpan();
    response.set_value({bytes.begin(), bytes.end()});
  };
  auto onConnected = [&](Base::Status const&) {
    reader->Read(Base::MakeCallback(onRead));
    writer->Write(Base::CopyOfText(R"({"sensor":{"hardware":null}})"),
                  Base::MakeCallback([](Base::Status const&, Base::ByteBuffer) {}));
  };
  thread->PostTask(Base::MakeCallback([&] {
    socket->Connect(Net::Address::FromUnixText(argv[1]), Base::MakeCallback(onConnected));
  }));
  std::puts(response.get_future().get().c_str());
  Base::ShutdownThreadPools();
}
