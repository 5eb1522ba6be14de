// Process tests: command line, exit statuses, PID file, discovery, launching.
#include <dirent.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "tests/DaemonTest.h"

namespace {
struct FailedStart {
  const char* name;
  std::vector<std::string> args;
  mode_t serverMode;  // 0: Morvane.exe absent
  int status;         // as a shell sees it
  int priority;
  std::string text;   // "{argv0}" and "{pidfile}" stand for their values
  bool runElsewhere;  // started outside the base directory
  std::string echo;   // on standard output
};

void PrintTo(const FailedStart& c, std::ostream* out) { *out << c.name; }

class FailedStartTest : public DaemonTest,
                        public ::testing::WithParamInterface<FailedStart> {};

TEST_P(FailedStartTest, LogsOneLineBetweenStartAndStopAndExits) {
  const FailedStart& c = GetParam();
  if (c.serverMode != 0) Install("Morvane.exe", c.serverMode);
  Touch("alpha.INI");
  std::string elsewhere = base + "/../elsewhere";
  std::filesystem::create_directory(elsewhere);
  Start(c.args, c.runElsewhere ? elsewhere : "");
  EXPECT_EQ(WaitExit(), c.status);

  std::vector<LogLine> log = Log();
  ASSERT_EQ(log.size(), 3u);
  EXPECT_EQ(log[0].priority, kNotice);
  EXPECT_EQ(log[0].text, "Starting daemon [" + Pid(daemon) + "]...\n");
  EXPECT_EQ(log[1].priority, c.priority);
  EXPECT_EQ(log[1].text, Expand(c.text));
  EXPECT_EQ(log[2].priority, kNotice);
  EXPECT_EQ(log[2].text, "Stopping daemon [" + Pid(daemon) + "]...\n");
  EXPECT_EQ(Read(stdoutPath), Expand(c.echo));
  EXPECT_TRUE(Children().empty());
  EXPECT_FALSE(std::filesystem::exists(pidFile));
}

const std::string kUsage = "Usage: {argv0} --pidfile=FILE\n";
const std::string kNoServer =
    "Morvane.exe does not exist or not an executable file\n";

INSTANTIATE_TEST_SUITE_P(
    ExitStatus, FailedStartTest,
    ::testing::Values(
        FailedStart{
            "NoArguments", {}, 0755, 1, DaemonTest::kDebug, kUsage, false, ""},
        FailedStart{"EmptyPidFile",
                    {"--pidfile="},
                    0755,
                    1,
                    DaemonTest::kDebug,
                    kUsage,
                    false,
                    ""},
        FailedStart{"BaseDirSwallowsPidFile",
                    {"--basedir={base}", "--pidfile={pidfile}"},
                    0755,
                    1,
                    DaemonTest::kDebug,
                    kUsage,
                    true,
                    "non-option ARGV elements: --pidfile={pidfile} \n"},
        FailedStart{"ServerMissing",
                    {"--pidfile={pidfile}"},
                    0,
                    255,
                    DaemonTest::kErr,
                    kNoServer,
                    false,
                    ""},
        FailedStart{"ServerNotExecutable",
                    {"--pidfile={pidfile}"},
                    0644,
                    255,
                    DaemonTest::kErr,
                    kNoServer,
                    false,
                    ""},
        FailedStart{"ServerCheckedBeforeUsage",
                    {},
                    0,
                    255,
                    DaemonTest::kErr,
                    kNoServer,
                    false,
                    ""},
        FailedStart{"PidFileDirectoryMissing",
                    {"--pidfile={pidfile}/x.pid"},
                    0755,
                    253,
                    DaemonTest::kErr,
                    "Cannot open PIDFILE: {pidfile}/x.pid\n",
                    false,
                    ""}),
    [](const ::testing::TestParamInfo<FailedStart>& info) {
      return info.param.name;
    });

TEST_F(DaemonTest, RunsWithPidFileEchoesSurplusAndRemovesPidFileOnSigTerm) {
  Install("Morvane.exe");
  Touch("alpha.INI");
  Start({"-p", "{pidfile}", "extra"});
  WaitForChild("Morvane.exe", "alpha");
  EXPECT_EQ(Read(pidFile), Pid(daemon) + "\n");
  EXPECT_EQ(Read(stdoutPath), "non-option ARGV elements: extra \n");
  WaitUntilWaiting();
  Signal(SIGTERM);
  EXPECT_EQ(WaitExit(), 0);
  EXPECT_FALSE(std::filesystem::exists(pidFile));
}

TEST_F(DaemonTest, DiscoveryTakesIniNamesOfAnyCaseInListingOrder) {
  Install("Morvane.exe");  // no listener program: servers only
  const std::map<std::string, std::string> instanceOf = {
      {"alpha.INI", "alpha"},
      {"Beta.ini", "Beta"},
      {"gamma.Ini", "gamma"},
      {"a.INI", "a"},
      {"a.ini", "a"},
      {".ini", ""},
      {"with space.ini", "with space"},
      {"archive.ini", "archive"}};
  for (const char* name :
       {"alpha.INI", "Beta.ini", "gamma.Ini", "notes.txt", "x.INI.bak", "INI",
        "a.INI", "a.ini", ".ini", "with space.ini"}) {
    Touch(name);
  }
  std::filesystem::create_directory(base + "/archive.ini");

  std::vector<std::string> expected;  // in the order the directory lists them
  DIR* directory = opendir(base.c_str());
  while (dirent* entry = readdir(directory)) {
    auto it = instanceOf.find(entry->d_name);
    if (it != instanceOf.end()) expected.push_back(it->second);
  }
  closedir(directory);

  Start();
  ASSERT_TRUE(WaitFor([&] {
    return Children().size() == expected.size() &&
           LogTexts().size() == 1 + expected.size();
  }));
  std::vector<Child> children = Children();
  std::vector<std::string> texts = LogTexts();
  for (size_t i = 0; i < expected.size(); ++i) {
    const std::string& name = expected[i];
    // The log line's pid is the started child's pid.
    auto child =
        std::find_if(children.begin(), children.end(), [&](const Child& c) {
          return texts[1 + i] ==
                 "Starting Server " + name + ":" + Pid(c.pid) + "...\n";
        });
    ASSERT_NE(child, children.end()) << texts[1 + i];
    EXPECT_EQ(child->instance, name);
    EXPECT_EQ(child->argc, 2);
    EXPECT_EQ(child->program, "Morvane.exe");
    EXPECT_EQ(child->execPath, base + "/Morvane.exe");
  }
}

TEST_F(DaemonTest, EachInstanceStartsServerThenListener) {
  Install("Morvane.exe");
  Install("MorvaneHL7.exe");
  Touch("one.INI");
  Touch("two.INI");
  Start();
  ASSERT_TRUE(WaitFor([&] { return Children().size() == 4; }));
  std::vector<Child> c = Children();
  // Pids in a fresh pid namespace rise with each fork: pid order is launch
  // order.
  std::sort(c.begin(), c.end(),
            [](const Child& a, const Child& b) { return a.pid < b.pid; });
  std::vector<std::string> expected = {"Starting daemon [" + Pid(daemon) +
                                       "]...\n"};
  for (const Child& child : c) {
    bool server = child.program == "Morvane.exe";
    expected.push_back(
        std::string(server ? "Starting Server " : "Starting HL-7 Listener ") +
        child.instance + ":" + Pid(child.pid) + "...\n");
    EXPECT_EQ(child.execPath, base + "/" + child.program);
    EXPECT_EQ(child.argc, 2);
  }
  EXPECT_EQ(c[0].program, "Morvane.exe");
  EXPECT_EQ(c[1].program, "MorvaneHL7.exe");
  EXPECT_EQ(c[1].instance, c[0].instance);
  EXPECT_EQ(c[3].instance, c[2].instance);
  EXPECT_TRUE(WaitFor([&] { return LogTexts().size() == expected.size(); }));
  EXPECT_EQ(LogTexts(), expected);
  for (const LogLine& line : Log()) EXPECT_EQ(line.priority, kNotice);
}

TEST_F(DaemonTest, BaseDirectoryPathBeyond256BytesStillStartsTheRightPrograms) {
  std::string deep = base;
  while (deep.size() <= 300) deep += "/a-rather-long-directory-name";
  std::filesystem::create_directories(deep);
  base = deep;
  Install("Morvane.exe");
  Install("MorvaneHL7.exe");
  Touch("deep.INI");
  Start();
  Child server = WaitForChild("Morvane.exe", "deep");
  Child listener = WaitForChild("MorvaneHL7.exe", "deep");
  EXPECT_EQ(server.execPath, "./Morvane.exe");
  EXPECT_EQ(listener.execPath, "./MorvaneHL7.exe");
  EXPECT_TRUE(WaitForText("Starting HL-7 Listener deep:" + Pid(listener.pid) +
                          "...\n"));
}
}  // namespace
