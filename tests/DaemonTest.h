// DaemonTest: fixture for running the real morvaned binary on a temporary
// base directory with fake child programs, under a clock the test sets.
// Everything it starts is killed by pid when the test ends.
#ifndef TESTS_DAEMONTEST_H_
#define TESTS_DAEMONTEST_H_

#include <gtest/gtest.h>
#include <sys/types.h>

#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "tests/SyslogSink.h"

// One line of children.log: a fake child that has started.
struct Child {
  pid_t pid;
  int argc;
  std::string program;   // argv[0]
  std::string instance;  // argv[1]
  std::string execPath;  // the path the daemon executed
};

class DaemonTest : public ::testing::Test {
 public:
  static constexpr int kFacilityDaemon = 3 << 3;
  static constexpr int kErr = kFacilityDaemon | 3;
  static constexpr int kWarning = kFacilityDaemon | 4;
  static constexpr int kNotice = kFacilityDaemon | 5;
  static constexpr int kDebug = kFacilityDaemon | 7;
  static constexpr time_t kClockStart = 1000000;

 protected:
  DaemonTest();
  ~DaemonTest() override;

  // Puts the fake child in the base directory under the program's name.
  void Install(const char* program, mode_t mode = 0755);
  void Touch(const std::string& name);
  // Starts morvaned in `directory` (default: the base directory), with the
  // arguments expanded.
  void Start(std::vector<std::string> args = {"--pidfile={pidfile}"},
             std::string directory = "");
  // The daemon's exit status as its parent sees it; fails after 5 s.
  int WaitExit();
  // Waits until the daemon blocks waiting for children: every launch so far
  // is complete and its child listed, so a SIGTERM now reaches them all.
  void WaitUntilWaiting();
  void Signal(int signal);

  // Polls `done` until it holds or `seconds` have passed.
  bool WaitFor(const std::function<bool()>& done, int seconds = 5);
  // The daemon's own log lines (identity MORVANE, its pid) so far.
  std::vector<LogLine> Log() const;
  std::vector<std::string> LogTexts() const;
  // How many lines the log holds, from any process: cheap enough to poll.
  size_t LogSize() const { return m_syslog.Size(); }
  bool WaitForText(const std::string& text);
  std::vector<Child> Children() const;
  // Waits for the `index`th start of `program` for `instance`.
  Child WaitForChild(const char* program, const std::string& instance,
                     size_t index = 0);
  // Makes a fake child carry out "exit N" or "signal N".
  void Tell(pid_t child, const std::string& command);
  static bool Alive(pid_t pid);
  // Nanoseconds the process has run on a CPU.
  static long long CpuTime(pid_t pid);
  static std::string Pid(pid_t pid) { return std::to_string(pid); }
  // The daemon under test: $MORVANED_BINARY, else the interposable build.
  static std::string Binary();
  // Replaces "{base}", "{pidfile}" and "{argv0}" by their values.
  std::string Expand(std::string text) const;
  static std::string Read(const std::string& path);

  void SetClock(time_t seconds);
  // What the daemon's sleep() did: "sleep N", "woke", "cut".
  std::vector<std::string> Sleeps() const;

  std::string base;
  std::string pidFile;
  std::string stdoutPath;
  uid_t user = 0;  // the daemon runs as this user when not 0
  pid_t daemon = -1;
  int exitStatus = -1;

 private:
  std::string m_root;
  std::string m_clock;
  SyslogSink m_syslog;
};

#endif  // TESTS_DAEMONTEST_H_
