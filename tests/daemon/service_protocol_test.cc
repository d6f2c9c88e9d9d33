#include "daemon/service_protocol.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "base/unique_fd.h"
#include "tests/support/base/child.h"

namespace {

// The variables of one process and the answers to them: the library's and the daemon's own.
class ServiceProtocolTest : public testing::Test {
 protected:
  void TearDown() override {
    for (char const* name : {"LISTEN_PID", "LISTEN_FDS", "NOTIFY_SOCKET"}) unsetenv(name);
  }

  // Null: without the variable.
  static void Set(char const* name, char const* value) {
    if (value == nullptr) {
      unsetenv(name);
    } else {
      setenv(name, value, 1);
    }
  }
};

TEST_F(ServiceProtocolTest, PassedSocketsAreCountedAsTheLibraryCountsThem) {
  std::string const own = std::to_string(getpid());
  struct {
    char const* pid;
    char const* count;
    int result;
  } const cases[] = {
      {nullptr, "1", 0},
      {own.c_str(), nullptr, 0},
      {"1", "1", 0},
      {"", "1", -EINVAL},
      {"1x", "1", -EINVAL},
      {"0", "1", -ERANGE},
      {"-1", "1", -ERANGE},
      {"99999999999", "1", -ERANGE},
      {own.c_str(), "", -EINVAL},
      {own.c_str(), "0", -EINVAL},
      {own.c_str(), "-1", -EINVAL},
      {own.c_str(), "1 ", -EINVAL},
      {own.c_str(), "2147483647", -EINVAL},
      {own.c_str(), "99999999999", -ERANGE},
  };
  for (auto const& [pid, count, result] : cases) {
    Set("LISTEN_PID", pid);
    Set("LISTEN_FDS", count);
    EXPECT_EQ(ServiceProtocol::ListenFds(), result)
        << (pid ? pid : "none") << ", " << (count ? count : "none");
    EXPECT_EQ(sd_listen_fds(0), result) << (pid ? pid : "none") << ", " << (count ? count : "none");
  }
}

TEST_F(ServiceProtocolTest, PassedSocketsBecomeCloseOnExec) {
  // In a child, whose descriptors are its own.
  int const status = RunInChild([] {
    for (bool const isLibrary : {true, false}) {
      for (int const fd : {3, 4}) ASSERT_EQ(dup2(STDERR_FILENO, fd), fd);
      setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
      setenv("LISTEN_FDS", "2", 1);
      EXPECT_EQ(isLibrary ? sd_listen_fds(0) : ServiceProtocol::ListenFds(), 2);
      for (int const fd : {3, 4}) EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
      close(4);
      EXPECT_EQ(isLibrary ? sd_listen_fds(0) : ServiceProtocol::ListenFds(), -EBADF);
    }
  });
  EXPECT_EQ(status, 0);
}

TEST_F(ServiceProtocolTest, TheManagerIsNotifiedAtAPathOrAnAbstractName) {
  TemporaryDirectory const directory;
  std::string const path = (directory.path / "notify").string();
  std::string const name = "@ktclientd-test-" + std::to_string(getpid());
  for (std::string const& text :
       {path, name, path.substr(0, 1) + std::string(200, 'x'), "@" + std::string(200, 'x'),
        std::string("relative"), std::string("@"), std::string("/none"), std::string()}) {
    Base::UniqueFd const manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    bool const isBound = text == path || text == name;
    if (isBound) {
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      text.copy(&address.sun_path[0], sizeof address.sun_path - 1);
      if (text == name) address.sun_path[0] = '\0';
      auto const length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + text.size());
      ASSERT_EQ(bind(manager.Get(), reinterpret_cast<sockaddr*>(&address), length), 0);
    }
    Set("NOTIFY_SOCKET", text.c_str());
    int const result = ServiceProtocol::Notify("READY=1");
    int const libraryResult = sd_notify(0, "READY=1");
    // Versions of the library have different errors for the same address.
    EXPECT_EQ(std::max(result, -1), std::max(libraryResult, -1)) << text;
    EXPECT_EQ(result == 1, isBound) << text;
    for (int i = 0; isBound && i < 2; ++i) {
      char state[16];
      ASSERT_EQ(recv(manager.Get(), state, sizeof state, MSG_DONTWAIT), 7) << text;
      EXPECT_EQ(std::string(state, 7), "READY=1");
    }
  }
  Set("NOTIFY_SOCKET", nullptr);
  EXPECT_EQ(ServiceProtocol::Notify("READY=1"), 0);
}

}  // namespace
