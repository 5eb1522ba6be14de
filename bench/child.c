/* Bench child: appends "NAME PID MONOTONIC_NS" to $BENCH_RECORDS, the
 * moment it started, and waits for ever. Built static so that every
 * supervisor pays the same, smallest possible exec. */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

int main(int argc, char* argv[]) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  char line[256];
  int n = snprintf(line, sizeof line, "%s %d %lld\n", argc > 1 ? argv[1] : "-",
                   (int)getpid(), (long long)now.tv_sec * 1000000000LL + now.tv_nsec);
  int fd = open(getenv("BENCH_RECORDS"), O_WRONLY | O_APPEND | O_CREAT, 0644);
  if (fd < 0 || write(fd, line, n) != n) return 1; /* one write: no interleaving */
  close(fd);
  for (;;) pause();
}
