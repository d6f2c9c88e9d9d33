// A minimal server of the packet protocol: one thread, one level-triggered epoll loop, five system
// calls per request. It neither parses nor copies, so no other server that waits with epoll can be
// much faster.
//
//   yardstick ADDRESS [LINES FILE]
//
// With LINES and FILE it also appends LINES lines to FILE for each request. Each line has a time
// stamp and a write(2) of its own, like the trace of a real server.

// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming): has accept4()
#define _GNU_SOURCE

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

static char const answer[] = "{\"status\":\"ErrorNotImplemented\"}";

static long linesPerRequest = 0;
static int traceFd = -1;
static int pid;  // stored, because getpid() is a system call

static void Fail(char const* what) {
  perror(what);
  _exit(1);
}

static void WriteLines(long count, int fd, uint32_t length) {
  for (long i = 0; i < count; ++i) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    int const second = (int)(now.tv_sec % (24L * 60 * 60));
    char line[256];
    int const size = snprintf(line, sizeof line,
                              "%02d:%02d:%02d.%03ldZ VERBOSE  yardstick(%d:%d) - Received packet "
                              "from socket { this:%p fd:%d line:%ld length:%u }\n",
                              second / 3600, second / 60 % 60, second % 60, now.tv_nsec / 1000000,
                              pid, pid, (void*)&traceFd, fd, i, length);
    if (write(traceFd, line, (size_t)size) != size) {
      Fail("write");
    }
  }
}

// Responds to one request; false at the end of the connection.
static bool Serve(int fd) {
  static char payload[128 * 1024];
  uint32_t const answerLength = sizeof answer - 1;
  uint32_t length = 0;
  // The sockets are blocking: a client sends the payload right after the header.
  if (recv(fd, &length, sizeof length, 0) != (ssize_t)sizeof length || length == 0 ||
      recv(fd, payload, sizeof payload, 0) != (ssize_t)length) {
    return false;
  }
  // Half of the lines before the response, half after it: a server traces both directions.
  WriteLines(linesPerRequest - linesPerRequest / 2, fd, length);
  bool const sent =
      send(fd, &answerLength, sizeof answerLength, MSG_NOSIGNAL) == (ssize_t)sizeof answerLength &&
      send(fd, answer, answerLength, MSG_NOSIGNAL) == (ssize_t)answerLength;
  WriteLines(linesPerRequest / 2, fd, length);
  return sent;
}

// A text with a '/' is a path, any other text an abstract name.
static int Listen(char const* text) {
  struct sockaddr_un address = {.sun_family = AF_UNIX};
  bool const isPath = strchr(text, '/') != NULL;
  char const* const name = isPath || text[0] != '@' ? text : text + 1;
  size_t const offset = isPath ? 0 : 1;
  size_t const size = strlen(name);
  if (size == 0 || size >= sizeof address.sun_path - offset) {
    errno = EINVAL;
    Fail(text);
  }
  stpcpy(address.sun_path + offset, name);
  // One byte more than the text: an abstract name has a leading NUL, a path a final NUL.
  socklen_t const length = (socklen_t)(offsetof(struct sockaddr_un, sun_path) + size + 1);
  int const fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd == -1 || bind(fd, (struct sockaddr const*)&address, length) == -1 ||
      listen(fd, SOMAXCONN) == -1) {
    Fail(text);
  }
  return fd;
}

static void Watch(int epoll, int fd) {
  struct epoll_event event = {.events = EPOLLIN, .data.fd = fd};
  if (epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == -1) {
    Fail("epoll_ctl");
  }
}

// Thousands of silent connections exceed the usual soft limit.
static void RaiseDescriptorLimit(void) {
  struct rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) == -1) {
    Fail("getrlimit");
  }
  limit.rlim_cur = limit.rlim_max;
  if (setrlimit(RLIMIT_NOFILE, &limit) == -1) {
    Fail("setrlimit");
  }
}

int main(int argc, char** argv) {
  if (argc == 4) {
    char* end = NULL;
    linesPerRequest = strtol(argv[2], &end, 10);
    if (*end != '\0' || end == argv[2] || linesPerRequest < 0 || linesPerRequest == LONG_MAX) {
      errno = EINVAL;
      Fail(argv[2]);
    }
    traceFd = open(argv[3], O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (traceFd == -1) {
      Fail(argv[3]);
    }
  } else if (argc != 2) {
    fputs("Usage: yardstick ADDRESS [LINES FILE]\n", stderr);
    return 2;
  }
  pid = getpid();
  RaiseDescriptorLimit();
  int const listener = Listen(argv[1]);
  int const epoll = epoll_create1(EPOLL_CLOEXEC);
  if (epoll == -1) {
    Fail("epoll_create1");
  }
  Watch(epoll, listener);
  for (;;) {
    struct epoll_event events[64];
    int const count = epoll_wait(epoll, events, sizeof events / sizeof events[0], -1);
    if (count == -1 && errno != EINTR) {
      Fail("epoll_wait");
    }
    for (int i = 0; i < count; ++i) {
      int const fd = events[i].data.fd;
      if (fd == listener) {
        int const connection = accept4(listener, NULL, NULL, SOCK_CLOEXEC);
        if (connection == -1) {
          Fail("accept4");
        }
        Watch(epoll, connection);
      } else if (!Serve(fd)) {
        close(fd);
      }
    }
  }
}
