// DaemonTest: starting, watching and ending the daemon under test.
#include "tests/DaemonTest.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;

namespace {
std::string Unhex(const std::string& hex) {
  std::string bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}
}  // namespace

DaemonTest::DaemonTest() {
  char root[] = "/tmp/morvaned-test.XXXXXX";
  m_root = fs::canonical(mkdtemp(root));
  base = m_root + "/base";
  fs::create_directory(base);
  pidFile = m_root + "/morvaned.pid";
  stdoutPath = m_root + "/stdout";
  m_clock = m_root + "/clock";
  SetClock(kClockStart);
}

DaemonTest::~DaemonTest() {
  if (daemon > 0 && exitStatus < 0) {
    kill(daemon, SIGKILL);
    waitpid(daemon, nullptr, 0);
  }
  for (const Child& child : Children()) kill(child.pid, SIGKILL);
  // This process is pid 1 here: orphaned children are reaped by it.
  while (waitpid(-1, nullptr, WNOHANG) > 0) {
  }
  fs::remove_all(m_root);
}

void DaemonTest::Install(const char* program, mode_t mode) {
  std::string path = base + "/" + program;
  fs::copy_file(FAKE_CHILD_PATH, path, fs::copy_options::overwrite_existing);
  chmod(path.c_str(), mode);
}

void DaemonTest::Touch(const std::string& name) {
  std::ofstream(base + "/" + name).flush();
}

void DaemonTest::Start(std::vector<std::string> args, std::string directory) {
  std::vector<std::string> words = {Binary()};
  for (const std::string& arg : args) {
    words.push_back(Expand(arg));
  }
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  if (directory.empty()) directory = base;
  setenv("MORVANED_TEST_CLOCK", m_clock.c_str(), 1);
  setenv("LD_PRELOAD", PRELOAD_PATH, 1);
  int out =
      open(stdoutPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  daemon = fork();
  if (daemon == 0) {
    dup2(out, STDOUT_FILENO);
    if (user != 0 && (setgid(user) != 0 || setuid(user) != 0)) _exit(126);
    if (chdir(directory.c_str()) == 0) execv(argv[0], argv.data());
    _exit(127);
  }
  close(out);
  unsetenv("LD_PRELOAD");
  ASSERT_GT(daemon, 0);
}

int DaemonTest::WaitExit() {
  int status = 0;
  if (!WaitFor([&] { return waitpid(daemon, &status, WNOHANG) == daemon; })) {
    ADD_FAILURE() << "morvaned did not exit";
    return -1;
  }
  EXPECT_TRUE(WIFEXITED(status)) << "status " << status;
  exitStatus = WEXITSTATUS(status);
  // Every exit logs the stop line last; once it is read, the log is complete.
  EXPECT_TRUE(
      WaitForText("Stopping daemon [" + std::to_string(daemon) + "]...\n"));
  return exitStatus;
}

void DaemonTest::Signal(int signal) { kill(daemon, signal); }

void DaemonTest::WaitUntilWaiting() {
  std::string wait4 = std::to_string(SYS_wait4) + " ";
  ASSERT_TRUE(WaitFor([&] {
    return Read("/proc/" + Pid(daemon) + "/syscall").rfind(wait4, 0) == 0;
  }));
}

bool DaemonTest::WaitFor(const std::function<bool()>& done, int seconds) {
  auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

std::vector<LogLine> DaemonTest::Log() const {
  std::vector<LogLine> own;
  for (const LogLine& line : m_syslog.Lines()) {
    if (line.ident == "MORVANE" && line.pid == daemon) own.push_back(line);
  }
  return own;
}

std::vector<std::string> DaemonTest::LogTexts() const {
  std::vector<std::string> texts;
  for (const LogLine& line : Log()) texts.push_back(line.text);
  return texts;
}

bool DaemonTest::WaitForText(const std::string& text) {
  auto has = [&] {
    for (const std::string& t : LogTexts()) {
      if (t == text) return true;
    }
    return false;
  };
  return WaitFor(has);
}

std::vector<Child> DaemonTest::Children() const {
  std::vector<Child> children;
  for (const std::string& line : Lines(Read(base + "/children.log"))) {
    std::istringstream in(line);
    Child child;
    std::string hex;
    in >> child.pid >> child.argc >> child.program >> hex >> child.execPath;
    // An empty argv[1] leaves no hex digits: the path was read as them.
    if (child.execPath.empty()) std::swap(hex, child.execPath);
    child.instance = Unhex(hex);
    children.push_back(child);
  }
  return children;
}

Child DaemonTest::WaitForChild(const char* program, const std::string& instance,
                               size_t index) {
  Child found = {-1, 0, "", "", ""};
  WaitFor([&] {
    size_t seen = 0;
    for (const Child& child : Children()) {
      if (child.program == program && child.instance == instance &&
          seen++ == index) {
        found = child;
        return true;
      }
    }
    return false;
  });
  EXPECT_GT(found.pid, 0) << program << " " << instance << " #" << index
                          << " did not start";
  return found;
}

void DaemonTest::Tell(pid_t child, const std::string& command) {
  std::ofstream(base + "/cmd." + std::to_string(child)) << command << "\n";
  kill(child, SIGUSR1);
}

std::string DaemonTest::Expand(std::string text) const {
  for (const auto& [key, value] :
       {std::pair<std::string, std::string>{"{base}", base},
        {"{pidfile}", pidFile},
        {"{argv0}", Binary()}}) {
    for (size_t at = text.find(key); at != std::string::npos;
         at = text.find(key, at)) {
      text.replace(at, key.size(), value);
    }
  }
  return text;
}

std::string DaemonTest::Binary() {
  const char* binary = getenv("MORVANED_BINARY");
  return binary != nullptr ? binary : MORVANED_PATH;
}

bool DaemonTest::Alive(pid_t pid) {
  // A zombie has ended: only its parent's wait is missing.
  std::string stat = Read("/proc/" + std::to_string(pid) + "/stat");
  size_t end = stat.rfind(')');
  return end != std::string::npos && end + 2 < stat.size() &&
         stat[end + 2] != 'Z';
}

long long DaemonTest::CpuTime(pid_t pid) {
  long long ns = 0;
  std::ifstream("/proc/" + Pid(pid) + "/schedstat") >> ns;
  return ns;
}

std::string DaemonTest::Read(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void DaemonTest::SetClock(time_t seconds) {
  // Renamed into place so the daemon never reads a half-written number.
  std::ofstream(m_clock + ".new") << seconds << "\n";
  fs::rename(m_clock + ".new", m_clock);
}

std::vector<std::string> DaemonTest::Sleeps() const {
  return Lines(Read(m_clock + ".sleeps"));
}
