// Process tests: SIGTERM, in the wait, in the restart brake, with no children.
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "tests/DaemonTest.h"

namespace {
std::string Pid(pid_t pid) { return std::to_string(pid); }

std::vector<std::string> After(const std::vector<std::string>& texts, size_t from) {
  return std::vector<std::string>(texts.begin() + std::min(from, texts.size()), texts.end());
}

TEST_F(DaemonTest, SigTermKillsServersThenListenersInPidOrderAndEnds) {
  Install("Morvane.exe");
  Install("MorvaneHL7.exe");
  Touch("one.INI");
  Touch("two.INI");
  Start();
  ASSERT_TRUE(WaitFor([&] { return Children().size() == 4 && LogTexts().size() == 5; }));
  std::vector<Child> servers, listeners;
  for (const Child& c : Children()) (c.program == "Morvane.exe" ? servers : listeners).push_back(c);
  auto byPid = [](const Child& a, const Child& b) { return a.pid < b.pid; };
  std::sort(servers.begin(), servers.end(), byPid);
  std::sort(listeners.begin(), listeners.end(), byPid);

  Signal(SIGTERM);
  EXPECT_EQ(WaitExit(), 0);
  std::vector<std::string> expected;
  for (const Child& c : servers) {
    expected.push_back("Stopping Server " + c.instance + ":" + Pid(c.pid) + "...\n");
  }
  for (const Child& c : listeners) {
    expected.push_back("Stopping HL-7 Listener " + c.instance + ":" + Pid(c.pid) + "...\n");
  }
  std::vector<std::string> tail = After(LogTexts(), 5);
  ASSERT_EQ(tail.size(), 6u);
  EXPECT_EQ(std::vector<std::string>(tail.begin(), tail.begin() + 4), expected);
  // One killed child is reaped and not replaced; then the daemon stops.
  EXPECT_NE(tail[4].find(" killed by signal [9]\n"), std::string::npos) << tail[4];
  EXPECT_EQ(tail[5], "Stopping daemon [" + Pid(daemon) + "]...\n");
  EXPECT_FALSE(std::filesystem::exists(pidFile));
  for (const Child& c : Children()) EXPECT_TRUE(WaitFor([&] { return !Alive(c.pid); }));
  EXPECT_EQ(Children().size(), 4u);
}

TEST_F(DaemonTest, SigTermCutsTheBrakeShortAndTheDecidedReplacementOutlivesTheDaemon) {
  Install("Morvane.exe");
  Touch("one.INI");
  Touch("two.INI");
  Start();
  Child one = WaitForChild("Morvane.exe", "one");
  Child two = WaitForChild("Morvane.exe", "two");
  Tell(one.pid, "exit 1");
  Child oneAgain = WaitForChild("Morvane.exe", "one", 1);
  Tell(two.pid, "exit 1");
  ASSERT_TRUE(WaitFor([&] { return !Sleeps().empty(); }));

  Signal(SIGTERM);
  EXPECT_EQ(WaitExit(), 0);
  EXPECT_EQ(Sleeps(), (std::vector<std::string>{"sleep 30", "cut"}));
  Child twoAgain = WaitForChild("Morvane.exe", "two", 1);
  // The flag was cleared during the brake: the loop ends right after the
  // launch, without reaping the killed child.
  EXPECT_EQ(After(LogTexts(), 6),
            (std::vector<std::string>{
                "Stopping Server one:" + Pid(oneAgain.pid) + "...\n",
                "Starting Server two:" + Pid(twoAgain.pid) + "...\n",
                "Stopping daemon [" + Pid(daemon) + "]...\n"}));
  EXPECT_TRUE(Alive(twoAgain.pid));
}

long CpuTicks(pid_t pid) {
  std::ifstream in("/proc/" + Pid(pid) + "/stat");
  std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::istringstream fields(stat.substr(stat.rfind(')') + 2));
  std::string skip;
  for (int i = 0; i < 11; ++i) fields >> skip;  // state .. cmajflt
  long user = 0, system = 0;
  fields >> user >> system;
  return user + system;
}

bool SigTermPending(pid_t pid) {
  std::ifstream in("/proc/" + Pid(pid) + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("SigPnd:", 0) == 0 || line.rfind("ShdPnd:", 0) == 0) {
      if ((std::stoull(line.substr(8), nullptr, 16) >> (SIGTERM - 1)) & 1) return true;
    }
  }
  return false;
}

TEST_F(DaemonTest, SigTermWithoutInstancesLeavesTheDaemonSpinning) {
  Install("Morvane.exe");
  Start();
  ASSERT_TRUE(WaitForText("Starting daemon [" + Pid(daemon) + "]...\n"));
  Signal(SIGTERM);
  ASSERT_TRUE(WaitFor([&] { return !SigTermPending(daemon); }));
  long ticks = CpuTicks(daemon);
  EXPECT_TRUE(WaitFor([&] { return CpuTicks(daemon) > ticks + 5; })) << "not spinning";
  EXPECT_TRUE(Alive(daemon));
  EXPECT_EQ(LogTexts().size(), 1u);
  EXPECT_TRUE(std::filesystem::exists(pidFile));
  // The fixture ends it with SIGKILL, by pid.
}
}  // namespace
