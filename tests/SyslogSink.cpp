// SyslogSink: receives and parses what syslog(3) sends to /dev/log.
#include "tests/SyslogSink.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <regex>
#include <stdexcept>

SyslogSink::SyslogSink() {
  const char kPath[] = "/dev/log";
  m_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::copy(kPath, kPath + sizeof kPath, address.sun_path);
  unlink(kPath);
  if (m_socket < 0 || bind(m_socket, reinterpret_cast<sockaddr*>(&address),
                           sizeof address) != 0) {
    throw std::runtime_error("cannot bind /dev/log");
  }
  m_reader = std::thread(&SyslogSink::Read, this);
}

SyslogSink::~SyslogSink() {
  shutdown(m_socket, SHUT_RDWR);
  m_reader.join();
  close(m_socket);
  unlink("/dev/log");
}

std::vector<LogLine> SyslogSink::Lines() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_lines;
}

void SyslogSink::Read() {
  // "<PRI>Mmm dd hh:mm:ss IDENT[PID]: TEXT"
  static const std::regex kFormat(
      R"(^<(\d+)>[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d ([^\[]*)\[(\d+)\]: ([\s\S]*)$)");
  char buffer[8192];
  for (;;) {
    ssize_t n = recv(m_socket, buffer, sizeof buffer, 0);
    if (n <= 0) return;
    std::string message(buffer, n);
    std::smatch m;
    LogLine line = {-1, "", -1, message};  // kept whole if it does not parse
    if (std::regex_match(message, m, kFormat)) {
      line = {std::stoi(m[1]), m[2], static_cast<pid_t>(std::stoi(m[3])), m[4]};
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.push_back(line);
  }
}
