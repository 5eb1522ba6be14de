// Process tests: SIGTERM, in the wait, in the restart brake, with no children.
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "tests/DaemonTest.h"

namespace {
std::vector<std::string> After(const std::vector<std::string>& texts,
                               size_t from) {
  return std::vector<std::string>(texts.begin() + std::min(from, texts.size()),
                                  texts.end());
}

TEST_F(DaemonTest, SigTermKillsServersThenListenersInPidOrderAndEnds) {
  Install("Morvane.exe");
  Install("MorvaneHL7.exe");
  Touch("one.INI");
  Touch("two.INI");
  Start();
  ASSERT_TRUE(WaitFor(
      [&] { return Children().size() == 4 && LogTexts().size() == 5; }));
  std::vector<Child> servers, listeners;
  for (const Child& c : Children())
    (c.program == "Morvane.exe" ? servers : listeners).push_back(c);
  auto byPid = [](const Child& a, const Child& b) { return a.pid < b.pid; };
  std::sort(servers.begin(), servers.end(), byPid);
  std::sort(listeners.begin(), listeners.end(), byPid);

  WaitUntilWaiting();
  Signal(SIGTERM);
  EXPECT_EQ(WaitExit(), 0);
  std::vector<std::string> expected;
  for (const Child& c : servers) {
    expected.push_back("Stopping Server " + c.instance + ":" + Pid(c.pid) +
                       "...\n");
  }
  for (const Child& c : listeners) {
    expected.push_back("Stopping HL-7 Listener " + c.instance + ":" +
                       Pid(c.pid) + "...\n");
  }
  std::vector<std::string> tail = After(LogTexts(), 5);
  ASSERT_EQ(tail.size(), 6u);
  EXPECT_EQ(std::vector<std::string>(tail.begin(), tail.begin() + 4), expected);
  // One killed child is reaped and not replaced; then the daemon stops.
  EXPECT_NE(tail[4].find(" killed by signal [9]\n"), std::string::npos)
      << tail[4];
  EXPECT_EQ(tail[5], "Stopping daemon [" + Pid(daemon) + "]...\n");
  EXPECT_FALSE(std::filesystem::exists(pidFile));
  for (const Child& c : Children())
    EXPECT_TRUE(WaitFor([&] { return !Alive(c.pid); }));
  EXPECT_EQ(Children().size(), 4u);
}

TEST_F(DaemonTest,
       SigTermCutsTheBrakeShortAndTheDecidedReplacementOutlivesTheDaemon) {
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

// Nanoseconds the process has run on a CPU.
long long CpuTime(pid_t pid) {
  long long ns = 0;
  std::ifstream("/proc/" + std::to_string(pid) + "/schedstat") >> ns;
  return ns;
}

bool SigTermPending(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("SigPnd:", 0) == 0 || line.rfind("ShdPnd:", 0) == 0) {
      if ((std::stoull(line.substr(8), nullptr, 16) >> (SIGTERM - 1)) & 1)
        return true;
    }
  }
  return false;
}

TEST_F(DaemonTest, SigTermWithoutInstancesLeavesTheDaemonSpinning) {
  Install("Morvane.exe");
  Start();
  ASSERT_TRUE(WaitFor(
      [&] { return std::filesystem::exists(pidFile); }));  // handler in place
  Signal(SIGTERM);
  ASSERT_TRUE(WaitFor([&] { return !SigTermPending(daemon); }));
  long long spent = CpuTime(daemon);
  EXPECT_TRUE(WaitFor([&] { return CpuTime(daemon) > spent + 50000000; }))
      << "not spinning";
  EXPECT_TRUE(Alive(daemon));
  EXPECT_EQ(LogTexts().size(), 1u);
  EXPECT_TRUE(std::filesystem::exists(pidFile));
  // The fixture ends it with SIGKILL, by pid.
}

class SigTermInStartUpTest : public DaemonTest,
                             public ::testing::WithParamInterface<int> {};

// SIGTERM may land while the start-up pass is inside syslog, malloc or a
// table update; the daemon must neither hang nor crash, and must end as
// always: children listed before the signal killed, later ones left running,
// the loop ended after the first reaped child.
TEST_P(SigTermInStartUpTest, EndsCleanlyWhateverTheInstant) {
  Install("Morvane.exe");
  Install("MorvaneHL7.exe");
  for (int i = 0; i < 200; ++i) Touch("i" + std::to_string(i) + ".INI");
  Start();
  // The first listener's start line comes after the first server entered its
  // table: from there on, the signal always has something to kill.
  ASSERT_TRUE(WaitFor([&] { return LogTexts().size() >= 3; }));
  std::this_thread::sleep_for(
      std::chrono::milliseconds(GetParam()));  // the instant, not a wait
  Signal(SIGTERM);
  ASSERT_EQ(WaitExit(), 0);
  EXPECT_FALSE(std::filesystem::exists(pidFile));

  std::vector<std::string> texts = LogTexts();
  auto firstStop =
      std::find_if(texts.begin(), texts.end(), [](const std::string& t) {
        return t.rfind("Stopping Server", 0) == 0 ||
               t.rfind("Stopping HL-7", 0) == 0;
      });
  ASSERT_NE(firstStop, texts.end());
  ASSERT_GE(texts.size(), 2u);
  EXPECT_NE(texts[texts.size() - 2].find(" killed by signal [9]\n"),
            std::string::npos);
  std::set<std::string> stopped;
  for (auto it = firstStop; it != texts.end(); ++it) {
    if (it->rfind("Stopping ", 0) == 0) stopped.insert(it->substr(9));
  }
  // A start line is logged before its child enters the table, so the child
  // logged last before the signal may or may not be listed.
  auto lastBefore = std::find_if(
      std::make_reverse_iterator(firstStop), texts.rend(),
      [](const std::string& t) { return t.rfind("Starting ", 0) == 0; });
  for (auto it = texts.begin() + 1; it != texts.end(); ++it) {
    if (it->rfind("Starting ", 0) != 0) continue;
    std::string child = it->substr(9);
    pid_t pid = std::stoi(child.substr(child.find(':') + 1));
    bool listed = it < firstStop &&
                  (it + 1 != lastBefore.base() || stopped.count(child) == 1);
    if (listed) {
      EXPECT_EQ(stopped.count(child), 1u) << "not stopped: " << child;
      EXPECT_TRUE(WaitFor([&] { return !Alive(pid); })) << child;
    } else {
      EXPECT_TRUE(Alive(pid)) << "started after the signal but gone: " << child;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Instants, SigTermInStartUpTest,
                         ::testing::Values(0, 1, 3, 10, 30, 60, 100, 130));
}  // namespace
