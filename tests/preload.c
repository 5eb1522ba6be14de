// Preloaded into morvaned by tests/process.sh.
// - time() is the modification time of the file $MORVANED_TEST_CLOCK, which the test sets;
//   sleep(N) logs "sleep N" and lasts until that clock has moved N seconds on, or until a
//   signal handler has run (with $MORVANED_TEST_SOAK it returns at once).
// - fork() adds the pid of each child to the file "pids".
// - $MORVANED_TEST_TERM sends SIGTERM "early", just before the handler is installed, or
//   just after fork number N; "fail" makes installing the handler fail.
// - An unlock that fails logs "unlock failed"; a syslog call that the SIGTERM handler
//   could interrupt aborts the daemon.
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

time_t time(time_t* out) {
  struct stat clock;
  time_t now = stat(getenv("MORVANED_TEST_CLOCK"), &clock) ? 0 : clock.st_mtime;
  return out ? (*out = now) : now;
}

void syslog(int priority, const char* format, ...) {
  struct sigaction term;
  sigset_t mask;
  sigaction(SIGTERM, NULL, &term);
  sigprocmask(SIG_BLOCK, NULL, &mask);
  // The SIGTERM handler logs too: had it run inside this call, the daemon would hang on
  // syslog's own lock.
  int handled = term.sa_handler != SIG_DFL && term.sa_handler != SIG_IGN;
  if (handled && !sigismember(&mask, SIGTERM)) abort();
  va_list args;
  va_start(args, format);
  vsyslog(priority, format, args);
  va_end(args);
}

unsigned sleep(unsigned seconds) {
  if (getenv("MORVANED_TEST_SOAK")) return 0;
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

__sighandler_t signal(int number, __sighandler_t handler) {
  if (number == SIGTERM && !strcmp(TERM, "early")) raise(SIGTERM);
  if (number == SIGTERM && !strcmp(TERM, "fail")) return errno = EINVAL, SIG_ERR;
  return REAL(signal)(number, handler);
}

pid_t fork(void) {
  static int forks;
  pid_t pid = REAL(fork)();
  if (pid <= 0) return pid;
  FILE* pids = fopen("pids", "a");
  fprintf(pids, "%d\n", pid);
  fclose(pids);
  if (++forks == atoi(TERM)) kill(getpid(), SIGTERM);
  return pid;
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) {
  int result = REAL(pthread_mutex_unlock)(mutex);
  if (result) syslog(LOG_DAEMON | LOG_DEBUG, "unlock failed\n");
  return result;
}
