// Stand-in for Morvane.exe and MorvaneHL7.exe in the process tests. It appends
// one line about itself to children.log in its working directory (the base
// directory): pid, argc, argv[0], argv[1] in hex and the path it was executed
// by. Then it waits; on SIGUSR1 it carries out the command in cmd.<pid>:
// "exit N" or "signal N".
#include <fcntl.h>
#include <signal.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {
volatile sig_atomic_t told = 0;
void OnUsr1(int) { told = 1; }
}  // namespace

int main(int argc, char* argv[]) {
  sigset_t usr1, waiting;
  sigemptyset(&usr1);
  sigaddset(&usr1, SIGUSR1);
  sigprocmask(SIG_BLOCK, &usr1, &waiting);
  signal(SIGUSR1, OnUsr1);

  char line[4096];
  int n = snprintf(line, sizeof line, "%d %d %s ", getpid(), argc, argv[0]);
  for (const char* p = argc > 1 ? argv[1] : ""; *p != 0 && n < 4000; ++p) {
    n += snprintf(line + n, sizeof line - n, "%02x",
                  static_cast<unsigned char>(*p));
  }
  n += snprintf(line + n, sizeof line - n, " %s\n",
                reinterpret_cast<const char*>(getauxval(AT_EXECFN)));
  int log = open("children.log", O_WRONLY | O_APPEND | O_CREAT, 0644);
  if (log < 0 || write(log, line, n) != n)
    return 99;  // one write: lines never interleave
  close(log);

  for (;;) {
    while (told == 0) sigsuspend(&waiting);
    told = 0;
    char path[64], command[64] = {};
    snprintf(path, sizeof path, "cmd.%d", getpid());
    FILE* file = fopen(path, "r");
    if (file == nullptr) continue;
    int value = 0;
    bool ok = fscanf(file, "%63s %d", command, &value) == 2;
    fclose(file);
    if (ok && strcmp(command, "exit") == 0) _exit(value);
    if (ok && strcmp(command, "signal") == 0) {
      signal(value, SIG_DFL);
      sigprocmask(SIG_SETMASK, &waiting, nullptr);
      raise(value);
      sigprocmask(SIG_BLOCK, &usr1,
                  nullptr);  // back here after SIGSTOP/SIGCONT
    }
  }
}
