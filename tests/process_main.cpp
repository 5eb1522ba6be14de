// Entry point of the process tests. The tests run as pid 1 of private pid and
// mount namespaces with a /dev of their own: /dev/log there is the socket
// the tests read, so the daemon's syslog(3) calls land with the test, and a
// kill(-1) reaches nothing outside. Whatever is left when the tests end is
// killed with them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {
void WriteFile(const char* path, const std::string& text) {
  int fd = open(path, O_WRONLY);
  if (fd < 0 || write(fd, text.data(), text.size()) < 0) perror(path);
  if (fd >= 0) close(fd);
}
}  // namespace

int main(int argc, char** argv) {
  uid_t uid = geteuid();
  gid_t gid = getegid();
  int flags = CLONE_NEWNS | CLONE_NEWPID | (uid == 0 ? 0 : CLONE_NEWUSER);
  if (unshare(flags) != 0) {
    fprintf(stderr,
            "process tests: cannot enter private namespaces (%s); run them as "
            "root or enable unprivileged user namespaces\n",
            strerror(errno));
    return 1;
  }
  if (uid != 0) {
    WriteFile("/proc/self/setgroups", "deny");
    WriteFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    WriteFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
  }
  pid_t tests = fork();
  if (tests < 0) return 1;
  if (tests > 0) {
    int status = 0;
    while (waitpid(tests, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("proc", "/proc", "proc", 0, nullptr) != 0 ||
      std::system(PRIVATE_DEV_PATH) != 0) {
    fprintf(stderr, "process tests: cannot set up private mounts: %s\n",
            strerror(errno));
    return 1;
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
