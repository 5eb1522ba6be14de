// CDaemon: instance discovery, launching, the supervision loop and shutdown.
#include "supervisor/CDaemon.h"

#include <dirent.h>
#include <signal.h>
#include <strings.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "support/CString.h"
#include "support/FastMutex.h"

const char kServerProgram[] = "Morvane.exe";
const char kListenerProgram[] = "MorvaneHL7.exe";

CDaemon* g_daemon = nullptr;
volatile bool g_running = true;
time_t g_lastRestart = 0;

namespace {
const char kLogIdentity[] = "MORVANE";
const char kInstanceExtension[] = ".INI";
const unsigned kInstanceExtensionLength = 4;
// A child that dies this many seconds or fewer after the last restart waits
// out the brake before it is replaced.
const time_t kBrakeWindowSeconds = 9;
const unsigned kBrakeSleepSeconds = 30;
const size_t kWorkingDirectoryBufferSize = 256;
// The wait status by its bits: the low seven hold the signal that killed the
// child, all set for a stopped child; the byte above holds the exit status or
// the stop signal.
const int kStatusSignalBits = 0x7f;
const int kStatusCodeShift = 8;

// The mask the process was started with, and the mask of the main flow.
sigset_t s_startMask;
sigset_t s_sigTerm;

// The daemon has one thread, so the process's mask is the main flow's mask.
// NOLINTNEXTLINE(concurrency-mt-unsafe): one thread
void AllowSigTerm() { sigprocmask(SIG_SETMASK, &s_startMask, nullptr); }
// NOLINTNEXTLINE(concurrency-mt-unsafe): one thread
void HoldSigTerm() { sigprocmask(SIG_BLOCK, &s_sigTerm, nullptr); }

// A SIGTERM that came in while it was held runs its handler here.
void TakePendingSigTerm() {
  AllowSigTerm();
  HoldSigTerm();
}

// Room for the working directory, "/" and the longer program name.
const size_t kProgramPathBufferSize =
    kWorkingDirectoryBufferSize + 1 + sizeof kListenerProgram;

// The program path is built anew for every launch, on the stack: a launch
// writes as few pages as it can, since each is copied again after the next
// fork. A working directory whose path does not fit its buffer is still the
// base directory, so the program is then reached relative to it: the right
// program still starts, and no path built from an unfilled buffer is ever
// executed.
void ProgramPath(const char* program, char (&path)[kProgramPathBufferSize]) {
  if (getcwd(path, kWorkingDirectoryBufferSize) == nullptr) {
    path[0] = '.';
    path[1] = '\0';
  }
  size_t length = strlen(path);
  path[length] = '/';
  memcpy(path + length + 1, program, strlen(program) + 1);
}

// Runs in the child between fork and exec. A failed exec is not reported and
// the child carries on in its caller's code as a second supervisor; it then
// holds SIGTERM back just as its parent does. Kept on purpose: no _exit.
void ExecChild(const char* path, const char* program, const char* name) {
  AllowSigTerm();
  execl(path, program, name, static_cast<char*>(nullptr));
  HoldSigTerm();
}

void RestartBrake() {
  if (time(nullptr) - g_lastRestart <= kBrakeWindowSeconds) {
    // Kept on purpose: SIGTERM cuts the sleep short, and the replacement
    // decided on before it is started all the same.
    AllowSigTerm();
    // NOLINTNEXTLINE(concurrency-mt-unsafe): one thread
    sleep(kBrakeSleepSeconds);
    HoldSigTerm();
  }
  g_lastRestart = time(nullptr);
}
}  // namespace

CDaemon::CDaemon() {
  openlog(kLogIdentity, LOG_PID | LOG_CONS | LOG_NDELAY, LOG_DAEMON);
  syslog(LOG_DAEMON | LOG_NOTICE, "Starting daemon [%d]...\n", getpid());

  // An unreadable base directory is not reported: the daemon has no instances.
  DIR* directory = opendir("./");
  if (directory != nullptr) {
    // cppcheck-suppress readdirCalled ; one thread; readdir_r is deprecated
    // NOLINTNEXTLINE(concurrency-mt-unsafe): one thread reads this stream
    while (const dirent* entry = readdir(directory)) {
      if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) {
        continue;
      }
      // Kept on purpose: the entry's type is not looked at (a directory
      // named X.ini is an instance too), nor are duplicates. For names shorter
      // than the extension, the unsigned count wraps and Left gives the whole
      // name, which never matches.
      CString fileName(entry->d_name);
      CString base =
          fileName.Left(fileName.GetLength() - kInstanceExtensionLength);
      CString extension = fileName.Right(kInstanceExtensionLength);
      if (strcasecmp(extension.GetString(), kInstanceExtension) == 0) {
        m_instances.emplace_back(base.GetString());
      }
    }
    closedir(directory);
  }

  if (g_daemon == nullptr) g_daemon = this;
}

CDaemon::~CDaemon() {
  syslog(LOG_DAEMON | LOG_NOTICE, "Stopping daemon [%d]...\n", getpid());
  closelog();
}

CDaemon* CDaemon::Instance() {
  // The constructor registers the object too; it is never freed.
  if (g_daemon == nullptr) g_daemon = new CDaemon();
  return g_daemon;
}

