// Preloaded into morvaned by tests/process.sh, whose header lists the controls it gives the
// tests: a clock, the children's pids, failed unlocks and SIGTERM at chosen instants.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#define REAL(f) ((__typeof__(f)*)dlsym(RTLD_NEXT, #f))
#define TERM (getenv("MORVANED_TEST_TERM") ?: "")

// The daemon's children run without it.
__attribute__((constructor)) static void Load(void) { unsetenv("LD_PRELOAD"); }

// The daemon passes no pointer.
time_t time(time_t* out __attribute__((unused))) {
  static time_t ticks;
  struct stat clock;
  return stat("clock", &clock) ? ticks += 10 : clock.st_mtime;
}

void syslog(int priority, const char* format, ...) {
  struct sigaction term;
  sigset_t mask;
  sigaction(SIGTERM, NULL, &term);
  sigprocmask(SIG_BLOCK, NULL, &mask);
  // The SIGTERM handler logs too: had it run inside this call, the daemon would hang on
  // syslog's own lock.
  if (term.sa_handler != SIG_DFL && !sigismember(&mask, SIGTERM)) abort();
  va_list args;
  va_start(args, format);
  vsyslog(priority, format, args);
  va_end(args);
}

unsigned sleep(unsigned seconds) {
  // Like a real sleep, only its wait lets signals in.
  sigset_t all, caller;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, &caller);
  syslog(LOG_DAEMON | LOG_INFO, "sleep %u\n", seconds);
  time_t end = time(NULL) + seconds;
  struct timespec step = {0, 10000000};
  while (time(NULL) < end && !pselect(0, NULL, NULL, NULL, &step, &caller)) continue;
  sigprocmask(SIG_SETMASK, &caller, NULL);
  return 0;
}

// The daemon installs no other handler.
__sighandler_t signal(int number, __sighandler_t handler) {
  if (!strcmp(TERM, "early")) raise(SIGTERM);
  if (!strcmp(TERM, "fail")) return errno = EINVAL, SIG_ERR;
  return REAL(signal)(number, handler);
}

pid_t fork(void) {
  static int forks;
  pid_t pid = REAL(fork)();
  if (pid <= 0) return pid;
  FILE* pids = fopen("pids", "a");
  fprintf(pids, "%d\n", pid);
  fclose(pids);
  if (memchr(TERM, '0' + ++forks, strlen(TERM))) kill(getpid(), SIGTERM);
  return pid;
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) {
  int result = REAL(pthread_mutex_unlock)(mutex);
  if (result && !access("unlocks", F_OK)) syslog(LOG_DAEMON | LOG_DEBUG, "unlock failed\n");
  return result;
}
