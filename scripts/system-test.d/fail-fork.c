// Preloaded into morvaned by the system test through a drop-in: the daemon's
// fork number $FAIL_FORK fails with EAGAIN, as when its tasks are exhausted.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

// The daemon's children run without the preload.
__attribute__((constructor)) static void UnsetPreload(void) { unsetenv("LD_PRELOAD"); }

pid_t fork(void) {
  static int forks;
  pid_t (*real_fork)(void) = (pid_t(*)(void))dlsym(RTLD_NEXT, "fork");
  forks++;
  if (forks == atoi(getenv("FAIL_FORK") ?: "0")) {
    errno = EAGAIN;
    return -1;
  }
  return real_fork();
}
