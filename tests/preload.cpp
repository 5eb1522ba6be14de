// C library calls interposed into the daemon under test with LD_PRELOAD.
//
// time() returns the number in the file $MORVANED_TEST_CLOCK. sleep(N)
// appends "sleep N" to <clock>.sleeps and returns once the test has moved the
// clock N seconds on ("woke"), or early when a signal handler ran ("cut").
// With $MORVANED_TEST_CLOCK_AUTO set, sleep(N) moves the clock on by N itself
// and returns at once, so long runs need nobody to drive the clock.
//
// fork() fails with EAGAIN on the calls numbered in $MORVANED_TEST_FAIL_FORK
// (a comma-separated list, counting from 1 in the process that loaded this).
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/select.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {
std::string ClockPath() { return getenv("MORVANED_TEST_CLOCK"); }

time_t Now() {
  long long seconds = 0;
  if (FILE* file = fopen(ClockPath().c_str(), "r")) {
    if (fscanf(file, "%lld", &seconds) != 1) seconds = 0;
    fclose(file);
  }
  return static_cast<time_t>(seconds);
}

void SetNow(time_t seconds) {
  std::string next = ClockPath() + ".next";
  if (FILE* file = fopen(next.c_str(), "w")) {
    fprintf(file, "%lld\n", static_cast<long long>(seconds));
    fclose(file);
    rename(next.c_str(), ClockPath().c_str());
  }
}

void Record(const std::string& line) {
  std::string path = ClockPath() + ".sleeps";
  int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0644);
  if (fd < 0) return;
  if (write(fd, line.data(), line.size()) < 0) {
  }
  close(fd);
}

int forks = 0;
}  // namespace

extern "C" time_t time(time_t* out) {
  time_t now = Now();
  if (out != nullptr) *out = now;
  return now;
}

extern "C" unsigned int sleep(unsigned int seconds) {
  // Like a real sleep, it can be interrupted only while it waits: its own
  // bookkeeping runs with every signal blocked, and the wait takes the
  // caller's mask atomically.
  sigset_t all, caller;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, &caller);
  time_t end = Now() + seconds;
  Record("sleep " + std::to_string(seconds) + "\n");
  if (getenv("MORVANED_TEST_CLOCK_AUTO") != nullptr) SetNow(end);
  unsigned left = 0;
  for (time_t now = Now(); now < end; now = Now()) {
    timespec step = {0, 2000000};
    if (pselect(0, nullptr, nullptr, nullptr, &step, &caller) < 0 &&
        errno == EINTR) {
      left = static_cast<unsigned>(end - now);
      break;
    }
  }
  Record(left > 0 ? "cut\n" : "woke\n");
  sigprocmask(SIG_SETMASK, &caller, nullptr);
  return left;
}

extern "C" pid_t fork() {
  static auto real = reinterpret_cast<pid_t (*)()>(dlsym(RTLD_NEXT, "fork"));
  const char* failing = getenv("MORVANED_TEST_FAIL_FORK");
  std::string number = "," + std::to_string(++forks) + ",";
  if (failing != nullptr &&
      ("," + std::string(failing) + ",").find(number) != std::string::npos) {
    errno = EAGAIN;
    return -1;
  }
  return real();
}
