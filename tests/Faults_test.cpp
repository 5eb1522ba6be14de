// Process tests: faults from outside. A failed fork and a failed exec end in
// kill(-1) or a second supervisor copy, so these run, like every process test,
// only inside the tests' private pid namespace.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>

#include "tests/DaemonTest.h"

namespace {
TEST_F(DaemonTest, FailedForkIsListedUnderMinusOneAndSigTermThenKillsEveryone) {
  Install("Morvane.exe");
  Install("MorvaneHL7.exe");
  Touch("alpha.INI");
  pid_t bystander = fork();  // a process that is no child of the daemon
  if (bystander == 0) {
    pause();
    _exit(0);
  }
  setenv("MORVANED_TEST_FAIL_FORK", "2", 1);  // the listener's fork
  Start();
  unsetenv("MORVANED_TEST_FAIL_FORK");
  Child server = WaitForChild("Morvane.exe", "alpha");
  ASSERT_TRUE(WaitForText("Starting HL-7 Listener alpha:-1...\n"));
  WaitUntilWaiting();

  Signal(SIGTERM);
  EXPECT_EQ(WaitExit(), 0);
  std::vector<std::string> texts = LogTexts();
  ASSERT_EQ(texts.size(), 7u);
  EXPECT_EQ(texts[3], "Stopping Server alpha:" + Pid(server.pid) + "...\n");
  EXPECT_EQ(texts[4], "Stopping HL-7 Listener alpha:-1...\n");
  EXPECT_EQ(texts[5],
            "Server alpha:" + Pid(server.pid) + " killed by signal [9]\n");
  // kill(-1, SIGKILL) reached a process the daemon never started; only this
  // namespace's init, the test, was spared.
  int status = 0;
  ASSERT_EQ(waitpid(bystander, &status, 0), bystander);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
}

TEST_F(DaemonTest, ServerProgramRemovedLeavesASpinningSupervisorCopy) {
  // The failed exec makes the child a second supervisor without children;
  // only StopAll's SIGKILL ends it. Safe here: it runs in a private pid
  // namespace.
  Install("Morvane.exe");
  Touch("alpha.INI");
  Start();
  Child first = WaitForChild("Morvane.exe", "alpha");
  std::filesystem::remove(base + "/Morvane.exe");
  Tell(first.pid, "exit 1");
  ASSERT_TRUE(WaitFor([&] { return LogTexts().size() == 4; }));
  std::string start = LogTexts()[3];
  ASSERT_EQ(start.rfind("Starting Server alpha:", 0), 0u) << start;
  pid_t copy = std::stoi(start.substr(start.find(':') + 1));
  EXPECT_TRUE(Alive(copy));
  EXPECT_EQ(std::filesystem::read_symlink("/proc/" + Pid(copy) + "/exe"),
            Binary());
  WaitUntilWaiting();
  Signal(SIGTERM);
  EXPECT_EQ(WaitExit(), 0);
  EXPECT_TRUE(WaitFor([&] { return !Alive(copy); }));
  EXPECT_EQ(Children().size(), 1u);
}

TEST_F(DaemonTest, UnreadableBaseDirectoryMeansNoInstances) {
  if (geteuid() != 0)
    GTEST_SKIP() << "needs root to run the daemon as another user";
  user = 65534;
  Install("Morvane.exe");
  Touch("alpha.INI");
  std::string run = base + "/../run";
  std::filesystem::create_directory(run);
  chmod(run.c_str(), 0777);
  chmod((base + "/..").c_str(), 0755);
  chmod(base.c_str(), 0311);  // enter and execute, but not list
  pidFile = run + "/morvaned.pid";
  Start();
  ASSERT_TRUE(WaitFor([&] { return std::filesystem::exists(pidFile); }));
  long long spent = CpuTime(daemon);
  ASSERT_TRUE(WaitFor([&] { return CpuTime(daemon) > spent + 50000000; }))
      << "not spinning on an empty instance list";
  EXPECT_EQ(LogTexts(), std::vector<std::string>{"Starting daemon [" +
                                                 Pid(daemon) + "]...\n"});
  chmod(base.c_str(), 0755);
}

TEST_F(DaemonTest, InstanceNamesArePassedByteForByte) {
  Install("Morvane.exe");
  const std::set<std::string> names = {"with space", "-dash",
                                       "new\nline",  "caf\xc3\xa9",
                                       "\xff\xfe",   "--pidfile=x"};
  for (const std::string& name : names) Touch(name + ".ini");
  Start();
  ASSERT_TRUE(WaitFor([&] { return Children().size() == names.size(); }));
  std::set<std::string> started;
  for (const Child& child : Children()) {
    started.insert(child.instance);
    EXPECT_EQ(child.argc, 2);
    EXPECT_TRUE(WaitForText("Starting Server " + child.instance + ":" +
                            Pid(child.pid) + "...\n"));
  }
  EXPECT_EQ(started, names);
}

TEST_F(DaemonTest, TenThousandInstanceFilesAreAllStarted) {
  if (getenv("MORVANED_SLOW_TESTS") == nullptr) {
    GTEST_SKIP() << "slow: CTest runs it as slow.TenThousandInstanceFiles";
  }
  // Servers that exit at once: after the first replacement the brake holds
  // the loop on the test's clock, so the host never runs 10,000 of them.
  std::filesystem::copy_file("/bin/true", base + "/Morvane.exe");
  std::set<std::string> names;
  for (int i = 0; i < 10000; ++i) {
    char name[16];
    snprintf(name, sizeof name, "i%05d", i);
    names.insert(name);
    Touch(std::string(name) + ".INI");
  }
  Start();
  ASSERT_TRUE(WaitFor([&] { return LogSize() > names.size(); }, 30));
  std::set<std::string> started;
  for (const std::string& text : LogTexts()) {
    if (text.rfind("Starting Server ", 0) == 0)
      started.insert(text.substr(16, 6));
  }
  EXPECT_EQ(started, names);
  ASSERT_TRUE(WaitFor([&] { return Sleeps().size() == 1; }));  // in the brake
  Signal(SIGTERM);
  EXPECT_EQ(WaitExit(), 0);
}
}  // namespace
