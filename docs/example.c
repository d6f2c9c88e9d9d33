// Prints the serial number that ktclientd reports: cc -o example example.c && ./example [SOCKET]
#include <err.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

// Prints the response. Returns 0 if the connection ends before the response begins.
static int Ask(struct sockaddr_un const* address) {
  char const request[] = "{\"sensor\":{\"hardware\":null}}";
  char answer[8192];
  uint32_t length = sizeof request - 1;
  ssize_t const header = sizeof length;
  ssize_t received;
  int const fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (connect(fd, (struct sockaddr const*)address, sizeof *address) == -1)
    err(1, "%s", address->sun_path);
  if (send(fd, &length, sizeof length, MSG_NOSIGNAL) != header ||  // a separate record
      send(fd, request, length, MSG_NOSIGNAL) != length ||
      (received = recv(fd, &length, sizeof length, 0)) <= 0) {
    close(fd);
    return 0;
  }
  if (received != header || length > sizeof answer || recv(fd, answer, length, 0) != length)
    errx(1, "broken answer");
  printf("%.*s\n", (int)length, answer);
  return 1;
}

int main(int argc, char** argv) {
  char const* const path = argc > 1 ? argv[1] : "/run/ktclientd/ktclientd.sock";
  struct sockaddr_un address = {.sun_family = AF_UNIX};
  if (snprintf(address.sun_path, sizeof address.sun_path, "%s", path) >=
      (int)sizeof address.sun_path)
    errx(1, "too long");
  if (Ask(&address)) return 0;
  // The daemon left just now because it was idle; systemd starts it again for the second question.
  if (Ask(&address)) return 0;
  errx(1, "no answer");
}
