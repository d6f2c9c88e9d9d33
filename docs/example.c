// Prints the serial number that ktclientd reports: cc -o example example.c && ./example [SOCKET]
#include <err.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/un.h>

int main(int argc, char** argv) {
  char const* const path = argc > 1 ? argv[1] : "/run/ktclientd/ktclientd.sock";
  struct sockaddr_un address = {.sun_family = AF_UNIX};
  if (snprintf(address.sun_path, sizeof address.sun_path, "%s", path) >=
      (int)sizeof address.sun_path)
    errx(1, "too long");
  char const request[] = "{\"sensor\":{\"hardware\":null}}";
  char answer[8192];
  uint32_t length = sizeof request - 1;
  ssize_t const header = sizeof length;
  int const fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (connect(fd, (struct sockaddr*)&address, sizeof address) == -1) err(1, "%s", path);
  if (send(fd, &length, sizeof length, MSG_NOSIGNAL) != header ||  // a separate record
      send(fd, request, length, MSG_NOSIGNAL) != length)
    err(1, "send");
  if (recv(fd, &length, sizeof length, 0) != header || length > sizeof answer ||
      recv(fd, answer, length, 0) != length)
    errx(1, "no answer");
  printf("%.*s\n", (int)length, answer);
}