void CDaemon::DeferSigTerm() {
  sigemptyset(&s_sigTerm);
  sigaddset(&s_sigTerm, SIGTERM);
  // NOLINTNEXTLINE(concurrency-mt-unsafe): one thread
  sigprocmask(SIG_BLOCK, &s_sigTerm, &s_startMask);
}

void CDaemon::StartServer(const char* name, bool withListener) {
  char path[kProgramPathBufferSize];
  ProgramPath(kServerProgram, path);
  pid_t pid = fork();
  if (pid == 0) {
    ExecChild(path, kServerProgram, name);
    return;
  }
  // Kept on purpose: a failed fork is logged and recorded under -1 like any
  // other pid, though StopAll will then kill(-1).
  syslog(LOG_DAEMON | LOG_NOTICE, "Starting Server %s:%d...\n", name, pid);
  // A SIGTERM that came since the last table update, up to this log line,
  // must not see this child yet, as if it had been handled at once. This is
  // the one safe point of a launch.
  TakePendingSigTerm();
  g_processLock.Lock();
  m_servers[pid] = name;
  g_processLock.Unlock();
  if (withListener) StartHL7Listener(name);
}

void CDaemon::StartHL7Listener(const char* name) {
  char path[kProgramPathBufferSize];
  ProgramPath(kListenerProgram, path);
  // Without the listener program the instance simply runs its server alone.
  if (access(path, X_OK) != 0) return;
  pid_t pid = fork();
  if (pid == 0) {
    ExecChild(path, kListenerProgram, name);
    return;
  }
  syslog(LOG_DAEMON | LOG_NOTICE, "Starting HL-7 Listener %s:%d...\n", name,
         pid);
  TakePendingSigTerm();
  g_processLock.Lock();
  m_listeners[pid] = name;
  g_processLock.Unlock();
}

bool CDaemon::Run() {
  // Start-up launches are not restarts: no brake, no stamp. Kept on purpose:
  // the pass does not look at g_running, so after a SIGTERM it still starts
  // every instance left, and those children outlive the daemon.
  for (const std::string& name : m_instances) StartServer(name.c_str(), true);

  for (;;) {
    int status = 0;
    AllowSigTerm();
    pid_t pid = wait3(&status, WUNTRACED, nullptr);
    int waitError = errno;
    HoldSigTerm();
    if (pid <= 0) {
      // 0 never comes without WNOHANG. Errors other than EINTR are retried
      // at once. Kept on purpose: with no children at all, ECHILD makes this
      // spin, and SIGTERM does not end it.
      if (waitError == EINTR) break;
      continue;
    }

    const char* text;
    int code;
    if ((status & kStatusSignalBits) == 0) {
      text = "exited with status";
      code = status >> kStatusCodeShift;
    } else if ((status & kStatusSignalBits) == kStatusSignalBits) {
      // Kept on purpose: a stopped child counts as gone, and is replaced and
      // forgotten.
      text = "stopped by signal";
      code = status >> kStatusCodeShift;
    } else {
      text = "killed by signal";
      code = status & kStatusSignalBits;
    }

    g_processLock.Lock();
    auto server = m_servers.find(pid);
    auto listener = m_listeners.find(pid);
    if (server != m_servers.end()) {
      std::string name = server->second;
      m_servers.erase(server);
      g_processLock.Unlock();
      syslog(LOG_DAEMON | LOG_WARNING, "Server %s:%d %s [%d]\n", name.c_str(),
             pid, text, code);
      TakePendingSigTerm();
      if (g_running) {
        RestartBrake();
        StartServer(name.c_str(), false);
      }
    } else if (listener != m_listeners.end()) {
      std::string name = listener->second;
      m_listeners.erase(listener);
      g_processLock.Unlock();
      syslog(LOG_DAEMON | LOG_WARNING, "HL-7 Listener %s:%d %s [%d]\n",
             name.c_str(), pid, text, code);
      TakePendingSigTerm();
      if (g_running) {
        RestartBrake();
        StartHL7Listener(name.c_str());
      }
    } else {
      syslog(LOG_DAEMON | LOG_WARNING, "Unknown child process [%d] %s [%d]\n",
             pid, text, code);
    }
    // Kept on purpose: for a known child the lock was already released
    // above; this second unlock fails silently and leaves the lock free.
    g_processLock.Unlock();
    TakePendingSigTerm();
    if (!g_running) break;
  }
  return true;
}

void CDaemon::StopAll() {
  g_processLock.Lock();
  g_running = false;
  // Kept on purpose: every pid is signalled as listed, -1 from a failed fork
  // included, which reaches every process the daemon may signal.
  for (const auto& entry : m_servers) {
    syslog(LOG_DAEMON | LOG_NOTICE, "Stopping Server %s:%d...\n",
           entry.second.c_str(), entry.first);
    kill(entry.first, SIGKILL);
  }
  for (const auto& entry : m_listeners) {
    syslog(LOG_DAEMON | LOG_NOTICE, "Stopping HL-7 Listener %s:%d...\n",
           entry.second.c_str(), entry.first);
    kill(entry.first, SIGKILL);
  }
  g_processLock.Unlock();
}

void OnSigTerm(int /*signalNumber*/) {
  int savedErrno = errno;  // the interrupted code may be about to read it
  CDaemon* daemon = CDaemon::Instance();
  if (daemon != nullptr) daemon->StopAll();
  errno = savedErrno;
}
