// Soak run: many child deaths under a clock the brake's sleep moves on by
// itself. Skipped unless MORVANED_SOAK_DEATHS is set (scripts/soak).
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>

#include "tests/DaemonTest.h"

namespace {
long ResidentKiB(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

// The daemon's open descriptors, leaving out the test clock's files, which
// the preloaded time() and sleep() open and close as they go.
long OpenDescriptors(pid_t pid) {
  long count = 0;
  std::string directory = "/proc/" + std::to_string(pid) + "/fd";
  for (const auto& fd : std::filesystem::directory_iterator(directory)) {
    std::error_code error;
    std::string target =
        std::filesystem::read_symlink(fd.path(), error).string();
    if (target.find("/clock") == std::string::npos) ++count;
  }
  return count;
}

TEST_F(DaemonTest, SoakEveryDeathIsLoggedAndReplacedOnce) {
  const char* target = getenv("MORVANED_SOAK_DEATHS");
  if (target == nullptr)
    GTEST_SKIP() << "set MORVANED_SOAK_DEATHS (scripts/soak)";
  const size_t deaths = std::stoul(target);
  std::filesystem::copy_file("/bin/true",
                             base + "/Morvane.exe");  // dies at once
  for (const char* name : {"a.INI", "b.INI", "c.INI", "d.INI"}) Touch(name);
  setenv("MORVANED_TEST_CLOCK_AUTO", "1", 1);
  auto started = std::chrono::steady_clock::now();
  Start();
  unsetenv("MORVANED_TEST_CLOCK_AUTO");

  // Each death logs two lines, its exit and its replacement's start.
  const size_t warm = 1 + 4 + 2 * std::min<size_t>(1000, deaths / 10);
  ASSERT_TRUE(WaitFor([&] { return LogSize() >= warm; }, 60));
  long rssBefore = ResidentKiB(daemon), fdsBefore = OpenDescriptors(daemon);
  ASSERT_TRUE(WaitFor([&] { return LogSize() >= 1 + 4 + 2 * deaths; }, 3600));
  long rssAfter = ResidentKiB(daemon), fdsAfter = OpenDescriptors(daemon);
  double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started)
          .count();
  Signal(SIGTERM);
  ASSERT_EQ(WaitExit(), 0);

  // Every exit names a child whose start was logged and that had not exited
  // before, and is followed by exactly one start for its instance.
  std::map<std::string, std::string> running;  // instance -> "NAME:PID"
  std::set<std::string> seen;
  size_t exits = 0;
  bool awaitingReplacement = false;
  std::string pendingInstance;
  for (const std::string& text : LogTexts()) {
    if (text.rfind("Starting Server ", 0) == 0) {
      std::string child = text.substr(16, text.size() - 20);
      std::string instance = child.substr(0, child.find(':'));
      ASSERT_TRUE(seen.insert(child).second) << "started twice: " << text;
      ASSERT_TRUE(running.count(instance) == 0)
          << "second server for " << instance;
      if (awaitingReplacement) {
        ASSERT_EQ(instance, pendingInstance) << text;
      }
      awaitingReplacement = false;
      running[instance] = child;
    } else if (text.rfind("Server ", 0) == 0) {
      std::string child = text.substr(7, text.find(' ', 7) - 7);
      std::string instance = child.substr(0, child.find(':'));
      ASSERT_FALSE(awaitingReplacement)
          << "death without replacement before " << text;
      ASSERT_EQ(running[instance], child)
          << "exit of a child not running: " << text;
      ASSERT_EQ(text.substr(7 + child.size()), " exited with status [0]\n");
      running.erase(instance);
      awaitingReplacement = true;
      pendingInstance = instance;
      ++exits;
    }
  }
  EXPECT_GE(exits, deaths);
  EXPECT_EQ(fdsAfter, fdsBefore);
  EXPECT_LE(rssAfter, rssBefore + 64) << "resident memory grew";
  printf(
      "soak: %zu deaths in %.1f s (%.0f a second); daemon RSS %ld -> %ld KiB, "
      "open descriptors %ld -> %ld\n",
      exits, seconds, exits / seconds, rssBefore, rssAfter, fdsBefore,
      fdsAfter);
}
}  // namespace
