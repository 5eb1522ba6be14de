/* The floor: forks and execs N children (argv[1] = "iNNNN") and replaces
 * each one that dies. Nothing else: no logging, no brake, no state beyond the
 * pid of each child. Usage: floor CHILD N */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

static const char* child;

static pid_t Spawn(const char* name) {
  pid_t pid = fork();
  if (pid == 0) {
    execl(child, child, name, (char*)NULL);
    _exit(127);
  }
  return pid;
}

int main(int argc, char* argv[]) {
  if (argc != 3) return 2;
  child = argv[1];
  int n = atoi(argv[2]);
  char (*names)[16] = calloc(n, sizeof *names);
  pid_t* pids = calloc(n, sizeof *pids);
  for (int i = 0; i < n; ++i) {
    snprintf(names[i], sizeof names[i], "i%04d", i);
    pids[i] = Spawn(names[i]);
  }
  for (;;) {
    pid_t pid = wait(NULL);
    if (pid < 0) {
      if (errno == ECHILD) pause();
      continue;
    }
    for (int i = 0; i < n; ++i) {
      if (pids[i] == pid) pids[i] = Spawn(names[i]);
    }
  }
}
