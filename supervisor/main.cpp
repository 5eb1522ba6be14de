// morvaned: entry point. Reads the command line, checks the server program,
// writes the PID file and runs the supervisor until SIGTERM ends it.
#include <getopt.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "supervisor/CDaemon.h"

namespace {
// Exit statuses; a parent reading the low eight bits sees the negative ones
// as 255, 254 and 253.
enum ExitStatus {
  kExitOk = 0,
  kExitUsage = 1,
  kExitNoServerProgram = -1,
  kExitNoSignalHandler = -2,
  kExitNoPidFile = -3,
};

const option kLongOptions[] = {
    {"basedir", required_argument, nullptr, 'b'},
    {"pidfile", required_argument, nullptr, 'p'},
    {nullptr, 0, nullptr, 0},
};
}  // namespace

int main(int argc, char* argv[]) {
  std::string pidFile;
  for (;;) {
    int index = 0;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): one thread owns getopt's state
    int option = getopt_long(argc, argv, "b:p:", kLongOptions, &index);
    if (option == -1) break;
    switch (option) {
      case 'b':
        // A bad directory is not reported: the daemon then works in the
        // directory it was started in.
        if (chdir(optarg) != 0) {
        }
        break;
      case 'p':
        pidFile = optarg;
        break;
      default:
        // getopt_long has printed its own message.
        break;
    }
    // Whatever follows the first option's argument is echoed and consumed
    // here, inside the loop, so only one option ever takes effect: the
    // supported call is a single --pidfile=FILE in the base directory.
    // Kept on purpose: the callers' command lines are written to it.
    if (optind < argc) {
      printf("non-option ARGV elements: ");
      while (optind < argc) printf("%s ", argv[optind++]);
      putchar('\n');
      // Out at once, even into a pipe, and never inherited by a child.
      // NOLINTNEXTLINE(cert-err33-c): the echo is best effort
      fflush(stdout);
    }
  }

  // Built before any check, so even a failed start logs its start and stop.
  CDaemon daemon;

  std::string serverPath = std::string("./") + kServerProgram;
  if (access(serverPath.c_str(), X_OK) == -1) {
    syslog(LOG_DAEMON | LOG_ERR,
           "%s does not exist or not an executable file\n", kServerProgram);
    return kExitNoServerProgram;
  }
  if (pidFile.empty()) {
    syslog(LOG_DAEMON | LOG_DEBUG, "Usage: %s --pidfile=FILE\n", argv[0]);
    return kExitUsage;
  }
  // Until the handler is in, SIGTERM keeps its default action and ends the
  // process; only then is it held back to the safe points.
  if (signal(SIGTERM, OnSigTerm) == SIG_ERR) {
    syslog(LOG_DAEMON | LOG_ERR, "Cannot install SIGTERM handler: %d\n", errno);
    return kExitNoSignalHandler;
  }
  CDaemon::DeferSigTerm();
  // Kept on purpose: overwritten without a lock, the caller making sure only
  // one daemon runs per PID file. Write errors are not checked.
  FILE* file = fopen(pidFile.c_str(), "w");
  if (file == nullptr) {
    syslog(LOG_DAEMON | LOG_ERR, "Cannot open PIDFILE: %s\n", pidFile.c_str());
    return kExitNoPidFile;
  }
  // NOLINTNEXTLINE(cert-err33-c): write errors are not checked
  fprintf(file, "%d\n", getpid());
  // NOLINTNEXTLINE(cert-err33-c): nor is the close, for the same reason
  fclose(file);

  daemon.Run();
  unlink(pidFile.c_str());
  return kExitOk;
}
