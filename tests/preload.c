// Preloaded into morvaned by tests/process.sh. time() is the modification
// time of the file $MORVANED_TEST_CLOCK, which the test sets; sleep(N) logs
// "sleep N" and lasts until the test has moved that clock N seconds on, or
// until a signal handler runs (with $MORVANED_TEST_SOAK, it returns at once).
// It also shows the daemon's lock: lines logged while the lock is held start
// "locked: ", and an unlock that fails logs "unlock failed". A syslog call
// that the SIGTERM handler could interrupt aborts the daemon.
// $MORVANED_TEST_TERM injects SIGTERM: "early" just before the handler is
// installed, a number N just after fork N; "fail" makes installing it fail.
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
#include <time.h>
#include <unistd.h>

#define REAL(f) ((__typeof__(f)*)dlsym(RTLD_NEXT, #f))

static int held;  // how many times the daemon holds its lock

static const char* Term(void) {
  const char* term = getenv("MORVANED_TEST_TERM");
  return term ? term : "";
}

// The daemon's children run without it.
__attribute__((constructor)) static void Load(void) { unsetenv("LD_PRELOAD"); }

time_t time(time_t* out) {
  struct stat clock;  // the clock file's time stamp, which the test sets
  time_t now = stat(getenv("MORVANED_TEST_CLOCK"), &clock) ? 0 : clock.st_mtime;
  if (out) *out = now;
  return now;
}

void syslog(int priority, const char* format, ...) {
  struct sigaction term;
  sigset_t mask;
  sigaction(SIGTERM, NULL, &term);
  sigprocmask(SIG_BLOCK, NULL, &mask);
  if (term.sa_handler != SIG_DFL && term.sa_handler != SIG_IGN &&
      !sigismember(&mask, SIGTERM))
    abort();
  char marked[256];
  snprintf(marked, sizeof marked, "%s%s", held > 0 ? "locked: " : "", format);
  va_list args;
  va_start(args, format);
  vsyslog(priority, marked, args);
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
  while (time(NULL) < end && !pselect(0, NULL, NULL, NULL, &step, &caller)) {
  }
  sigprocmask(SIG_SETMASK, &caller, NULL);
  return time(NULL) < end ? end - time(NULL) : 0;
}

__sighandler_t signal(int number, __sighandler_t handler) {
  if (number == SIGTERM && !strcmp(Term(), "early")) raise(SIGTERM);
  if (number == SIGTERM && !strcmp(Term(), "fail")) {
    errno = EINVAL;
    return SIG_ERR;
  }
  return REAL(signal)(number, handler);
}

pid_t fork(void) {
  static int forks;
  pid_t pid = REAL(fork)();
  if (pid > 0 && ++forks == atoi(Term())) kill(getpid(), SIGTERM);
  return pid;
}

int pthread_mutex_lock(pthread_mutex_t* mutex) {
  int result = REAL(pthread_mutex_lock)(mutex);
  held += !result;
  return result;
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) {
  int result = REAL(pthread_mutex_unlock)(mutex);
  if (result) syslog(LOG_DAEMON | LOG_DEBUG, "unlock failed\n");
  held -= !result;
  return result;
}
