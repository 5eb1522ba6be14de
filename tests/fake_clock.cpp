// Virtual time for the daemon under test, loaded with LD_PRELOAD. time()
// returns the number in the file $MORVANED_TEST_CLOCK. sleep(N) appends
// "sleep N" to the file <clock>.sleeps and returns once the test has moved the
// clock N seconds on ("woke"), or early when a signal handler ran ("cut").
// Only the time the test sets moves it: no real time is waited for.
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
time_t Now() {
  long long seconds = 0;
  if (FILE* file = fopen(getenv("MORVANED_TEST_CLOCK"), "r")) {
    if (fscanf(file, "%lld", &seconds) != 1) seconds = 0;
    fclose(file);
  }
  return static_cast<time_t>(seconds);
}

void Record(const std::string& line) {
  std::string path = std::string(getenv("MORVANED_TEST_CLOCK")) + ".sleeps";
  int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0644);
  if (fd < 0) return;
  if (write(fd, line.data(), line.size()) < 0) {
  }
  close(fd);
}
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
