// Process tests: exit decoding, replacement, unknown children, restart brake.
#include <signal.h>

#include <filesystem>

#include "tests/DaemonTest.h"

namespace {
struct Death {
  const char* name;
  const char* program;  // the child that goes
  const char* command;  // what it is told to do
  std::string description;
};

void PrintTo(const Death& d, std::ostream* out) { *out << d.name; }

class DeathTest : public DaemonTest,
                  public ::testing::WithParamInterface<Death> {};

TEST_P(DeathTest, IsLoggedDecodedAndReplacedAloneAtOnce) {
  const Death& d = GetParam();
  Install("Morvane.exe");
  Install("MorvaneHL7.exe");
  Touch("alpha.INI");
  Start();
  Child server = WaitForChild("Morvane.exe", "alpha");
  Child listener = WaitForChild("MorvaneHL7.exe", "alpha");
  bool isServer = std::string(d.program) == "Morvane.exe";
  Child gone = isServer ? server : listener;
  Child other = isServer ? listener : server;
  std::string label = isServer ? "Server" : "HL-7 Listener";

  Tell(gone.pid, d.command);
  Child replacement = WaitForChild(d.program, "alpha", 1);
  std::string exitLine =
      label + " alpha:" + Pid(gone.pid) + " " + d.description + "\n";
  std::string startLine =
      "Starting " + label + " alpha:" + Pid(replacement.pid) + "...\n";
  ASSERT_TRUE(WaitForText(startLine));
  std::vector<LogLine> log = Log();
  ASSERT_EQ(log.size(), 5u);
  EXPECT_EQ(log[3].text, exitLine);
  EXPECT_EQ(log[3].priority, kWarning);
  EXPECT_EQ(log[4].priority, kNotice);
  EXPECT_TRUE(Sleeps().empty()) << "the first restart must not be braked";
  EXPECT_TRUE(Alive(other.pid));
  EXPECT_TRUE(Alive(replacement.pid));
  EXPECT_EQ(Children().size(), 3u);
}

INSTANTIATE_TEST_SUITE_P(
    Decoding, DeathTest,
    ::testing::Values(
        Death{"ServerExit3", "Morvane.exe", "exit 3", "exited with status [3]"},
        Death{"ServerExit0", "Morvane.exe", "exit 0", "exited with status [0]"},
        Death{"ListenerExit255", "MorvaneHL7.exe", "exit 255",
              "exited with status [255]"},
        Death{"ListenerKill", "MorvaneHL7.exe", "signal 9",
              "killed by signal [9]"},
        Death{"ServerSegv", "Morvane.exe", "signal 11",
              "killed by signal [11]"},
        Death{"ServerStop", "Morvane.exe", "signal 19",
              "stopped by signal [19]"},
        Death{"ListenerStop", "MorvaneHL7.exe", "signal 19",
              "stopped by signal [19]"}),
    [](const ::testing::TestParamInfo<Death>& info) {
      return info.param.name;
    });

TEST_F(DaemonTest, StoppedChildLingersAndLaterEndsAsUnknown) {
  Install("Morvane.exe");
  Touch("alpha.INI");
  Start();
  Child first = WaitForChild("Morvane.exe", "alpha");
  Tell(first.pid, "signal 19");
  Child second = WaitForChild("Morvane.exe", "alpha", 1);
  EXPECT_TRUE(Alive(first.pid));  // stopped, not gone
  kill(first.pid, SIGCONT);
  Tell(first.pid, "exit 4");
  ASSERT_TRUE(WaitForText("Unknown child process [" + Pid(first.pid) +
                          "] exited with status [4]\n"));
  Signal(SIGTERM);
  EXPECT_EQ(WaitExit(), 0);
  EXPECT_EQ(Children().size(), 2u) << "an unknown child must not be replaced";
  std::vector<LogLine> log = Log();
  ASSERT_GE(log.size(), 5u);
  EXPECT_EQ(log[4].priority, kWarning);
}

struct Brake {
  const char* name;
  time_t secondDeathAfter;  // seconds after the first restart
  bool sleeps;
};

void PrintTo(const Brake& b, std::ostream* out) { *out << b.name; }

class BrakeTest : public DaemonTest,
                  public ::testing::WithParamInterface<Brake> {};

TEST_P(BrakeTest, SecondRestartWaits30SecondsWhenItComesTooSoon) {
  const Brake& b = GetParam();
  Install("Morvane.exe");
  Touch("one.INI");
  Touch("two.INI");
  Start();
  Child one = WaitForChild("Morvane.exe", "one");
  Child two = WaitForChild("Morvane.exe", "two");

  Tell(one.pid, "exit 1");
  WaitForChild("Morvane.exe", "one", 1);
  EXPECT_TRUE(Sleeps().empty());

  SetClock(kClockStart + b.secondDeathAfter);
  Tell(two.pid, "exit 1");
  if (b.sleeps) {
    ASSERT_TRUE(WaitFor([&] { return !Sleeps().empty(); }));
    EXPECT_EQ(Sleeps(), std::vector<std::string>{"sleep 30"});
    // The daemon is inside sleep(): nothing can have been started.
    EXPECT_EQ(Children().size(), 3u);
    SetClock(kClockStart + b.secondDeathAfter + 30);
  }
  WaitForChild("Morvane.exe", "two", 1);
  std::vector<std::string> expected;
  if (b.sleeps) expected = {"sleep 30", "woke"};
  EXPECT_EQ(Sleeps(), expected);
}

INSTANTIATE_TEST_SUITE_P(Restart, BrakeTest,
                         ::testing::Values(Brake{"NineSecondsLater", 9, true},
                                           Brake{"TenSecondsLater", 10, false},
                                           Brake{"SameSecond", 0, true},
                                           Brake{"ClockSetBack", -3600, true}),
                         [](const ::testing::TestParamInfo<Brake>& info) {
                           return info.param.name;
                         });

TEST_F(DaemonTest, BrakeStampsTheTimeAfterItsSleep) {
  Install("Morvane.exe");
  Touch("one.INI");
  Start();
  Tell(WaitForChild("Morvane.exe", "one").pid, "exit 1");
  Tell(WaitForChild("Morvane.exe", "one", 1).pid, "exit 1");
  ASSERT_TRUE(WaitFor([&] { return Sleeps().size() == 1; }));
  SetClock(kClockStart + 40);  // sleep ends; the restart is stamped at +40
  // 15 s after the start of the sleep but only 5 s after its end: braked.
  SetClock(kClockStart + 45);
  Tell(WaitForChild("Morvane.exe", "one", 2).pid, "exit 1");
  ASSERT_TRUE(WaitFor([&] { return Sleeps().size() == 3; }));
  EXPECT_EQ(Sleeps()[2], "sleep 30");
}
}  // namespace
