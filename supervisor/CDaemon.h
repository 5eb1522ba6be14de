// CDaemon: the supervisor. It finds the instances in its base directory (the
// working directory), starts a server and, where installed, an HL-7 listener
// for each, replaces every child that ends or stops, and on SIGTERM kills all
// children it knows of.
//
// One thread. SIGTERM is the only asynchronous entry: its handler reaches the
// object through g_daemon, logs and walks the tables, so it must never run
// while the main flow is inside syslog, malloc or a table update. Right after
// the handler is installed, SIGTERM is held (DeferSigTerm) and let in only
// where the main flow holds no lock and is inside no other library call:
// during the wait for a child, during the brake's sleep, just after each
// start line (before that child is listed), just after each exit line and at
// the end of each turn of the loop. A SIGTERM is handled at the next of these
// points. It stops the children listed by then, so a child whose start line
// was logged just before the stop lines is not stopped and outlives the
// daemon. A SIGTERM that comes once the loop has ended (its children have
// been stopped), or on the way out after the PID file could not be opened
// (none were started), stays held until the process exits and is ignored.
// Each child gets back the signal mask the daemon started with before its
// exec.
#ifndef SUPERVISOR_CDAEMON_H_
#define SUPERVISOR_CDAEMON_H_

#include <sys/types.h>

#include <ctime>
#include <map>
#include <string>
#include <vector>

extern const char kServerProgram[];    // "Morvane.exe"
extern const char kListenerProgram[];  // "MorvaneHL7.exe"

class CDaemon {
 public:
  // Opens the system log, logs the start and lists the instance files.
  CDaemon();
  // Logs the stop and closes the log; children are left running.
  ~CDaemon();
  CDaemon(const CDaemon&) = delete;
  CDaemon& operator=(const CDaemon&) = delete;

  // The registered object, created on the heap if there is none yet.
  static CDaemon* Instance();
  // Blocks SIGTERM from now on except at the safe points, and remembers the
  // signal mask the process had, which every child gets back before exec.
  static void DeferSigTerm();

  // Starts every instance, then supervises until shutdown. Always true.
  bool Run();
  void StartServer(const char* name, bool withListener);
  void StartHL7Listener(const char* name);
  // Switches supervision off and SIGKILLs every child in the tables.
  void StopAll();

 private:
  // Instance names in directory listing order; fixed after construction.
  std::vector<std::string> m_instances;
  // Children started and not yet reaped, by pid. A failed fork leaves an
  // entry under -1. Guarded by g_processLock.
  std::map<pid_t, std::string> m_servers;
  std::map<pid_t, std::string> m_listeners;
};

// The SIGTERM handler.
void OnSigTerm(int signalNumber);

// The object the SIGTERM handler works on; set once, never cleared.
extern CDaemon* g_daemon;
// Supervision is active; cleared once, by StopAll, under g_processLock.
extern volatile bool g_running;
// When any child was last restarted; 0 until the first restart.
extern time_t g_lastRestart;

#endif  // SUPERVISOR_CDAEMON_H_
