#include "client/exchange.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <string>

#include "base/loop/io_thread.h"
#include "base/loop/thread_pool.h"
#include "base/unique_fd.h"

namespace {

// The black-box tests lose connections after the send; only here the loss surely comes before it.
TEST(ExchangeTest, FailedSendMakesItConnectAgain) {
  signal(SIGPIPE, SIG_IGN);
  auto const address =
      Net::Address::FromUnixText("ktclientd-exchange-test-" + std::to_string(getpid()));
  Base::UniqueFd const listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  ASSERT_EQ(bind(listener.Get(), address.GetData(), address.GetLength()), 0);
  ASSERT_EQ(listen(listener.Get(), 1), 0);

  auto const exchange = Base::MakeShared<Exchange>(address, "{}");
  std::future<Exchange::Outcome> outcome;
  std::promise<void> lost;
  Base::GetIOThread()->PostTask(Base::MakeCallback([&] {
    outcome = exchange->Start();  // posts the connect, which posts the send
    Base::GetIOThread()->PostTask(Base::MakeCallback([&] {
      Base::UniqueFd(accept(listener.Get(), nullptr, nullptr));
      lost.set_value();
    }));
  }));
  lost.get_future().wait();

  Base::UniqueFd const server(accept(listener.Get(), nullptr, nullptr));
  std::array<char, 16> request{};
  EXPECT_EQ(recv(server.Get(), request.data(), request.size(), 0), 4);
  EXPECT_EQ(recv(server.Get(), request.data(), request.size(), 0), 2);
  std::uint32_t const length = 2;
  send(server.Get(), &length, sizeof length, 0);
  send(server.Get(), "[]", length, 0);
  auto const [isResponse, text] = outcome.get();
  EXPECT_TRUE(isResponse);
  EXPECT_EQ(text, "[]");
  Base::ShutdownThreadPools();
}

}  // namespace
