// A Morvane server program for the system test, as an ELF binary: listens on
// the TCP port $PORT (any free one without it) of the loopback address,
// writes that port to NAME.port in its working directory, and answers
// "hello" to each connection until killed.
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  int server = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in address = {.sin_family = AF_INET};
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(atoi(getenv("PORT") ?: "0"));
  socklen_t size = sizeof address;
  if (bind(server, (struct sockaddr*)&address, size) || listen(server, 8) ||
      getsockname(server, (struct sockaddr*)&address, &size)) {
    perror("listen");
    return 1;
  }
  char path[256];
  snprintf(path, sizeof path, "%s.port", argv[1]);
  FILE* out = fopen(path, "w");
  if (!out) {
    perror(path);
    return 1;
  }
  fprintf(out, "%d\n", ntohs(address.sin_port));
  fclose(out);
  for (;;) {
    int client = accept(server, NULL, NULL);
    if (client < 0) continue;
    if (write(client, "hello\n", 6) != 6) perror("write");
    close(client);
  }
}
