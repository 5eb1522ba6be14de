// SyslogSink: the /dev/log socket of the test's private /dev. A thread keeps
// draining it (the kernel queues only a few datagrams before syslog(3) in the
// daemon would block) and parses each message.
#ifndef TESTS_SYSLOGSINK_H_
#define TESTS_SYSLOGSINK_H_

#include <sys/types.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct LogLine {
  int priority;       // facility | level
  std::string ident;  // "MORVANE"
  pid_t pid;
  std::string text;  // the message, trailing newline included
};

class SyslogSink {
 public:
  SyslogSink();
  ~SyslogSink();
  std::vector<LogLine> Lines() const;
  size_t Size() const;

 private:
  void Read();

  int m_socket;
  std::thread m_reader;
  mutable std::mutex m_mutex;
  std::vector<LogLine> m_lines;  // guarded by m_mutex
};

#endif  // TESTS_SYSLOGSINK_H_
