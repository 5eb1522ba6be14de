/* The bench's syslog: binds /dev/log (in the bench's private /dev), reads
 * datagrams until SIGTERM and then prints how many it read. In C so that
 * receiving morvaned's log lines costs the machine no more than a plain
 * syslog daemon would. */
#include <signal.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

static volatile sig_atomic_t stop;
static void OnTerm(int sig) { (void)sig; stop = 1; }

int main(void) {
  struct sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = "/dev/log"};
  int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
  if (fd < 0 || bind(fd, (struct sockaddr*)&address, sizeof address) != 0) return 1;
  chmod("/dev/log", 0666);
  struct sigaction term = {.sa_handler = OnTerm}; /* no SA_RESTART: recv returns */
  sigaction(SIGTERM, &term, NULL);
  long lines = 0;
  char buffer[4096];
  while (!stop) {
    if (recv(fd, buffer, sizeof buffer, 0) > 0) ++lines;
  }
  printf("%ld\n", lines);
  return 0;
}
