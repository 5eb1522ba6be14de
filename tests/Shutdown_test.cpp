// Process tests: SIGTERM, in the wait, in the restart brake, with no children.
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
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

// Seeds for the SIGTERM stress runs: 8 in the default suite, any number
// with MORVANED_STRESS_RUNS set.
int StressRuns() {
  const char* runs = getenv("MORVANED_STRESS_RUNS");
  return runs != nullptr ? atoi(runs) : 8;
}

class SigTermStressTest : public DaemonTest,
                          public ::testing::WithParamInterface<int> {};

// SIGTERM may land while the daemon is inside syslog, malloc or a table
// update, during the start-up pass (even seeds) or while it replaces a child
// (odd seeds). Whatever the instant, the daemon must end as always: children
// listed before the signal killed, later ones left running, the loop ended
// after the next reaped child, the PID file gone, exit 0.
TEST_P(SigTermStressTest, EndsCleanlyWhateverTheInstant) {
  std::mt19937 random(GetParam());
  Install("Morvane.exe");
  Install("MorvaneHL7.exe");
  for (int i = 0; i < 200; ++i) Touch("i" + std::to_string(i) + ".INI");
  Start();
  if (GetParam() % 2 == 0) {
    // The first listener's start line comes after the first server entered
    // its table: from there on, the signal always has something to kill.
    ASSERT_TRUE(WaitFor([&] { return LogSize() >= 3; }));
    std::this_thread::sleep_for(std::chrono::microseconds(
        std::uniform_int_distribution<>(0, 150000)(random)));
  } else {
    WaitUntilWaiting();
    ASSERT_TRUE(WaitFor([&] { return Children().size() == 400; }));
    std::vector<Child> children = Children();
    kill(children[std::uniform_int_distribution<size_t>(0, 399)(random)].pid,
         SIGKILL);
    std::this_thread::sleep_for(std::chrono::microseconds(
        std::uniform_int_distribution<>(0, 2000)(random)));
  }
  Signal(SIGTERM);
  ASSERT_EQ(WaitExit(), 0) << "seed " << GetParam();
  EXPECT_FALSE(std::filesystem::exists(pidFile));

  std::vector<std::string> texts = LogTexts();
  auto isStop = [](const std::string& t) {
    return t.rfind("Stopping Server", 0) == 0 ||
           t.rfind("Stopping HL-7", 0) == 0;
  };
  auto isStart = [](const std::string& t) {
    return t.rfind("Starting ", 0) == 0;
  };
  auto isExit = [&](const std::string& t) {
    return !isStop(t) && !isStart(t) && t.find(" [") != std::string::npos &&
           t.rfind("Stopping daemon", 0) != 0;
  };
  auto firstStop = std::find_if(texts.begin(), texts.end(), isStop);
  ASSERT_NE(firstStop, texts.end()) << "seed " << GetParam();
  EXPECT_LE(std::count_if(firstStop, texts.end(), isExit), 1)
      << "seed " << GetParam();

  std::set<std::string> stopped, reaped;  // "NAME:PID"
  for (const std::string& t : texts) {
    if (isStop(t)) stopped.insert(t.substr(t.rfind(' ', t.find(':')) + 1));
    if (isExit(t)) reaped.insert(t.substr(0, t.find(' ', t.find(':'))));
  }
  // A start line is logged before its child enters the table, so the child
  // logged last before the signal may or may not be listed.
  auto lastBefore = std::find_if(std::make_reverse_iterator(firstStop),
                                 texts.rend(), isStart);
  for (auto it = texts.begin(); it != texts.end(); ++it) {
    if (!isStart(*it) || it->rfind("Starting daemon", 0) == 0) continue;
    std::string child = it->substr(it->rfind(' ', it->find(':')) + 1);
    child = child.substr(0, child.size() - 4);  // "..." and newline
    std::string label = it->substr(9, it->rfind(' ', it->find(':')) - 9);
    pid_t pid = std::stoi(child.substr(child.find(':') + 1));
    if (reaped.count(label + " " + child) == 1) continue;
    bool listed = stopped.count(child + "...\n") == 1;
    if (it < firstStop && (it + 1 != lastBefore.base() || listed)) {
      EXPECT_TRUE(listed) << "not stopped: " << *it << " seed " << GetParam();
    }
    if (listed) {
      EXPECT_TRUE(WaitFor([&] { return !Alive(pid); })) << *it;
    } else {
      EXPECT_TRUE(Alive(pid)) << "neither stopped nor reaped but gone: " << *it;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, SigTermStressTest,
                         ::testing::Range(0, StressRuns()));
}  // namespace
